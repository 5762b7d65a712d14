// Process launching without a shell: fork, set up the child, execv.
//
// Between fork and exec the child only makes async-signal-safe calls, so
// launching is safe from a multithreaded caller. A close-on-exec pipe carries
// the errno of a failed execv back to the parent, which is how "could not be
// started" is told apart from "started and failed".
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kovaplatform/kovaplatform.h"

namespace {

// ---- In the child ----------------------------------------------------------

void MarkCloexecFrom(int lowfd) {
#ifdef SYS_close_range
  // CLOSE_RANGE_CLOEXEC (Linux 5.11): leave the pipes to execve.
  if (syscall(SYS_close_range, lowfd, ~0U, 4 /* CLOSE_RANGE_CLOEXEC */) == 0) return;
#endif
  long max = sysconf(_SC_OPEN_MAX);
  if (max < 0 || max > 65536) max = 65536;
  for (int fd = lowfd; fd < max; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

[[noreturn]] void ChildExec(const char* path, const char* const argv[], char* const envp[],
                            int out_fd, int err_pipe, unsigned wall_seconds) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction dfl;
  memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &dfl, nullptr);
  sigaction(SIGINT, &dfl, nullptr);
  sigaction(SIGTERM, &dfl, nullptr);

  int devnull = open("/dev/null", O_RDWR);
  if (out_fd < 0) out_fd = fcntl(2, F_GETFD) != -1 ? 2 : devnull;
  if (devnull < 0 || dup2(devnull, 0) < 0 || dup2(out_fd, 1) < 0) {
    int e = errno;
    (void)!write(err_pipe, &e, sizeof e);
    _exit(127);
  }
  if (fcntl(2, F_GETFD) == -1) dup2(devnull, 2);
  MarkCloexecFrom(3);

  struct rlimit cpu = {KOVA_CHILD_CPU_SECONDS, KOVA_CHILD_CPU_SECONDS + 5};
  struct rlimit as = {KOVA_CHILD_ADDRESS_SPACE, KOVA_CHILD_ADDRESS_SPACE};
  struct rlimit cur;
  if (getrlimit(RLIMIT_CPU, &cur) == 0 && cur.rlim_cur > cpu.rlim_cur) setrlimit(RLIMIT_CPU, &cpu);
  if (getrlimit(RLIMIT_AS, &cur) == 0 && cur.rlim_cur > as.rlim_cur) setrlimit(RLIMIT_AS, &as);
  // Survives execve: a child read through a pipe, whom nobody waits for
  // with a timeout, still ends when its wall time is up.
  alarm(wall_seconds);

  execve(path, const_cast<char* const*>(argv), envp);
  int e = errno;
  (void)!write(err_pipe, &e, sizeof e);
  _exit(127);
}

// ---- In the parent ----------------------------------------------------------

// ImageMagick bounds itself by these documented variables; the caller's
// own settings win. Time in seconds, sizes in bytes or pixels.
const char* const kMagickLimits[] = {
    "MAGICK_AREA_LIMIT=128MP", "MAGICK_MEMORY_LIMIT=256MiB", "MAGICK_MAP_LIMIT=512MiB",
    "MAGICK_DISK_LIMIT=1GiB",  "MAGICK_WIDTH_LIMIT=16KP",    "MAGICK_HEIGHT_LIMIT=16KP",
    "MAGICK_TIME_LIMIT=60",
};

// Where ImageMagick finds our policy.xml: beside the sources for a library
// still in the build tree, else where it was installed.
const std::string& MagickConfigureEntry() {
  static const std::string entry = [] {
    std::string dir = KOVA_MAGICK_CONFIG_DIR;
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&KLIBCExecv), &self) != 0 && self.dli_fname != nullptr) {
      char* lib = realpath(self.dli_fname, nullptr);
      char* built = realpath(KOVA_PLATFORM_BUILD_DIR, nullptr);
      if (lib != nullptr && built != nullptr && strncmp(lib, built, strlen(built)) == 0 &&
          lib[strlen(built)] == '/') {
        dir = KOVA_MAGICK_BUILD_CONFIG_DIR;
      }
      free(lib);
      free(built);
    }
    return "MAGICK_CONFIGURE_PATH=" + dir;
  }();
  return entry;
}

// The child's environment: ours, with our ImageMagick policy in place of any
// other, plus the limits not already set. Built before fork, since the child
// may only make async-signal-safe calls.
std::vector<char*> ChildEnvironment() {
  std::vector<char*> env;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    if (strncmp(*e, "MAGICK_CONFIGURE_PATH=", 22) != 0) env.push_back(*e);
  }
  env.push_back(const_cast<char*>(MagickConfigureEntry().c_str()));
  for (const char* limit : kMagickLimits) {
    const std::string name(limit, strchr(limit, '=') - limit);
    if (getenv(name.c_str()) == nullptr) env.push_back(const_cast<char*>(limit));
  }
  env.push_back(nullptr);
  return env;
}

