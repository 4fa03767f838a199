#include "core/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#ifdef __ANDROID__
#include <android/log.h>
#endif

namespace corvalith {
namespace {

constexpr const char* kTag = "simple_log";

void writeDefault(LogPriority priority, const char* text) {
#ifdef __ANDROID__
  __android_log_print(priority == LogPriority::kError ? ANDROID_LOG_ERROR : ANDROID_LOG_DEBUG, kTag, "%s", text);
#else
  const size_t length = std::strlen(text);
  const bool endsLine = length > 0 && text[length - 1] == '\n';
  std::fprintf(stderr, "%c/%s: %s%s", priority == LogPriority::kError ? 'E' : 'D', kTag, text, endsLine ? "" : "\n");
#endif
}

std::atomic<LogSink> sink{nullptr};

void write(LogPriority priority, const char* format, va_list args) {
  char text[1024];  // paths and names are cut here; everything else is shorter
  std::vsnprintf(text, sizeof text, format, args);
  const LogSink current = sink.load();
  (current != nullptr ? current : writeDefault)(priority, text);
}

}  // namespace

void setLogSink(LogSink newSink) { sink.store(newSink); }

void logError(const char* format, ...) {
  va_list args;
  va_start(args, format);
  write(LogPriority::kError, format, args);
  va_end(args);
}

void logDebug(const char* format, ...) {
  va_list args;
  va_start(args, format);
  write(LogPriority::kDebug, format, args);
  va_end(args);
}

int fail(const char* text) {
  logError("%s", text);
  return -1;
}

int failWith(const char* format, int status) {
  logError(format, status);
  return -1;
}

}  // namespace corvalith
