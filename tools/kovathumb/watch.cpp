// kovathumb watch: keeps the thumbnails of some trees in step with them.
//
// inotify tells us what changed. The kernel names a directory only by its
// watch, so each watch remembers its parent's and its own name, and a path
// is made when needed; every directory is opened through its parent's
// descriptor without following a link, and the watch is added through that
// descriptor ("/proc/self/fd/N"), never through a name a user could swap.
// Conversions run in index's workers.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cmath>
#include <iostream>
#include <memory>

#include "front_end/pin.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"
#include "store/names.h"
#include "watcher.h"

namespace kovathumb {
namespace tool {

namespace {

// The two halves of a rename come one after the other; the second is
// waited for this long before the first counts as a move out of the trees.
constexpr int kRenamePairMs = 20;

int g_wake[2] = {-1, -1};
volatile sig_atomic_t g_stop = 0;
void OnStop(int) {
  ++g_stop;
  (void)!write(g_wake[1], "", 1);
}

// The stored names' letters of `sizes`.
std::set<std::string> Letters(const std::vector<std::string>& sizes) {
  std::set<std::string> letters;
  for (const std::string& s : sizes) {
    if (const store::SizeRow* row = store::FindSize(s)) letters.insert(row->letter);
  }
  return letters;
}

}  // namespace

Watcher::Watcher(const WatchArgs& args, std::vector<std::string> sizes)
    : args_(args),
      letters_(Letters(sizes)),
      settler_(args.settle),
      pool_(args.jobs > 0 ? static_cast<size_t>(args.jobs) : DefaultJobs(), sizes,
            args.appliance ? 0 : kThumbOptQuality) {}

Watcher::~Watcher() {
  for (Root& r : roots_) close(r.fd);
  if (ifd_ >= 0) close(ifd_);
}

void Watcher::Handle(int wd, uint32_t mask, const std::string& name) {
  if (mask & IN_Q_OVERFLOW) {
    SayOnce(&saidOverflow_, "the kernel dropped events (inotify queue overflow): rescanning");
    for (size_t i = 0; i < roots_.size(); ++i) Rescan(i);
    return;
  }
  if (nodes_.count(wd) == 0 || IsEADirName(name)) return;
  const Settler::Key key(wd, name);
  switch (DecideEvent(mask, IsPhoto(name))) {
    case Act::kForgetWatch:
      nodes_.erase(wd);
      settler_.ForgetDir(wd);
      break;
    case Act::kWatchTree:
      NewDir(wd, name);
      break;
    case Act::kForgetTree: {
      const int child = FindChild(wd, name);
      if (child >= 0) ForgetTree(child);
      break;
    }
    case Act::kSettle:
      settler_.Arm(key, Now());
      break;
    case Act::kPostpone:
      settler_.Postpone(key, Now());
      break;
    case Act::kRemoveEA:
      RemoveEA(wd, name);
      break;
    default:
      break;
  }
}

void Watcher::Rename(const Move& from, int toWd, const std::string& toName) {
  const bool dir = (from.mask & IN_ISDIR) != 0;
  if (nodes_.count(toWd) == 0) return Handle(from.wd, from.mask, from.name);
  if (nodes_.count(from.wd) == 0) return Handle(toWd, IN_MOVED_TO | (dir ? IN_ISDIR : 0), toName);
  if (IsEADirName(from.name) || IsEADirName(toName)) return;
  const Settler::Key fromKey(from.wd, from.name), toKey(toWd, toName);
  switch (DecideRename(dir, IsPhoto(from.name), IsPhoto(toName))) {
    case Act::kWatchTree: {
      // Its watches stay: only the name changes; its EA directories are inside it.
      const int child = FindChild(from.wd, from.name);
      if (child >= 0 && nodes_.at(child).root == nodes_.at(toWd).root) {
        nodes_[child].parent = toWd;
        nodes_[child].name = toName;
        break;
      }
      if (child >= 0) ForgetTree(child);  // into another tree: met afresh there
      NewDir(toWd, toName);
      break;
    }
    case Act::kMoveEA: {
      std::string rel;
      const bool inFlight = RelOf(from.wd, &rel) && pool_.InFlight(roots_[nodes_.at(from.wd).root].shown + "/" +
                                                                    rel + from.name);
      settler_.Rename(fromKey, toKey);
      const int fromDir = DirFd(from.wd), toDir = DirFd(toWd);
      const bool moved = fromDir >= 0 && toDir >= 0 && MoveEADir(fromDir, from.name, toDir, toName);
      if (fromDir >= 0) close(fromDir);
      if (toDir >= 0) close(toDir);
      // Nothing to carry (not made yet, or being made under the old name).
      if (!moved || inFlight) settler_.Arm(toKey, Now());
      break;
    }
    case Act::kRemoveEA:
      RemoveEA(from.wd, from.name);
      break;
    case Act::kSettle:
      settler_.Arm(toKey, Now());
      break;
    default:
      break;
  }
}

void Watcher::ReadEvents() {
  alignas(struct inotify_event) char buf[64 * 1024];
  for (int reads = 0; reads < 64; ++reads) {
    const ssize_t n = read(ifd_, buf, sizeof buf);
    if (n <= 0) {
      if (!moving_) return;
      struct pollfd p = {ifd_, POLLIN, 0};
      if (poll(&p, 1, kRenamePairMs) > 0) continue;
      moving_ = false;
      return Handle(move_.wd, move_.mask, move_.name);  // moved out of the trees
    }
    for (char* p = buf; p < buf + n;) {
      const struct inotify_event* e = reinterpret_cast<const struct inotify_event*>(p);
      p += sizeof *e + e->len;
      const std::string name = e->len > 0 ? e->name : "";
      if (moving_) {
        moving_ = false;
        if ((e->mask & IN_MOVED_TO) && e->cookie == move_.cookie) {
          Rename(move_, e->wd, name);
          continue;
        }
        Handle(move_.wd, move_.mask, move_.name);
      }
      if (e->mask & IN_MOVED_FROM) {
        move_ = Move{e->wd, name, e->cookie, e->mask};
        moving_ = true;
        continue;
      }
      Handle(e->wd, e->mask, name);
    }
  }
}

void Watcher::Report(const FileJob& job, const Json& j) {
  if (args_.json) {
    PrintLine(j);
  } else if (j.value("failed", 0) > 0) {
    std::cout << "failed: " << job.path << ": " << j.value("error", std::string("no thumbnail made")) << std::endl;
  }
}

int Watcher::Run() {
  ifd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (ifd_ < 0) throw std::runtime_error(std::string("inotify: ") + strerror(errno));
  for (std::string dir : args_.dirs) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    const std::string real = TreeRoot(dir);
    const int fd = open(real.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) throw CLI::ValidationError("DIR", "cannot open " + dir);
    roots_.push_back(Root{real, dir, fd, false, 0});
  }
  for (size_t i = 0; i < roots_.size(); ++i) Rescan(i);  // catches up with what changed meanwhile
  const WorkerPool::Done report = [this](const FileJob& job, const Json& j) { Report(job, j); };
  while (g_stop == 0) {
    const double now = Now();
    for (const Settler::Key& key : settler_.TakeDue(now)) Settled(key);
    double wake = settler_.NextDue();
    for (size_t i = 0; i < roots_.size(); ++i) {
      if (roots_[i].limited && roots_[i].nextRescan <= now) Rescan(i);
      if (roots_[i].limited) wake = std::min(wake, roots_[i].nextRescan);
    }
    while (!pool_.Full() && !ready_.empty()) {
      readyPaths_.erase(ready_.front().path);
      pool_.Start(ready_.front());
      ready_.pop_front();
    }
    // Nothing due: sleep until the kernel or a worker has something.
    const int timeout = std::isinf(wake) ? -1 : static_cast<int>(std::max(0.0, std::ceil((wake - now) * 1000)));
    std::vector<pollfd> extra = {{ifd_, POLLIN, 0}, {g_wake[0], POLLIN, 0}};
    pool_.Poll(timeout, &extra, report);
    if (extra[0].revents & POLLIN) ReadEvents();
  }
  // The files in hand finish the size they are at; the rest waits for the
  // catch-up of the next start.
  pool_.Stop(false);
  for (int stopped = 1; !pool_.Idle();) {
    if (g_stop > stopped) pool_.Stop(true);
    stopped = g_stop;
    pool_.Poll(500, nullptr, report);
  }
  return kExitOk;
}

void AddWatchCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<WatchArgs>();
  CLI::App* cmd = app.add_subcommand("watch", "Keep the thumbnails under DIR in step with the tree, until stopped");
  cmd->add_option("-j,--jobs", args->jobs, "files worked on at once (default: the number of cores)")
      ->check(CLI::Range(1, 256));
  AddSizesOption(cmd, &args->sizes, "sizes to make, separated by commas (default: all five)");
  cmd->add_flag("--appliance", args->appliance, "the appliance's thumbnails instead of quality mode's");
  cmd->add_flag("--json", args->json, "one JSON line per file worked on");
  cmd->add_option("--settle", args->settle, "seconds a file must be left alone before it is converted (default 2)")
      ->check(CLI::Range(0.0, 3600.0));
  cmd->add_option("--rescan", args->rescanMinutes,
                  "minutes between rescans of trees the watch limit keeps from being watched whole (default 10)")
      ->check(CLI::Range(0.1, 1440.0));
  AddPriorityOptions(cmd, &args->priority);
  cmd->add_option("DIR", args->dirs, "directories")->required();
  cmd->callback([args, status] {
    std::vector<std::string> sizes = args->sizes;
    if (sizes.empty()) sizes = {kSizeSmall, kSizeMedium, kSizeBig, kSizeLarge, kSizeXLarge};
    CheckSizes(sizes);
    ApplyPriority(args->priority);
    if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe failed");
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = OnStop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    Watcher watcher(*args, sizes);
    *status = watcher.Run();
  });
}

}  // namespace tool
}  // namespace kovathumb