// Reads the child's exec errno; 0 when the program started.
int ReadExecError(int fd) {
  int e = 0;
  ssize_t n;
  do {
    n = read(fd, &e, sizeof e);
  } while (n < 0 && errno == EINTR);
  close(fd);
  return n == static_cast<ssize_t>(sizeof e) ? e : 0;
}

int WaitPid(pid_t pid, int* status) {
  pid_t r;
  do {
    r = waitpid(pid, status, 0);
  } while (r < 0 && errno == EINTR);
  return r < 0 ? -1 : 0;
}

// Waits for `pid`, killing it when it outlives KOVA_CHILD_WALL_SECONDS.
// Returns 0 for a normal exit with status 0, 1 otherwise.
int WaitBounded(pid_t pid) {
#ifdef SYS_pidfd_open
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    struct pollfd p = {pidfd, POLLIN, 0};
    int left_ms = KOVAChildWallSeconds() * 1000;
    int r;
    do {
      r = poll(&p, 1, left_ms);
    } while (r < 0 && errno == EINTR);
    if (r == 0) kill(pid, SIGKILL);
    close(pidfd);
  }
#endif
  int status = 0;
  if (WaitPid(pid, &status) != 0) return 1;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

// Forks a child running `path`. `out_fd` becomes its standard output (-1:
// our standard error). With `detach`, an intermediate child forks the real
// one and exits at once, so the real one is never our zombie.
pid_t Spawn(const char* path, const char* const argv[], int out_fd, bool detach) {
  if (path == nullptr || argv == nullptr || argv[0] == nullptr) {
    errno = EINVAL;
    return -1;
  }
  std::vector<char*> envp = ChildEnvironment();
  const unsigned wall = static_cast<unsigned>(KOVAChildWallSeconds());
  int err_pipe[2];
  if (pipe2(err_pipe, O_CLOEXEC) != 0) return -1;
  pid_t pid = fork();
  if (pid < 0) {
    int e = errno;
    close(err_pipe[0]);
    close(err_pipe[1]);
    errno = e;
    return -1;
  }
  if (pid == 0) {
    close(err_pipe[0]);
    if (detach) {
      pid_t grandchild = fork();
      if (grandchild < 0) {
        int e = errno;
        (void)!write(err_pipe[1], &e, sizeof e);
        _exit(127);
      }
      if (grandchild > 0) _exit(0);
    }
    ChildExec(path, argv, envp.data(), out_fd, err_pipe[1], wall);
  }
  close(err_pipe[1]);
  int e = ReadExecError(err_pipe[0]);
  if (detach || e != 0) {
    int status;
    WaitPid(pid, &status);
  }
  if (e != 0) {
    errno = e;
    return -1;
  }
  return pid;
}

// Children of the open KLIBCPopenv streams.
std::mutex g_popen_mutex;
std::vector<std::pair<FILE*, pid_t>> g_popen_children;

}  // namespace

extern "C" {

int KLIBCExecv(const char* path, const char* const argv[], int wait) {
  pid_t pid = Spawn(path, argv, -1, wait == 0);
  if (pid < 0) return -1;
  return wait == 0 ? 0 : WaitBounded(pid);
}

int KLIBCExecl(const char* path, int flags, ...) {
  std::vector<const char*> argv;
  va_list args;
  va_start(args, flags);
  for (const char* a = va_arg(args, const char*); a != nullptr; a = va_arg(args, const char*))
    argv.push_back(a);
  va_end(args);
  argv.push_back(nullptr);
  return KLIBCExecv(path, argv.data(), 1);
}

FILE* KLIBCPopenv(const char* path, const char* mode, const char* const argv[]) {
  if (mode == nullptr || strcmp(mode, "r") != 0) {
    errno = EINVAL;
    return nullptr;
  }
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return nullptr;
  pid_t pid = Spawn(path, argv, out[1], false);
  int e = errno;
  close(out[1]);
  if (pid < 0) {
    close(out[0]);
    errno = e;
    return nullptr;
  }
  FILE* stream = fdopen(out[0], "r");
  if (stream == nullptr) {
    e = errno;
    close(out[0]);
    kill(pid, SIGKILL);
    int status;
    WaitPid(pid, &status);
    errno = e;
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_popen_mutex);
  g_popen_children.emplace_back(stream, pid);
  return stream;
}

int KLIBCPclose(FILE* stream) {
  pid_t pid = -1;
  {
    std::lock_guard<std::mutex> lock(g_popen_mutex);
    for (auto it = g_popen_children.begin(); it != g_popen_children.end(); ++it) {
      if (it->first == stream) {
        pid = it->second;
        g_popen_children.erase(it);
        break;
      }
    }
  }
  if (pid < 0) return -1;
  fclose(stream);
  return WaitBounded(pid);
}

}  // extern "C"
