#include "util/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>

#include "kovathumb/log.h"

namespace kovathumb {
namespace {

std::atomic<int> g_stderr{-1};  // -1: not yet decided by the environment
thread_local std::string t_reason;

bool ToStderr() {
  int on = g_stderr.load();
  if (on < 0) {
    const char* env = getenv("KOVATHUMB_LOG_STDERR");
    on = env != nullptr && *env != '\0' && strcmp(env, "0") != 0;
    g_stderr.store(on);
  }
  return on != 0;
}

}  // namespace

void SetLogToStderr(bool on) { g_stderr.store(on ? 1 : 0); }
bool LogsToStderr() { return ToStderr(); }
std::string LogReason() { return t_reason; }
void ClearLogReason() { t_reason.clear(); }

namespace internal {
namespace {

std::atomic<LogSink> g_sink{nullptr};

// Formats with the C library's printf, which also knows "%m" (errno's text).
std::string Format(const char* fmt, va_list ap) {
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(&big[0], big.size(), fmt, ap);
  big.resize(static_cast<size_t>(n));
  return big;
}

void Emit(int priority, const std::string& line) {
  LogSink sink = g_sink.load();
  if (sink != nullptr) {
    sink(priority, line.c_str());
  } else {
    syslog(priority, "%s", line.c_str());
  }
  if (ToStderr()) fprintf(stderr, "kovathumb: %s\n", line.c_str());
}

}  // namespace

void LogError(const char* file, int line, const char* func, const char* fmt, ...) {
  int saved = errno;
  va_list ap;
  va_start(ap, fmt);
  std::string msg = Format(fmt, ap);
  va_end(ap);
  char head[256];
  snprintf(head, sizeof head, "%s:%d (%s) ", file, line, func);
  if (t_reason.empty()) t_reason = msg;
  Emit(LOG_ERR, std::string(head) + "\"" + msg + "\"");
  errno = saved;
}

void LogRaw(int priority, const char* fmt, ...) {
  int saved = errno;
  va_list ap;
  va_start(ap, fmt);
  std::string msg = Format(fmt, ap);
  va_end(ap);
  Emit(priority, msg);
  errno = saved;
}

void SetLogSink(LogSink sink) { g_sink.store(sink); }

}  // namespace internal
}  // namespace kovathumb
