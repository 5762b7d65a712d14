#include "workers.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "ea_store.h"
#include "front_end/pin.h"
#include "front_end/video.h"
#include "kovaplatform/kovaplatform.h"
#include "kovathumb/error.h"
#include "sandbox/sandbox.h"
#include "kovathumb/file.h"
#include "kovathumb/log.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace tool {

namespace {

constexpr char kFfmpeg[] = "/usr/bin/ffmpeg";
// A file still being worked on after this long is given up.
constexpr int kFileTimeoutSeconds = 900;
// How long a worker told to stop now has to clear its work away.
constexpr int kStopGraceSeconds = 3;

// ---- One file, in a worker ---------------------------------------------------------

volatile sig_atomic_t g_stopWorker = 0;
void OnStopWorker(int) { g_stopWorker = 1; }

// `shared`, when given, makes every size of the file: in quality mode it
// makes smaller sizes from larger ones.
void MakeSize(const std::string& path, const std::string& size, int options, Thumb* shared, Outcome* out) {
  ClearLogReason();
  std::unique_ptr<Thumb> own;
  if (shared == nullptr) own.reset(new Thumb(path, options, false));
  Thumb& thumb = shared != nullptr ? *shared : *own;
  // Up to date when a request of the same behaviour is answered from the
  // store: the library's names and the store's rule, as get and the
  // endpoints find them.
  thumb.SetOption((options & kThumbOptQuality) | kThumbOptDossivaEA | kThumbOptStoredOnly);
  const bool stored = !thumb.CalcOutputFile(size).empty();
  thumb.SetOption(options);
  if (stored) {
    ++out->upToDate;
    return;
  }
  if (thumb.Convert({size}) > 0) {
    ++out->made;
  } else if (thumb.GetOutputType() == "Original") {
    ++out->original;  // the source serves as it is: nothing to store
  } else if (g_stopWorker) {
    out->interrupted = true;  // its tool was stopped with us
  } else {
    ++out->failed;
    out->error = FailureReason("no " + size + " thumbnail made");
  }
}

// Stored thumbnails carry the time of the source they were made from.
void DropStale(const StoredOf& stored) {
  if (stored.ea() < 0) return;
  const time_t mtime = stored.source().st_mtime;
  Freed freed;
  RemoveStored(stored.ea(), [&](const std::string&, Stored, const struct stat& st) { return st.st_mtime != mtime; },
               false, &freed);
}

Outcome WorkOn(const FileJob& job, const std::vector<std::string>& sizes, int options) {
  Outcome out;
  PinnedFile pinned;
  if (const int err = PinBeneath(job.root, job.rel, &pinned)) {
    out.error = err == ELOOP ? "a symbolic link: refused" : err == EMLINK ? "hard-linked elsewhere: refused" : strerror(err);
    out.failed = 1;
    return out;
  }
  const std::string path = pinned.Path();
  try {
    const StoredOf stored(pinned);
    if (job.restamp) DropStale(stored);
    if (IsSupportVideo(path)) {
      MakeScreenshot(pinned, stored, &out);
      return out;
    }
    std::unique_ptr<Thumb> shared;
    std::vector<std::string> order = sizes;
    if (options & kThumbOptQuality) {
      shared.reset(new Thumb(path, options, false));
      std::stable_sort(order.begin(), order.end(), [](const std::string& a, const std::string& b) {
        return Thumb::strThumbSizeMap_.at(a).width > Thumb::strThumbSizeMap_.at(b).width;
      });
    }
    for (const std::string& size : order) {
      if (g_stopWorker) {
        out.interrupted = true;
        break;
      }
      MakeSize(path, size, options, shared.get(), &out);
    }
  } catch (const Error& e) {
    out.error = pinned.Unpinned(e.what(), job.rel);
    out.failed = std::max(out.failed, 1);
  } catch (const std::exception& e) {
    out.error = e.what();
    out.failed = std::max(out.failed, 1);
  }
  return out;
}

}  // namespace

