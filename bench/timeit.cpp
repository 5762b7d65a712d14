// kovathumb_timeit: runs a command repeatedly and prints one JSON line with
// the median, fastest and slowest wall time and the peak resident memory of
// the command's process tree (wait4 reports the largest of the process and
// the children it waited for).
//
//   kovathumb_timeit [-n RUNS] [-w WARMUP] [-s SETUP] -- CMD ARGS...
//
// SETUP (a shell command) runs untimed before every run, e.g. to drop a
// stored thumbnail. The command's standard output goes to /dev/null.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

bool RunOnce(char** argv, double* ms, long* maxrssKb) {
  const double start = Now();
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execvp(argv[0], argv);
    _exit(127);
  }
  int status = 0;
  rusage ru{};
  wait4(pid, &status, 0, &ru);
  *ms = Now() - start;
  *maxrssKb = ru.ru_maxrss;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 10, warmup = 1;
  std::string setup;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--") {
      ++i;
      break;
    }
    if (a == "-n" && i + 1 < argc) runs = std::atoi(argv[++i]);
    else if (a == "-w" && i + 1 < argc) warmup = std::atoi(argv[++i]);
    else if (a == "-s" && i + 1 < argc) setup = argv[++i];
    else {
      std::fprintf(stderr, "usage: kovathumb_timeit [-n RUNS] [-w WARMUP] [-s SETUP] -- CMD ARGS...\n");
      return 2;
    }
  }
  if (i >= argc || runs < 1) return 2;
  std::vector<double> times;
  long peak = 0;
  int failures = 0;
  for (int r = 0; r < warmup + runs; ++r) {
    if (!setup.empty() && std::system(setup.c_str()) != 0) return 1;
    double ms = 0;
    long rss = 0;
    if (!RunOnce(argv + i, &ms, &rss)) ++failures;
    if (r < warmup) continue;
    times.push_back(ms);
    peak = std::max(peak, rss);
  }
  std::sort(times.begin(), times.end());
  const size_t n = times.size();
  const double median = n % 2 ? times[n / 2] : (times[n / 2 - 1] + times[n / 2]) / 2;
  std::printf("{\"median_ms\":%.3f,\"min_ms\":%.3f,\"max_ms\":%.3f,\"maxrss_kb\":%ld,\"runs\":%zu,\"failures\":%d}\n",
              median, times.front(), times.back(), peak, n, failures);
  return failures ? 1 : 0;
}
