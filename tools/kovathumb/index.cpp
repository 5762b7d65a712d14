// kovathumb index: makes the thumbnails of every photo under some trees.
//
// Each file is worked on in a child process of its own, at most -j at a
// time, so a conversion that crashes or hangs costs that file only. The
// children run in process groups of their own: Ctrl-C reaches only us, and
// we ask the children to stop after the size they are making, so nothing
// is left half-made.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>

#include "subcommands.h"
#include "front_end/pin.h"
#include "front_end/tree.h"
#include "kovaplatform/kovaplatform.h"
#include "kovathumb/error.h"
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

struct IndexArgs {
  int jobs = 0;
  std::vector<std::string> sizes;
  bool json = false;
  bool noProgress = false;
  bool appliance = false;
  std::vector<std::string> dirs;
};

// Quality mode unless --appliance; set once before the workers start.
int g_thumbOptions = kThumbOptQuality;

// ---- One file, in a worker ---------------------------------------------------------

volatile sig_atomic_t g_stopWorker = 0;
void OnStopWorker(int) { g_stopWorker = 1; }

// `shared`, when given, makes every size of the file: in quality mode it
// makes smaller sizes from larger ones.
void MakeSize(const std::string& path, const std::string& size, Thumb* shared, Outcome* out) {
  ThumbInfo info(path, size, Thumb::strThumbSizeMap_.at(size));
  try {
    info.ExtractImgInfo(false);
  } catch (const Error& e) {
    if (e.Code() != kErrorUnknownType) throw;
  }
  if (info.IsThumbUptoDate(file::GetEAPath(path, info.GetDossivaThumbEAName()))) {
    ++out->upToDate;
    return;
  }
  ClearLogReason();
  std::unique_ptr<Thumb> own;
  if (shared == nullptr) own.reset(new Thumb(path, g_thumbOptions, false));
  Thumb& thumb = shared != nullptr ? *shared : *own;
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

}  // namespace

// The video application's screenshot: one frame, stored like a thumbnail.
// ffmpeg reads the very file we opened and writes into a directory only we
// can write, so no name in the tree can redirect either.
void MakeScreenshot(const std::string& path, Outcome* out) {
  if (access(kFfmpeg, X_OK) != 0) {
    out->skipped = true;
    return;
  }
  ThumbInfo info(path, kSizeOriginal, Thumb::strThumbSizeMap_.at(kSizeOriginal));
  const std::string name = info.GetCinevoThumbEAName();
  const std::string dst = file::GetEAPath(path, name);
  if (info.IsThumbUptoDate(dst)) {
    ++out->upToDate;
    return;
  }
  const int src = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  if (src < 0 || fstat(src, &st) != 0 || !S_ISREG(st.st_mode) || dst.empty() || !file::MakeEADir(path)) {
    if (src >= 0) close(src);
    ++out->failed;
    out->error = "cannot make the EA directory";
    return;
  }
  char work[] = "/var/tmp/kovathumb_shot_XXXXXX";
  if (mkdtemp(work) == nullptr) {
    close(src);
    ++out->failed;
    return;
  }
  const std::string input = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(src);
  const std::string tmp = std::string(work) + "/" + name + ".jpg";
  const char* argv[] = {kFfmpeg, "-nostdin", "-v", "error", "-y", "-i", input.c_str(),
                        "-vf", "thumbnail=25,scale='min(1280,iw)':-2", "-frames:v", "1",
                        "-q:v", "3", tmp.c_str(), nullptr};
  Thumb thumb(path, 0, false);
  if (KLIBCExecv(kFfmpeg, argv, 1) == 0 && stat(tmp.c_str(), &st) == 0 && st.st_size > 0 &&
      thumb.SaveThumbToEA(tmp, dst, 0)) {
    ++out->made;
  } else {
    ++out->failed;
    out->error = FailureReason("ffmpeg made no screenshot");
  }
  close(src);
  unlink(tmp.c_str());
  rmdir(work);
}

