// The library's system-log lines: "<file>:<line> (<function>) "<message>"" at
// error priority. Tests may divert lines to a sink of their own.
#ifndef KOVATHUMB_UTIL_LOG_H_
#define KOVATHUMB_UTIL_LOG_H_

namespace kovathumb {
namespace internal {

void LogError(const char* file, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// The place a log line says it was written, where that is kept fixed rather
// than taken from wherever the code now stands.
struct LogSite {
  const char* file;
  int line;
};
// A line written as it stands, at `priority` (facility and level).
void LogRaw(int priority, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Receives every line instead of syslog while set; nullptr restores syslog.
using LogSink = void (*)(int priority, const char* line);
void SetLogSink(LogSink sink);

}  // namespace internal
}  // namespace kovathumb

#define KT_LOG(...) ::kovathumb::internal::LogError(__FILE_NAME__, __LINE__, __func__, __VA_ARGS__)
#define KT_LOG_AT(site, ...) ::kovathumb::internal::LogError((site).file, (site).line, __func__, __VA_ARGS__)

#endif  // KOVATHUMB_UTIL_LOG_H_
