// A disk that is full.
#pragma once

#include <sys/resource.h>

#include <csignal>
#include <cstddef>

namespace corvalith::testing {

/// While it lives, files end at so many bytes.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(size_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  void (*handler_)(int);
  rlimit before_{};
};

}  // namespace corvalith::testing
