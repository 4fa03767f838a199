#include "tests/support/log_capture.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "core/log.h"

namespace corvalith::testing {
namespace {

/// Every line with a zero behind it. Has room from the start: memory may be what the test lets run out.
std::string& captured() {
  static std::string lines;
  return lines;
}

std::mutex guard;  // the last line of a release comes after the engine's own lock

void capture(LogPriority priority, const char* text) {
  const std::lock_guard<std::mutex> lock(guard);
  captured() += priority == LogPriority::kError ? "E/" : "D/";
  captured() += text;
  captured() += '\0';
}

}  // namespace

LogCapture::LogCapture() {
  captured().clear();
  captured().reserve(1 << 20);
  setLogSink(capture);
}

LogCapture::~LogCapture() { setLogSink(nullptr); }

std::vector<std::string> LogCapture::lines() const {
  std::vector<std::string> result;
  for (size_t start = 0; start < captured().size(); start += result.back().size() + 1) {
    result.emplace_back(captured().c_str() + start);
  }
  return result;
}

bool LogCapture::contains(const std::string& line) const {
  const std::vector<std::string> all = lines();
  return std::find(all.begin(), all.end(), line) != all.end();
}

std::vector<std::string> LogCapture::take() {
  std::vector<std::string> all = lines();
  captured().clear();
  return all;
}

}  // namespace corvalith::testing
