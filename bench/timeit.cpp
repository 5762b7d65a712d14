// kovathumb_timeit: runs a command repeatedly and prints one JSON line with
// the median, fastest and slowest wall time, the median CPU time (user and
// system of the process and the children it waited for) and the peak
// resident memory of the command's process tree (wait4 reports the largest
// of the process and the children it waited for).
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

bool RunOnce(char** argv, double* ms, double* cpuMs, long* maxrssKb) {
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
  *cpuMs = ru.ru_utime.tv_sec * 1e3 + ru.ru_utime.tv_usec / 1e3 + ru.ru_stime.tv_sec * 1e3 + ru.ru_stime.tv_usec / 1e3;
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
  std::vector<double> times, cpus;
  long peak = 0;
  int failures = 0;
  for (int r = 0; r < warmup + runs; ++r) {
    if (!setup.empty() && std::system(setup.c_str()) != 0) return 1;
    double ms = 0, cpu = 0;
    long rss = 0;
    if (!RunOnce(argv + i, &ms, &cpu, &rss)) ++failures;
    if (r < warmup) continue;
    times.push_back(ms);
    cpus.push_back(cpu);
    peak = std::max(peak, rss);
  }
  std::sort(times.begin(), times.end());
  std::sort(cpus.begin(), cpus.end());
  const size_t n = times.size();
  const auto median = [n](const std::vector<double>& v) { return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2; };
  std::printf(
      "{\"median_ms\":%.3f,\"min_ms\":%.3f,\"max_ms\":%.3f,\"cpu_ms\":%.3f,\"maxrss_kb\":%ld,\"runs\":%zu,"
      "\"failures\":%d}\n",
      median(times), times.front(), times.back(), median(cpus), peak, n, failures);
  return failures ? 1 : 0;
}
