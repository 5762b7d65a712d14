// kovathumb-fcgi: kovathumb-cgi's endpoint as a long-running FastCGI
// responder, answering the same requests with the same responses.
//
// A supervisor forks workers that accept on one listening socket (the one
// the web server passes as standard input, or --socket) and starts a new
// worker for each that dies, so a crash costs one request. Each worker
// answers one request at a time, or hands it to a process of its own; see
// responder.h for how, and for what the web server is handed with
// X-Sendfile.
#include <errno.h>
#include <pwd.h>
#include <fcgiapp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>

#include "fcgi/responder.h"
#include "front_end/watchdog.h"
#include "kovathumb/version.h"

namespace kovathumb {
namespace fcgi {
namespace {

// A worker that holds more than this after a request (the library
// leaking, say) leaves and is replaced, so no growth lasts.
constexpr size_t kMaxResident = 64u << 20;

// A request's variables; whatever else it sends (a KOVATHUMB_ROOT of its
// own among them) is not read.
cgi::Params ParamsOf(FCGX_ParamArray envp) {
  cgi::Params params;
  for (const char* name : {"REQUEST_METHOD", "QUERY_STRING", "HTTP_IF_NONE_MATCH", "HTTP_IF_MODIFIED_SINCE"}) {
    if (const char* v = FCGX_GetParam(name, envp)) params[name] = v;
  }
  return params;
}

// A worker that crashes or hangs (its alarm) before any of its answer was
// sent still answers, 503, with FastCGI records made beforehand: the web
// server would say 500 for a connection closed without a response.
struct CrashAnswer {
  pid_t worker = 0;              // not the children it forks
  volatile sig_atomic_t fd = -1;  // the request's connection while nothing was sent
  std::string records;
} crash;

void AddRecord(std::string* out, unsigned char type, int id, const std::string& content) {
  const unsigned char head[8] = {1, type, static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id),
                                 static_cast<unsigned char>(content.size() >> 8),
                                 static_cast<unsigned char>(content.size()), 0, 0};
  out->append(reinterpret_cast<const char*>(head), sizeof head).append(content);
}

void OnCrash(int sig) {
  const int fd = crash.fd;
  if (fd >= 0 && getpid() == crash.worker) {
    for (size_t at = 0; at < crash.records.size();) {
      const ssize_t n = write(fd, crash.records.data() + at, crash.records.size() - at);
      if (n <= 0) break;
      at += static_cast<size_t>(n);
    }
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

int Work(int listenfd, const std::string& root, Handover* handover, Slots* slots) {
  tool::LimitAddressSpace();
  Responder responder(root, handover, slots);
  FCGX_Request req;
  if (FCGX_InitRequest(&req, listenfd, 0) != 0) return 1;
  crash.worker = getpid();
  for (int s : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) signal(s, OnCrash);
  for (;;) {
    // The processes that took requests over and have ended.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    if (FCGX_Accept_r(&req) < 0) break;
    const cgi::Params params = ParamsOf(req.envp);
    crash.records.clear();
    AddRecord(&crash.records, 6, req.requestId, cgi::BusyAnswer(params));  // FCGI_STDOUT
    AddRecord(&crash.records, 6, req.requestId, "");
    AddRecord(&crash.records, 3, req.requestId, std::string(8, '\0'));  // FCGI_END_REQUEST, complete
    crash.fd = req.ipcFd;
    const bool handed = responder.Answer(
        params,
        [&req](const char* p, size_t n) {
          crash.fd = -1;
          return FCGX_PutStr(p, static_cast<int>(n), req.out) == static_cast<int>(n);
        },
        {listenfd, req.ipcFd}, [&req] { FCGX_Finish_r(&req); });
    crash.fd = -1;
    if (handed) {
      // Its own process answers it and ends it: let go without a word.
      FCGX_Free(&req, 0);
      close(req.ipcFd);
      req.ipcFd = -1;
    } else {
      FCGX_Finish_r(&req);
    }
    if (Responder::Resident() > kMaxResident) return 0;
  }
  return 0;
}

// Keeps `count` workers running until told to stop.
int Supervise(int count, int listenfd, const std::string& root, Handover* handover) {
  // As many conversions at once as workers but one; four times the workers
  // waiting for them.
  Slots slots;
  slots.Open(count - 1, 4 * count);
  sigset_t signals, old;
  sigemptyset(&signals);
  for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, s);
  sigprocmask(SIG_BLOCK, &signals, &old);
  const pid_t self = getpid();
  handover->Sweep(0);  // what an earlier run left
  std::map<pid_t, time_t> workers;
  auto start = [&] {
    const pid_t pid = fork();
    if (pid == 0) {
      sigprocmask(SIG_SETMASK, &old, nullptr);
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (getppid() != self) _exit(0);
      _exit(Work(listenfd, root, handover, &slots));
    }
    if (pid > 0) workers[pid] = time(nullptr);
  };
  for (int i = 0; i < count; ++i) start();
  const time_t every = Handover::kKeptSeconds / 4;
  time_t swept = time(nullptr);
  for (bool stop = false; !stop;) {
    siginfo_t info;
    const struct timespec tick = {every, 0};
    const int s = sigtimedwait(&signals, &info, &tick);
    if (time(nullptr) - swept >= every) {
      handover->Sweep(Handover::kKeptSeconds);
      swept = time(nullptr);
    }
    if (s != SIGCHLD) {
      stop = s > 0;
      continue;
    }
    int status;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
      const time_t began = workers[pid];
      workers.erase(pid);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        syslog(LOG_WARNING, "kovathumb-fcgi: worker %d ended (status %d); starting another", pid, status);
      }
      // A worker that cannot even start is not restarted in a tight loop.
      if (time(nullptr) - began < 1) sleep(1);
      start();
    }
  }
  for (const auto& w : workers) kill(w.first, SIGTERM);
  while (wait(nullptr) > 0 || errno == EINTR) {
  }
  handover->Sweep(0);
  return 0;
}

constexpr char kUsage[] =
    "Usage: kovathumb-fcgi [--workers N] [--socket PATH]\n"
    "The thumbnail endpoint of the gallery and other web applications as a\n"
    "FastCGI responder: the requests and responses of kovathumb-cgi, from\n"
    "long-running workers. A web server starts it with the listening socket as\n"
    "standard input (lighttpd: \"bin-path\" and \"socket\"); run without one,\n"
    "it answers a single CGI request from the environment.\n"
    "\n"
    "Options:\n"
    "  -w, --workers N          workers answering at once (default: 2 per CPU, at\n"
    "                           least 4; or KOVATHUMB_FCGI_WORKERS)\n"
    "  -s, --socket PATH        listen on this Unix socket instead, which only we\n"
    "                           may use (mode 0600)\n"
    "  -u, --socket-user USER   ... and USER, the web server's (its owner)\n"
    "  -h, --help               print this help and exit\n"
    "  -V, --version            print the version and exit\n"
    "\n"
    "Environment:\n"
    "  KOVATHUMB_ROOT           the directory the paths are under (required; a\n"
    "                           request's own parameter of that name is ignored)\n"
    "  KOVATHUMB_SENDFILE_DIR   a directory of ours nobody else may write: stored\n"
    "                           thumbnails are copied there and handed to the web\n"
    "                           server with X-Sendfile (its \"x-sendfile-docroot\");\n"
    "                           without it they are sent through the socket (a\n"
    "                           single CGI request leaves its copy there); they\n"
    "                           take at most 4 x KOVATHUMB_MAX_THUMB_BYTES\n"
    "  KOVATHUMB_MAX_THUMB_BYTES  a stored file larger than this (default 16 MiB)\n"
    "                           is no thumbnail: never sent, copied or held\n"
    "  KOVATHUMB_LOG_STDERR=1   also write the library's log lines to standard error\n"
    "\n"
    "Requests: as kovathumb-cgi --help says.\n";

int Usage(bool ok) {
  fputs(kUsage, ok ? stdout : stderr);
  return ok ? 0 : 2;
}

}  // namespace
}  // namespace fcgi
}  // namespace kovathumb

