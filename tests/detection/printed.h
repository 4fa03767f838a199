// What a function writes to the two standard streams.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace corvalith::testing {

struct Printed {
  std::string out, err;
};

template <class Function>
Printed printedBy(Function function) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  function();
  Printed printed;
  printed.out = ::testing::internal::GetCapturedStdout();
  printed.err = ::testing::internal::GetCapturedStderr();
  return printed;
}

}  // namespace corvalith::testing
