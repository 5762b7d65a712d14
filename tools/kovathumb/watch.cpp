// kovathumb watch: keeps the thumbnails of some trees in step with them.
//
// inotify tells us what changed. The kernel names a directory only by its
// watch, so each watch remembers its parent's and its own name, and a path
// is made when needed; every directory is opened through its parent's
// descriptor without following a link, and the watch is added through that
// descriptor ("/proc/self/fd/N"), never through a name a user could swap.
// Conversions run in index's workers.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <deque>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <unordered_map>

#include "ea_store.h"
#include "front_end/pin.h"
#include "subcommands.h"
#include "upkeep_rules.h"
#include "workers.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace tool {

namespace {

constexpr uint32_t kDirMask = IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MODIFY |
                              IN_ATTRIB | IN_ONLYDIR | IN_EXCL_UNLINK;
// The two halves of a rename come one after the other; the second is
// waited for this long before the first counts as a move out of the trees.
constexpr int kRenamePairMs = 20;

struct WatchArgs {
  int jobs = 0;
  std::vector<std::string> sizes;
  bool appliance = false;
  bool json = false;
  double settle = 2;
  double rescanMinutes = 10;
  PriorityArgs priority;
  std::vector<std::string> dirs;
};

int g_wake[2] = {-1, -1};
volatile sig_atomic_t g_stop = 0;
void OnStop(int) {
  ++g_stop;
  (void)!write(g_wake[1], "", 1);
}

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool IsPhoto(const std::string& name) { return IsSupportImage(name) || IsSupportVideo(name); }

std::string FdPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

// The stored names' letters of `sizes`.
std::set<std::string> Letters(const std::vector<std::string>& sizes) {
  std::set<std::string> letters;
  for (const std::string& s : sizes) {
    letters.insert(s == kSizeSmall ? kLetterSmall : s == kSizeMedium ? kLetterMedium : s == kSizeBig ? kLetterBig
                                                                                                    : kLetterXLarge);
  }
  return letters;
}

class Watcher {
 public:
  Watcher(const WatchArgs& args, std::vector<std::string> sizes)
      : args_(args),
        letters_(Letters(sizes)),
        settler_(args.settle),
        pool_(args.jobs > 0 ? static_cast<size_t>(args.jobs) : DefaultJobs(), sizes,
              args.appliance ? 0 : kThumbOptQuality) {}
  ~Watcher() {
    for (Root& r : roots_) close(r.fd);
    if (ifd_ >= 0) close(ifd_);
  }
  int Run();

 private:
  struct Root {
    std::string real, shown;
    int fd;  // O_PATH
    bool limited;
    double nextRescan;
  };
  struct Node {
    int parent;  // -1 for a root
    std::string name;
    size_t root;
    unsigned seen;  // the scan that last met it
  };
  struct Move {
    int wd;
    std::string name;
    uint32_t cookie, mask;
  };

  void Rescan(size_t root);
  void AddTree(size_t root, int parent, const std::string& name, int fd, const std::string& rel, bool catchUp);
  bool NeedsWork(int ea, const struct stat& src) const;
  void NewDir(int parent, const std::string& name);
  void ForgetTree(int wd);
  bool RelOf(int wd, std::string* rel) const;
  int DirFd(int wd) const;
  int FindChild(int parent, const std::string& name) const;
  void ReadEvents();
  void Handle(int wd, uint32_t mask, const std::string& name);
  void Rename(const Move& from, int toWd, const std::string& toName);
  void RemoveEA(int wd, const std::string& name);
  void Queue(size_t root, const std::string& rel, bool restamp);
  void Settled(const Settler::Key& key);
  void Report(const FileJob& job, const Json& j);
  void SayOnce(bool* said, const std::string& what);