// ffmpeg reads the very file we opened, as the container its bytes say it
// is and nothing else, and writes into a directory only we can write, so no
// name in the tree and no reference inside the file can redirect either.
// The launcher bounds its time and memory as it does every tool's.
void MakeScreenshot(const PinnedFile& pinned, const StoredOf& stored, Outcome* out) {
  if (access(kFfmpeg, X_OK) != 0) {
    out->skipped = true;
    return;
  }
  const std::string path = pinned.Path();
  ThumbInfo info(path, kSizeOriginal, Thumb::strThumbSizeMap_.at(kSizeOriginal));
  const std::string name = info.GetCinevoThumbEAName();
  const std::string dst = file::GetEAPath(path, name);
  if (stored.Fresh(name)) {
    ++out->upToDate;
    return;
  }
  const int src = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  std::string head(kVideoHeadBytes, '\0');
  const ssize_t got = src < 0 ? -1 : pread(src, &head[0], head.size(), 0);
  head.resize(got > 0 ? static_cast<size_t>(got) : 0);
  const std::string demuxer = VideoDemuxer(head);
  if (src < 0 || fstat(src, &st) != 0 || !S_ISREG(st.st_mode) || demuxer.empty()) {
    if (src >= 0) close(src);
    ++out->failed;
    out->error = demuxer.empty() && src >= 0 ? "not a video container we read: refused" : "cannot read the video";
    return;
  }
  // Made by the platform, then held by descriptor without following a link.
  const bool made = !dst.empty() && file::MakeEADir(path);
  const safe_fs::Fd ea(made ? OpenEADirOf(pinned.Dir(), pinned.Base()) : -1);
  safe_fs::PrivateDir work;
  if (!ea.valid() || !work.CreateAt("/var/tmp/kovathumb_shot_XXXXXX")) {
    close(src);
    ++out->failed;
    out->error = "cannot make the EA directory";
    return;
  }
  const std::string input = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(src);
  const std::string shot = name + ".jpg";
  const std::vector<std::string> args = ScreenshotArgs(demuxer, input, work.ToolPath(shot));
  std::vector<const char*> argv = {kFfmpeg};
  for (const std::string& a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  Thumb thumb(path, 0, false);
  if (sandbox::RunTool(kFfmpeg, argv.data()) && fstatat(work.fd(), shot.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(st.st_mode) && st.st_size > 0 && thumb.SaveThumbToEA(work.path() + "/" + shot, dst, 0)) {
    ++out->made;
  } else {
    ++out->failed;
    out->error = FailureReason("ffmpeg made no screenshot");
    store::RemoveIfEmpty(ea.get(), pinned.Base());
  }
  close(src);
}

Json OutcomeJson(const std::string& path, const Outcome& o) {
  Json j = {{"path", path},         {"made", o.made},   {"up_to_date", o.upToDate},
            {"original", o.original}, {"failed", o.failed}};
  if (o.skipped) j["skipped"] = true;
  if (o.interrupted) j["interrupted"] = true;
  if (!o.error.empty()) j["error"] = o.error;
  return j;
}

size_t DefaultJobs() { return static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN))); }

// ---- The pool, in the parent ---------------------------------------------------------

namespace {

// A worker killed mid-file leaves its private work directory, a half-made
// thumbnail in it, in the file's EA directory: it goes with the worker.
void SweepAfter(const FileJob& job) {
  PinnedFile pinned;
  if (PinBeneath(job.root, job.rel, &pinned) != 0) return;
  const safe_fs::Fd ea(OpenEADirOf(pinned.Dir(), pinned.Base()));
  if (ea.valid()) store::SweepAbandonedWork(ea.get());
}

}  // namespace


WorkerPool::WorkerPool(size_t jobs, std::vector<std::string> sizes, int thumbOptions)
    : jobs_(std::max<size_t>(1, jobs)), sizes_(std::move(sizes)), thumbOptions_(thumbOptions) {}

