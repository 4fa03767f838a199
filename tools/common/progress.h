// A progress line for people who watch: nothing is written where standard error is no terminal.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace corvalith::tools {

class Progress {
 public:
  Progress(std::string what, int total) : what_(std::move(what)), total_(total), shown_(isatty(STDERR_FILENO) != 0) {}
  ~Progress() {
    if (shown_) std::fprintf(stderr, "\r\033[K");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void at(int done) const {
    if (shown_) std::fprintf(stderr, "\r%s %d/%d\033[K", what_.c_str(), done, total_);
  }

 private:
  std::string what_;
  int total_;
  bool shown_;
};

}  // namespace corvalith::tools
