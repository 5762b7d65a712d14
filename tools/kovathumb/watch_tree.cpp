// kovathumb watch's walks: adding the watches of a tree and finding what
// needs work in it, and naming a watched directory again by its watch.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <sstream>

#include "ea_store.h"
#include "front_end/pin.h"
#include "front_end/tree.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb_const.h"
#include "store/fresh.h"
#include "util/safe_fs.h"
#include "watcher.h"

namespace kovathumb {
namespace tool {

namespace {

constexpr uint32_t kDirMask = IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MODIFY |
                              IN_ATTRIB | IN_ONLYDIR | IN_EXCL_UNLINK;

std::string FdPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

}  // namespace

double Watcher::Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool Watcher::IsPhoto(const std::string& name) const { return IsWalkedFile(name, !args_.appliance); }

void Watcher::SayOnce(bool* said, const std::string& what) {
  if (*said) return;
  *said = true;
  std::cerr << "kovathumb watch: " << what << std::endl;
}

// One walk adds each folder's watch and then looks at what is there, so
// nothing that happens meanwhile goes unseen. A catch-up queues what is not up to
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
  std::vector<int> wds;  // of the folders met, by their number on the walk
  const size_t depth = static_cast<size_t>(std::count(rel.begin(), rel.end(), '/'));
  std::string deep;
  if (depth > kMaxTreeDepth) {  // made in a folder at the limit
    close(fd);
    SayOnce(&saidDeep_, TooDeepMessage(1, rel));
    return;
  }
  // Each folder's watch is added before it is listed: a file made in
  // between is seen by one or the other.
  const FolderEnter enter = [&](const Folder& folder) {
    const int up = folder.parent == kNoFolder ? parent : wds[folder.parent];
    const std::string dirRel = rel + folder.rel;
    int wd = -1;
    // A directory below one we cannot watch is rescanned with it.
    if (up >= 0 || dirRel.empty()) {
      wd = inotify_add_watch(ifd_, FdPath(folder.fd).c_str(), kDirMask);
      if (wd >= 0) {
        nodes_[wd] = Node{up, folder.parent == kNoFolder ? name : folder.name, root, scan_};  // met again: where it is now
      } else if (errno == ENOSPC) {
        std::ostringstream what;
        what << "the limit on inotify watches (fs.inotify.max_user_watches) is reached: trees that are not "
             << "watched whole are rescanned every " << args_.rescanMinutes << " minutes";
        SayOnce(&saidLimit_, what.str());
        if (!roots_[root].limited && !catchUp) roots_[root].nextRescan = Now() + args_.rescanMinutes * 60;
        roots_[root].limited = true;
      }
    }
    wds.push_back(wd);
  };
  const FolderVisit visit = [&](const Folder& folder, const std::vector<Entry>& entries) {
    const std::string dirRel = rel + folder.rel;
    const int wd = wds[folder.id];
    std::set<std::string> files;
    for (const Entry& e : entries) {
      const std::string& n = e.name;
      if (!S_ISREG(e.st.st_mode)) continue;
      files.insert(n);
      if (!IsPhoto(n)) continue;
      if (!catchUp && wd >= 0) {
        settler_.Arm(Settler::Key(wd, n), Now());  // maybe still being copied
        continue;
      }
      const int ea = OpenEADirOf(folder.fd, n);
      if (ea < 0 || NeedsWork(ea, e.st)) Queue(root, dirRel + n, false);
      if (ea >= 0) close(ea);
    }
    if (catchUp) {
      Freed freed;
      for (const std::string& n : EADirsIn(folder.fd)) {
        if (files.count(n) == 0) RemoveEADir(folder.fd, n, false, &freed);
      }
    }
  };
  const size_t tooDeep = WalkFolders(fd, kMaxTreeDepth - depth, visit, &deep, enter);
  if (tooDeep > 0) SayOnce(&saidDeep_, TooDeepMessage(tooDeep, rel + deep));
}

// Whether a photo lacks a stored thumbnail of a size that serves, by the
// store's rule for watch's behaviour. Sizes served by the source itself
// store nothing: such a photo goes to a worker, which finds that out again
// cheaply.
bool Watcher::NeedsWork(int ea, const struct stat& src) const {
  const store::Behaviour behaviour = args_.appliance ? store::Behaviour::kAppliance : store::Behaviour::kQuality;
  std::set<std::string> fresh;
  for (const std::string& n : safe_fs::Names(ea)) {
    store::StoredName name;
    if (!store::Parse(n, &name)) continue;
    const bool screenshot = name.scheme == store::Scheme::kCinevo;
    if (!screenshot && (name.scheme != store::Scheme::kDossiva || name.letter.empty() || fresh.count(name.letter))) {
      continue;
    }
    if (!store::ServesAt(ea, n, src.st_mtime, behaviour)) continue;
    if (screenshot) return false;
    fresh.insert(name.letter);
  }
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

}  // namespace tool
}  // namespace kovathumb