namespace {

// Works on `rel` beneath `root`, through its pinned directory.
Outcome WorkOn(const std::string& root, const std::string& rel, const std::vector<std::string>& sizes) {
  Outcome out;
  PinnedFile pinned;
  if (const int err = PinBeneath(root, rel, &pinned)) {
    out.error = err == ELOOP ? "a symbolic link: refused" : strerror(err);
    out.failed = 1;
    return out;
  }
  const std::string path = pinned.Path();
  try {
    if (IsSupportVideo(path)) {
      MakeScreenshot(path, &out);
      return out;
    }
    std::unique_ptr<Thumb> shared;
    std::vector<std::string> order = sizes;
    if (g_thumbOptions & kThumbOptQuality) {
      shared.reset(new Thumb(path, g_thumbOptions, false));
      std::stable_sort(order.begin(), order.end(), [](const std::string& a, const std::string& b) {
        return Thumb::strThumbSizeMap_.at(a).width > Thumb::strThumbSizeMap_.at(b).width;
      });
    }
    for (const std::string& size : order) {
      if (g_stopWorker) {
        out.interrupted = true;
        break;
      }
      MakeSize(path, size, shared.get(), &out);
    }
  } catch (const Error& e) {
    out.error = pinned.Unpinned(e.what(), rel);
    out.failed = std::max(out.failed, 1);
  } catch (const std::exception& e) {
    out.error = e.what();
    out.failed = std::max(out.failed, 1);
  }
  return out;
}

Json ToJson(const std::string& path, const Outcome& o) {
  Json j = {{"path", path},         {"made", o.made},   {"up_to_date", o.upToDate},
            {"original", o.original}, {"failed", o.failed}};
  if (o.skipped) j["skipped"] = true;
  if (o.interrupted) j["interrupted"] = true;
  if (!o.error.empty()) j["error"] = o.error;
  return j;
}

// ---- The run, in the parent ---------------------------------------------------------

volatile sig_atomic_t g_interrupts = 0;
void OnInterrupt(int) { ++g_interrupts; }

struct Worker {
  pid_t pid;
  int fd;
  size_t index;
  std::string output;
  std::chrono::steady_clock::time_point start;
};

// One file found: beneath root `root`, shown as `path`.
struct Found {
  std::string root, rel, path;
};

Worker Spawn(const Found& file, const std::vector<std::string>& sizes, size_t index) {
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
    signal(SIGUSR1, OnStopWorker);
    close(fds[0]);
    const std::string line = ToJson(file.path, WorkOn(file.root, file.rel, sizes)).dump(-1, ' ', false,
                                                                       nlohmann::json::error_handler_t::replace);
    (void)!write(fds[1], line.data(), line.size());
    _exit(0);
  }
  setpgid(pid, pid);
  close(fds[1]);
  return Worker{pid, fds[0], index, std::string(), std::chrono::steady_clock::now()};
}

std::string Clock(double seconds) {
  const long s = static_cast<long>(seconds + 0.5);
  char buf[32];
  snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
  return buf;
}

void DrawProgress(size_t done, size_t total, double elapsed) {
  const int width = 30;
  const int filled = total == 0 ? width : static_cast<int>(width * done / total);
  const double rate = elapsed > 0 ? done / elapsed : 0;
  const std::string eta = rate > 0 ? Clock((total - done) / rate) : "-:--";
  fprintf(stderr, "\r[%s%s] %zu/%zu files  %.1f/s  %s left ", std::string(filled, '#').c_str(),
          std::string(width - filled, '.').c_str(), done, total, rate, eta.c_str());
  fflush(stderr);
}

