// The program from outside: exit status, messages and files.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/temp_dir.h"

namespace corvalith::testing {

class ToolTest : public ::testing::Test {
 protected:
  /// Runs the program, with "NAME=value " in front if so wanted. Gives its exit status, or -1 where it was killed; what
  /// it wrote to both streams is then in `text`.
  int run(const std::string& arguments, const std::string& environment = "") {
    const std::string log = dir.file("log");
    const int status = std::system((environment + CORVALITH_PROGRAM " " + arguments + " >" + log + " 2>&1").c_str());
    std::ifstream file(log);
    text.assign(std::istreambuf_iterator<char>(file), {});
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  bool says(const std::string& part) const { return text.find(part) != std::string::npos; }

  TempDir dir;
  std::string text;
};

}  // namespace corvalith::testing
