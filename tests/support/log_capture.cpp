#include "tests/support/log_capture.h"

#include <algorithm>
#include <utility>

#include "core/log.h"

namespace corvalith::testing {
namespace {

std::vector<std::string>& captured() {
  static std::vector<std::string> lines;
  return lines;
}

void capture(LogPriority priority, const char* text) {
  captured().push_back((priority == LogPriority::kError ? "E/" : "D/") + std::string(text));
}

}  // namespace

LogCapture::LogCapture() {
  captured().clear();
  setLogSink(capture);
}

LogCapture::~LogCapture() { setLogSink(nullptr); }

const std::vector<std::string>& LogCapture::lines() const { return captured(); }

bool LogCapture::contains(const std::string& line) const {
  return std::find(captured().begin(), captured().end(), line) != captured().end();
}

std::vector<std::string> LogCapture::take() { return std::exchange(captured(), {}); }

}  // namespace corvalith::testing
