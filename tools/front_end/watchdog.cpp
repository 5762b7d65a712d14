#include "front_end/watchdog.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "kovaplatform/kovaplatform.h"

namespace kovathumb {
namespace tool {

int WallSeconds() { return KOVAChildWallSeconds(); }

void LimitAddressSpace() {
#ifndef KOVATHUMB_SANITIZED
  struct rlimit as = {KOVA_CHILD_ADDRESS_SPACE, KOVA_CHILD_ADDRESS_SPACE};
  struct rlimit cur;
  if (getrlimit(RLIMIT_AS, &cur) == 0 && cur.rlim_cur > as.rlim_cur) setrlimit(RLIMIT_AS, &as);
#endif
}

int RunBounded(const std::function<int()>& request, const std::string& timedOut,
               const std::string& failed) {
  return RunBounded(
      [&request](int out) {
        if (dup2(out, 1) < 0) return 1;
        close(out);
        const int status = request();
        fflush(stdout);
        return status;
      },
      timedOut, failed, [](const char* p, size_t n) { return WriteAll(1, p, n); });
}

int RunBounded(const std::function<int(int out)>& request, const std::string& timedOut,
               const std::string& failed, const std::function<bool(const char*, size_t)>& sink) {
  fflush(stdout);
  int fds[2] = {-1, -1};
  const pid_t pid = pipe2(fds, O_CLOEXEC) != 0 ? -1 : fork();
  if (pid < 0) {
    // No child to be had: nothing unbounded runs here.
    if (fds[0] >= 0) close(fds[0]), close(fds[1]);
    sink(timedOut.data(), timedOut.size());
    return 1;
  }
  if (pid == 0) {
    close(fds[0]);
    LimitAddressSpace();
    _exit(request(fds[1]));
  }
  close(fds[1]);
  const time_t deadline = time(nullptr) + KOVAChildWallSeconds();
  bool relayed = false, writable = true, timeout = false;
  char buf[65536];
  for (;;) {
    const time_t left = deadline - time(nullptr);
    struct pollfd p = {fds[0], POLLIN, 0};
    const int ready = left > 0 ? poll(&p, 1, static_cast<int>(left) * 1000) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      timeout = true;
      break;
    }
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    relayed = true;
    // A client that left is not waited for; the child still ends in bounds.
    if (writable) writable = sink(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  if (timeout) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  const bool exited = !timeout && WIFEXITED(status);
  if (!relayed && !exited) {
    const std::string& answer = timeout ? timedOut : failed;
    sink(answer.data(), answer.size());
  }
  return exited ? WEXITSTATUS(status) : 1;
}

}  // namespace tool
}  // namespace kovathumb