int main(int argc, char** argv) {
  namespace fcgi = kovathumb::fcgi;
  const char* env = getenv("KOVATHUMB_FCGI_WORKERS");
  long cpus = sysconf(_SC_NPROCESSORS_ONLN);
  int workers = env != nullptr ? atoi(env) : static_cast<int>(cpus > 2 ? 2 * cpus : 4);
  std::string socketPath, socketUser;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--version" || arg == "-V") {
      printf("kovathumb-fcgi %s\n", kovathumb::Version());
      return 0;
    }
    if (arg == "--help" || arg == "-h") return fcgi::Usage(true);
    if ((arg == "--workers" || arg == "-w") && i + 1 < argc) {
      workers = atoi(argv[++i]);
    } else if ((arg == "--socket" || arg == "-s") && i + 1 < argc) {
      socketPath = argv[++i];
    } else if ((arg == "--socket-user" || arg == "-u") && i + 1 < argc) {
      socketUser = argv[++i];
    } else {
      return fcgi::Usage(false);
    }
  }
  if (workers < 1 || workers > 256) return fcgi::Usage(false);
  // A client that goes away must not kill us halfway through storing.
  signal(SIGPIPE, SIG_IGN);
  fcgi::Handover handover;
  if (const char* dir = getenv("KOVATHUMB_SENDFILE_DIR")) {
    std::string error;
    if (!handover.Open(dir, &error)) {
      fprintf(stderr, "kovathumb-fcgi: KOVATHUMB_SENDFILE_DIR %s\n", error.c_str());
      return 1;
    }
  }
  // The administrator's root; a request never names another.
  const char* rootVar = getenv("KOVATHUMB_ROOT");
  const std::string root = rootVar != nullptr ? rootVar : "";
  FCGX_Init();
  int listenfd = 0;
  if (!socketPath.empty()) {
    struct passwd* user = socketUser.empty() ? nullptr : getpwnam(socketUser.c_str());
    if (!socketUser.empty() && user == nullptr) {
      fprintf(stderr, "kovathumb-fcgi: no user %s\n", socketUser.c_str());
      return 1;
    }
    // Made with no access but ours, so nobody connects before it is the
    // web server's.
    const mode_t mask = umask(0177);
    listenfd = FCGX_OpenSocket(socketPath.c_str(), 128);
    umask(mask);
    if (listenfd < 0 || (user != nullptr && chown(socketPath.c_str(), user->pw_uid, static_cast<gid_t>(-1)) != 0)) {
      fprintf(stderr, "kovathumb-fcgi: cannot listen on %s\n", socketPath.c_str());
      return 1;
    }
  } else if (FCGX_IsCGI()) {
    // No socket: one CGI request, answered the same way.
    kovathumb::tool::LimitAddressSpace();
    fcgi::Slots none;
    fcgi::Responder responder(root, &handover, &none);
    responder.Answer(kovathumb::cgi::ParamsFromEnvironment(),
                     [](const char* p, size_t n) { return kovathumb::tool::WriteAll(1, p, n); });
    return 0;
  } else {
    // Started by the web server on its socket: we serve nobody once it is
    // gone (its next start brings its own workers).
    const pid_t server = getppid();
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != server) return 0;
  }
  return fcgi::Supervise(workers, listenfd, root, &handover);
}