  const WatchArgs& args_;
  const std::set<std::string> letters_;
  int ifd_ = -1;
  std::vector<Root> roots_;
  std::unordered_map<int, Node> nodes_;
  unsigned scan_ = 0;
  Settler settler_;
  std::deque<FileJob> ready_;
  std::set<std::string> readyPaths_;
  WorkerPool pool_;
  bool moving_ = false;
  Move move_;
  bool saidOverflow_ = false, saidLimit_ = false;
};

void Watcher::SayOnce(bool* said, const std::string& what) {
  if (*said) return;
  *said = true;
  std::cerr << "kovathumb watch: " << what << std::endl;
}

// One walk adds the watches and then looks at what is there, so nothing
// that happens meanwhile goes unseen. A catch-up queues what is not up to
// date and removes the EA directories of photos that are gone.
void Watcher::Rescan(size_t root) {
  const int fd = openat(roots_[root].fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ++scan_;
  roots_[root].limited = false;
  AddTree(root, -1, std::string(), fd, std::string(), true);
  if (roots_[root].limited) roots_[root].nextRescan = Now() + args_.rescanMinutes * 60;
  // Directories that were not met again left the tree while we did not look.
  std::vector<int> gone;
  for (const auto& n : nodes_) {
    if (n.second.root == root && n.second.seen != scan_) gone.push_back(n.first);
  }
  for (int wd : gone) {
    if (nodes_.count(wd) != 0) ForgetTree(wd);
  }
}

// Takes `fd`, the directory `rel` opened without following a link.
void Watcher::AddTree(size_t root, int parent, const std::string& name, int fd, const std::string& rel,
                      bool catchUp) {
  int wd = -1;
  // A directory below one we cannot watch is rescanned with it.
  if (parent >= 0 || rel.empty()) {
    wd = inotify_add_watch(ifd_, FdPath(fd).c_str(), kDirMask);
    if (wd >= 0) {
      nodes_[wd] = Node{parent, name, root, scan_};  // met again: where it is now
    } else if (errno == ENOSPC) {
      std::ostringstream what;
      what << "the limit on inotify watches (fs.inotify.max_user_watches) is reached: trees that are not "
           << "watched whole are rescanned every " << args_.rescanMinutes << " minutes";
      SayOnce(&saidLimit_, what.str());
      if (!roots_[root].limited && !catchUp) roots_[root].nextRescan = Now() + args_.rescanMinutes * 60;
      roots_[root].limited = true;
    }
  }
  DIR* d = fdopendir(fd);
  if (d == nullptr) {
    close(fd);
    return;
  }
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    const std::string n = e->d_name;
    if (n != "." && n != ".." && !IsEADirName(n)) names.push_back(n);
  }
  std::set<std::string> files;
  for (const std::string& n : names) {
    struct stat st;
    if (fstatat(dirfd(d), n.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      const int sub = openat(dirfd(d), n.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (sub >= 0) AddTree(root, wd, n, sub, rel + n + "/", catchUp);
    } else if (S_ISREG(st.st_mode)) {
      files.insert(n);
      if (!IsPhoto(n)) continue;
      if (!catchUp && wd >= 0) {
        settler_.Arm(Settler::Key(wd, n), Now());  // maybe still being copied
        continue;
      }
      const int ea = OpenEADirOf(dirfd(d), n);
      if (ea < 0 || NeedsWork(ea, st)) Queue(root, rel + n, false);
      if (ea >= 0) close(ea);
    }
  }
  if (catchUp && !EADirName().empty()) {
    const int top = openat(dirfd(d), EADirName().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR* eas = top < 0 ? nullptr : fdopendir(top);
    std::vector<std::string> orphans;
    while (struct dirent* e = eas == nullptr ? nullptr : readdir(eas)) {
      const std::string n = e->d_name;
      if (n != "." && n != ".." && files.count(n) == 0) orphans.push_back(n);
    }
    if (eas != nullptr) closedir(eas);
    Freed freed;
    for (const std::string& n : orphans) RemoveEADir(dirfd(d), n, false, &freed);
  }
  closedir(d);
}

// Whether a photo lacks a stored thumbnail of a size, or has a stale one.
// Sizes served by the source itself store nothing: such a photo goes to a
// worker, which finds that out again cheaply.
bool Watcher::NeedsWork(int ea, const struct stat& src) const {
  const int fd = openat(ea, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* d = fd < 0 ? nullptr : fdopendir(fd);
  if (d == nullptr) return true;
  std::set<std::string> fresh;
  const std::string prefix = "KOVAFILE_THUMB_";
  while (struct dirent* e = readdir(d)) {
    const std::string n = e->d_name;
    struct stat st;
    if (ClassifyStored(n) != Stored::kThumb || fstatat(fd, n.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        st.st_mtime < src.st_mtime) {
      continue;
    }
    if (n == "KOVAVIDEO_VIDEO_SCREENSHOT.jpg") {
      closedir(d);
      return false;
    }
    if (n.compare(0, prefix.size(), prefix) == 0) {
      fresh.insert(n.compare(prefix.size(), 2, kLetterXLarge) == 0 ? kLetterXLarge : n.substr(prefix.size(), 1));
    }
  }
  closedir(d);
  for (const std::string& l : letters_) {
    if (fresh.count(l) == 0) return true;
  }
  return false;
}

bool Watcher::RelOf(int wd, std::string* rel) const {
  rel->clear();
  for (int at = wd, depth = 0; depth < 4096; ++depth) {
    auto it = nodes_.find(at);
    if (it == nodes_.end()) return false;
    if (it->second.parent < 0) return true;
    *rel = it->second.name + "/" + *rel;
    at = it->second.parent;
  }
  return false;
}

// The directory of watch `wd`, O_PATH, opened beneath its root without
// following a link; -1 when it is gone.
int Watcher::DirFd(int wd) const {
  std::string rel;
  if (!RelOf(wd, &rel)) return -1;
  return OpenDirBeneath(roots_[nodes_.at(wd).root].fd, rel);
}

int Watcher::FindChild(int parent, const std::string& name) const {
  for (const auto& n : nodes_) {
    if (n.second.parent == parent && n.second.name == name) return n.first;
  }
  return -1;
}

void Watcher::NewDir(int parent, const std::string& name) {
  std::string rel;
  const int dir = DirFd(parent);
  if (dir < 0 || !RelOf(parent, &rel)) return;
  const int sub = openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  close(dir);
  if (sub >= 0) AddTree(nodes_.at(parent).root, parent, name, sub, rel + name + "/", false);
}

void Watcher::ForgetTree(int wd) {
  std::set<int> tree = {wd};
  for (bool grew = true; grew;) {
    grew = false;
    for (const auto& n : nodes_) {
      if (tree.count(n.first) == 0 && tree.count(n.second.parent) != 0) grew = tree.insert(n.first).second;
    }
  }
  for (int w : tree) {
    inotify_rm_watch(ifd_, w);
    nodes_.erase(w);
    settler_.ForgetDir(w);
  }
}

void Watcher::RemoveEA(int wd, const std::string& name) {
  settler_.Forget(Settler::Key(wd, name));
  const int dir = DirFd(wd);
  if (dir < 0) return;
  Freed freed;
  RemoveEADir(dir, name, false, &freed);
  close(dir);
}

void Watcher::Queue(size_t root, const std::string& rel, bool restamp) {
  const Root& r = roots_[root];
  FileJob job{r.real, rel, r.shown + "/" + rel, restamp};
  if (readyPaths_.insert(job.path).second) ready_.push_back(job);
}

void Watcher::Settled(const Settler::Key& key) {
  std::string rel;
  if (RelOf(key.first, &rel)) Queue(nodes_.at(key.first).root, rel + key.second, true);
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

}  // namespace

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
