// Collects the engine's diagnostics while it lives.
#pragma once

#include <string>
#include <vector>

namespace corvalith::testing {

/// Lines are kept as "E/text" and "D/text", in order and without an added line feed. One at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  bool contains(const std::string& line) const;
  /// The lines so far; none are left.
  std::vector<std::string> take();
};

}  // namespace corvalith::testing
