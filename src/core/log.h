// The engine's diagnostics: the Android log under the tag "simple_log", elsewhere one line on standard error.
#pragma once

namespace corvalith {

enum class LogPriority { kDebug, kError };

/// Receives every line instead of the default destination. The text has no line feed added.
using LogSink = void (*)(LogPriority priority, const char* text);

/// Replaces the destination of all diagnostics; null restores the default. For programs that link the engine's objects.
void setLogSink(LogSink sink);

/// Reports a failure. Texts are fixed: other programs search logs for them.
void logError(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Reports progress, or one of the failures that are logged at debug priority.
void logDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Logs a fixed text and gives the failure status, so that a failed check is one line: `return fail("...")`.
[[nodiscard]] int fail(const char* text);

/// The same for a text that takes the status of an OpenCL call as its one %d.
[[nodiscard]] int failWith(const char* format, int status);

}  // namespace corvalith
