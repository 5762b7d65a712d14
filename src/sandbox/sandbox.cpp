// A bounded child for untrusted parsing. Isolation is applied in
// EnterIsolation(); the rest is process plumbing.
#include "sandbox/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace kovathumb {
namespace sandbox {

namespace {

void ApplyLimits(const Limits& l) {
  struct rlimit cpu = {l.cpuSeconds, l.cpuSeconds + 1};
  setrlimit(RLIMIT_CPU, &cpu);
#ifndef KOVATHUMB_SANITIZED
  struct rlimit as = {l.addressSpace, l.addressSpace};
  setrlimit(RLIMIT_AS, &as);
#endif
  signal(SIGALRM, SIG_DFL);
  alarm(l.wallSeconds);
}

// Closes every descriptor but `keep` and `reply`.
void CloseOthers(const std::vector<int>& keep, int reply) {
  long max = sysconf(_SC_OPEN_MAX);
  if (max < 0 || max > 65536) max = 65536;
  for (int fd = 3; fd < max; ++fd) {
    if (fd != reply && std::find(keep.begin(), keep.end(), fd) == keep.end()) close(fd);
  }
}

// Gives up what the body must not have. Placeholder: limits only.
bool EnterIsolation(const Spec& spec) {
  ApplyLimits(spec.limits);
  return true;
}

int64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

Outcome Run(const Spec& spec, const std::function<int(int)>& body, std::string* reply, size_t maxReply,
            int* status) {
  if (status != nullptr) *status = -1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return kNoChild;
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return kNoChild;
  }
  if (pid == 0) {
    close(fds[0]);
    CloseOthers(spec.keep, fds[1]);
    if (!EnterIsolation(spec)) _exit(126);
    int rc = 126;
    try {
      rc = body(fds[1]);
    } catch (...) {
    }
    _exit(rc & 0xff);
  }
  close(fds[1]);
  const int64_t deadline = NowMs() + int64_t{spec.limits.wallSeconds} * 1000 + 1000;
  bool timedOut = false;
  char buf[65536];
  for (;;) {
    const int64_t left = deadline - NowMs();
    if (left <= 0) {
      timedOut = true;
      break;
    }
    struct pollfd p = {fds[0], POLLIN, 0};
    const int r = poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 1 << 30)));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (reply != nullptr) {
      if (reply->size() + static_cast<size_t>(n) > maxReply) break;  // answers past the bound are not answers
      reply->append(buf, static_cast<size_t>(n));
    }
  }
  close(fds[0]);
  int ws = 0;
  if (timedOut) kill(pid, SIGKILL);
  pid_t r;
  // A child that closed its end but lingers is bounded by the same deadline.
  while ((r = waitpid(pid, &ws, WNOHANG)) == 0) {
    if (NowMs() >= deadline) {
      kill(pid, SIGKILL);
      timedOut = true;
      while (waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
      }
      break;
    }
    struct timespec tick = {0, 2 * 1000 * 1000};
    nanosleep(&tick, nullptr);
  }
  if (timedOut) return kTimedOut;
  if (WIFSIGNALED(ws)) return kKilled;
  if (status != nullptr) *status = WEXITSTATUS(ws);
  return kExited;
}

}  // namespace sandbox
}  // namespace kovathumb