WorkerPool::~WorkerPool() {
  for (Worker& w : running_) {
    kill(-w.pid, SIGKILL);
    close(w.fd);
    waitpid(w.pid, nullptr, 0);
    SweepAfter(w.job);
  }
}

bool WorkerPool::InFlight(const std::string& path) const {
  for (const Worker& w : running_) {
    if (w.job.path == path) return true;
  }
  return false;
}

void WorkerPool::Start(const FileJob& job) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    setpgid(0, 0);
    signal(SIGINT, SIG_IGN);
    // The tools' complaints would garble the progress display; what failed
    // is in the result. Asked to be verbose, the log lines show.
    int devnull = LogsToStderr() ? -1 : open("/dev/null", O_WRONLY);
    if (devnull >= 0) dup2(devnull, 2);
    // Killed outright, a worker would leave its half-made thumbnail's work
    // directory behind; asked, it lets the library clear it away.
    signal(SIGUSR1, OnStopWorker);
    signal(SIGTERM, OnStopWorker);
    close(fds[0]);
    const std::string line = OutcomeJson(job.path, WorkOn(job, sizes_, thumbOptions_))
                                 .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    (void)!write(fds[1], line.data(), line.size());
    _exit(0);
  }
  setpgid(pid, pid);
  close(fds[1]);
  running_.push_back(Worker{pid, fds[0], job, std::string(), std::chrono::steady_clock::now()});
}

void WorkerPool::Stop(bool now) {
  stopping_ = true;
  // Later: the worker alone, as its tool, ended, would cost the size in hand.
  for (Worker& w : running_) kill(now ? -w.pid : w.pid, now ? SIGTERM : SIGUSR1);
  if (now) killAt_ = std::min(killAt_, std::chrono::steady_clock::now() + std::chrono::seconds(kStopGraceSeconds));
}

void WorkerPool::Poll(int timeoutMs, std::vector<pollfd>* extra, const Done& done) {
  std::vector<pollfd> fds;
  for (const Worker& w : running_) fds.push_back({w.fd, POLLIN, 0});
  if (extra != nullptr) fds.insert(fds.end(), extra->begin(), extra->end());
  // Hung files are looked at now and then.
  if (!running_.empty() && (timeoutMs < 0 || timeoutMs > 1000)) timeoutMs = 1000;
  if (poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR) return;
  if (extra != nullptr) std::copy(fds.begin() + static_cast<long>(running_.size()), fds.end(), extra->begin());
  for (size_t i = running_.size(); i-- > 0;) {
    Worker& w = running_[i];
    const auto now = std::chrono::steady_clock::now();
    if (now - w.start > std::chrono::seconds(kFileTimeoutSeconds) || now > killAt_) {
      kill(-w.pid, SIGKILL);
    }
    if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
    char buf[4096];
    const ssize_t n = read(w.fd, buf, sizeof buf);
    if (n > 0) {
      w.output.append(buf, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    Worker finished = std::move(w);
    running_.erase(running_.begin() + static_cast<long>(i));
    Reap(finished, done);
  }
}

void WorkerPool::Reap(Worker& w, const Done& done) {
  close(w.fd);
  int status = 0;
  while (waitpid(w.pid, &status, 0) < 0 && errno == EINTR) {
  }
  kill(-w.pid, SIGKILL);  // tools it left behind, if any
  if (!WIFEXITED(status)) SweepAfter(w.job);
  Json j = Json::parse(w.output, nullptr, false);
  if ((j.is_discarded() || !WIFEXITED(status)) && stopping_) {
    // Stopped by us, not by a fault of the file: a re-run makes it.
    Outcome o;
    o.interrupted = true;
    j = OutcomeJson(w.job.path, o);
  } else if (j.is_discarded() || !WIFEXITED(status)) {
    Outcome o;
    o.failed = 1;
    o.error = WIFSIGNALED(status) ? "worker killed by signal " + std::to_string(WTERMSIG(status))
                                  : "worker ended without a result";
    j = OutcomeJson(w.job.path, o);
  }
  done(w.job, j);
}

}  // namespace tool
}  // namespace kovathumb
