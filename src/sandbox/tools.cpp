// The tools we start, started from inside a sandbox: they inherit its
// isolation and receive the very argument vectors the launcher is given.
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kovaplatform/kovaplatform.h"
#include "sandbox/sandbox.h"

namespace kovathumb {
namespace sandbox {

namespace {

// Copies the tool's output to `out`; false on an error or when there was none.
bool Copy(int in, int out) {
  char buf[65536];
  size_t total = 0;
  for (;;) {
    const ssize_t n = read(in, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return total > 0;
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = write(out, buf + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      done += w;
    }
    total += static_cast<size_t>(n);
  }
}

}  // namespace

std::vector<int> PinnedDescriptors(const std::vector<std::string>& args) {
  const std::string mine = "/proc/" + std::to_string(getpid()) + "/fd/";
  std::vector<int> fds;
  for (const std::string& a : args) {
    for (size_t at = a.find(mine); at != std::string::npos; at = a.find(mine, at + 1)) {
      const size_t digits = at + mine.size();
      const size_t end = a.find_first_not_of("0123456789", digits);
      if (end == digits || end - digits > 9) continue;
      const int fd = std::atoi(a.substr(digits, end - digits).c_str());
      bool seen = false;
      for (int f : fds) seen = seen || f == fd;
      if (!seen) fds.push_back(fd);
    }
  }
  return fds;
}

bool RunTool(const char* path, const char* const argv[], int out, int err) {
  std::vector<std::string> args;
  for (const char* const* a = argv; *a != nullptr; ++a) args.push_back(*a);
  Spec spec;
  for (int fd : PinnedDescriptors(args)) {
    struct stat st;
    if (fstat(fd, &st) != 0) continue;
    (S_ISDIR(st.st_mode) ? spec.writable : spec.visible).push_back(fd);
  }
  if (out >= 0) spec.keep.push_back(out);
  if (err >= 0) spec.keep.push_back(err);
  // The launcher bounds the tool; ours only has to outlast it.
  spec.limits.wallSeconds = static_cast<unsigned>(KOVAChildWallSeconds()) + 5;
  spec.limits.cpuSeconds = KOVA_CHILD_CPU_SECONDS + 5;
  spec.limits.addressSpace = KOVA_CHILD_ADDRESS_SPACE;
  int status = -1;
  const Outcome o = Run(spec, [&](int) {
    if (err >= 0 && dup2(err, 2) != 2) return 1;
    if (out < 0) return KLIBCExecv(path, argv, 1) == 0 ? 0 : 1;
    FILE* pipe = KLIBCPopenv(path, "r", argv);
    if (pipe == nullptr) return 1;
    const bool copied = Copy(fileno(pipe), out);
    return KLIBCPclose(pipe) == 0 && copied ? 0 : 1;
  }, nullptr, 0, &status);
  return o == kExited && status == 0;
}

}  // namespace sandbox
}  // namespace kovathumb
