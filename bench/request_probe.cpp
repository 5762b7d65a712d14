// kovathumb_request_probe: answers one request like `kovathumb get` (the
// response goes to /dev/null) and prints, as one JSON line on standard
// error, what it cost our process apart from the tools it started: CPU
// time inside the request (the library's own work), CPU time of the whole
// process (start-up included), peak resident memory, and the same for the
// tools it started.
//
//   kovathumb_request_probe OPTIONS SIZE FILE
#include <fcntl.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kovathumb/thumb.h"

namespace {
double Ms(const timeval& tv) { return tv.tv_sec * 1e3 + tv.tv_usec / 1e3; }
double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}
}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: kovathumb_request_probe OPTIONS SIZE FILE\n");
    return 2;
  }
  const double start = Now();
  int null = open("/dev/null", O_WRONLY);
  dup2(null, 1);
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  int sent = 0;
  {
    kovathumb::Thumb thumb(argv[3], std::atoi(argv[1]), false);
    sent = thumb.Output(argv[2]);
  }
  const double wall = Now() - start;
  rusage self{}, children{};
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_CHILDREN, &children);
  std::fprintf(stderr,
               "{\"sent\":%d,\"wall_ms\":%.3f,\"request_cpu_ms\":%.3f,\"self_cpu_ms\":%.3f,\"self_maxrss_kb\":%ld,"
               "\"children_cpu_ms\":%.3f,\"children_maxrss_kb\":%ld}\n",
               sent != 0, wall,
               Ms(self.ru_utime) + Ms(self.ru_stime) - Ms(before.ru_utime) - Ms(before.ru_stime),
               Ms(self.ru_utime) + Ms(self.ru_stime), self.ru_maxrss,
               Ms(children.ru_utime) + Ms(children.ru_stime), children.ru_maxrss);
  return sent ? 0 : 1;
}