int RunIndex(const IndexArgs& args) {
  g_thumbOptions = args.appliance ? 0 : kThumbOptQuality;
  std::vector<std::string> sizes = args.sizes;
  if (sizes.empty()) sizes = {kSizeSmall, kSizeMedium, kSizeBig, kSizeLarge, kSizeXLarge};
  CheckSizes(sizes);
  std::vector<Found> files;
  for (std::string dir : args.dirs) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    const std::string real = RealPath(dir);
    struct stat st;
    if (real.empty() || stat(real.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      throw CLI::ValidationError("DIR", "not a directory: " + dir);
    }
    std::vector<TreeFile> found;
    WalkTree(real, &found);
    for (const TreeFile& f : found) files.push_back(Found{real, f.rel, dir + "/" + f.rel});
  }

  const size_t jobs = args.jobs > 0 ? static_cast<size_t>(args.jobs)
                                    : static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
  const bool progress = !args.noProgress && isatty(2);
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnInterrupt;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
  std::vector<Worker> running;
  size_t next = 0, done = 0;
  int made = 0, upToDate = 0, original = 0, skipped = 0;
  std::vector<std::pair<std::string, std::string>> failedFiles;  // path, reason
  std::vector<std::string> interruptedFiles;
  int signalled = 0;

  while (!running.empty() || (g_interrupts == 0 && next < files.size())) {
    if (g_interrupts != signalled) {
      // First: finish the size in hand, then stop. Again: stop now.
      // The worker alone: its tool, killed, would cost the size in hand.
      for (Worker& w : running) kill(g_interrupts > 1 ? -w.pid : w.pid, g_interrupts > 1 ? SIGKILL : SIGUSR1);
      signalled = g_interrupts;
    }
    while (g_interrupts == 0 && running.size() < jobs && next < files.size()) {
      running.push_back(Spawn(files[next], sizes, next));
      ++next;
    }
    std::vector<pollfd> fds;
    for (const Worker& w : running) fds.push_back({w.fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), 200) < 0 && errno != EINTR) break;
    for (size_t i = running.size(); i-- > 0;) {
      Worker& w = running[i];
      if (std::chrono::steady_clock::now() - w.start > std::chrono::seconds(kFileTimeoutSeconds)) {
        kill(-w.pid, SIGKILL);
      }
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buf[4096];
      ssize_t n = read(w.fd, buf, sizeof buf);
      if (n > 0) {
        w.output.append(buf, static_cast<size_t>(n));
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      close(w.fd);
      int status = 0;
      while (waitpid(w.pid, &status, 0) < 0 && errno == EINTR) {
      }
      kill(-w.pid, SIGKILL);  // tools it left behind, if any
      Json j = Json::parse(w.output, nullptr, false);
      const std::string& path = files[w.index].path;
      if ((j.is_discarded() || !WIFEXITED(status)) && g_interrupts != 0) {
        // Stopped by us, not by a fault of the file: a re-run makes it.
        j = Json{{"path", path}, {"made", 0}, {"up_to_date", 0}, {"original", 0}, {"failed", 0},
                 {"interrupted", true}};
      } else if (j.is_discarded() || !WIFEXITED(status)) {
        const std::string why = WIFSIGNALED(status) ? "worker killed by signal " + std::to_string(WTERMSIG(status))
                                                    : "worker ended without a result";
        j = Json{{"path", path}, {"made", 0}, {"up_to_date", 0}, {"original", 0}, {"failed", 1}, {"error", why}};
      }
      made += j.value("made", 0);
      upToDate += j.value("up_to_date", 0);
      original += j.value("original", 0);
      skipped += j.value("skipped", false) ? 1 : 0;
      if (j.value("interrupted", false)) interruptedFiles.push_back(path);
      if (j.value("failed", 0) > 0) failedFiles.push_back({path, j.value("error", std::string())});
      ++done;
      if (args.json) PrintLine(j);
      running.erase(running.begin() + static_cast<long>(i));
    }
    if (progress) DrawProgress(done, files.size(), elapsed());
  }
  if (progress) fputc('\n', stderr);

  const bool stopped = g_interrupts != 0;
  Json summary = {{"summary", true},
                  {"files", files.size()},
                  {"done", done},
                  {"made", made},
                  {"up_to_date", upToDate},
                  {"original", original},
                  {"skipped", skipped},
                  {"failed", failedFiles.size()},
                  {"failed_files", Json::array()},
                  {"interrupted", stopped},
                  {"interrupted_files", interruptedFiles},
                  {"seconds", std::round(elapsed() * 1000) / 1000}};
  for (const auto& f : failedFiles) summary["failed_files"].push_back(f.first);
  if (args.json) {
    PrintLine(summary);
  } else {
    std::printf("%zu files: %d thumbnails made, %d up to date, %d served as the original, %d skipped, "
                "%zu files failed%s in %.1f s\n",
                files.size(), made, upToDate, original, skipped, failedFiles.size(),
                stopped ? (", " + std::to_string(interruptedFiles.size()) + " interrupted").c_str() : "",
                elapsed());
    for (const auto& f : failedFiles) {
      std::printf("failed: %s%s%s\n", f.first.c_str(), f.second.empty() ? "" : ": ", f.second.c_str());
    }
    for (const std::string& f : interruptedFiles) std::printf("interrupted: %s\n", f.c_str());
  }
  if (stopped) return 130;
  return failedFiles.empty() ? kExitOk : kExitFailed;
}

}  // namespace

void AddIndexCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<IndexArgs>();
  CLI::App* cmd = app.add_subcommand("index", "Make the thumbnails of every photo (and video) under DIR");
  cmd->add_option("-j,--jobs", args->jobs, "files worked on at once (default: the number of cores)")
      ->check(CLI::Range(1, 256));
  AddSizesOption(cmd, &args->sizes, "sizes to make, separated by commas (default: all five)");
  cmd->add_flag("--json", args->json, "one JSON line per file and a summary line");
  cmd->add_flag("--no-progress", args->noProgress, "no progress bar on the terminal");
  cmd->add_flag("--appliance", args->appliance, "the appliance's thumbnails instead of quality mode's");
  cmd->add_option("DIR", args->dirs, "directories")->required();
  cmd->callback([args, status] { *status = RunIndex(*args); });
}

}  // namespace tool
}  // namespace kovathumb
