#include "upkeep_rules.h"

#include <sys/inotify.h>

#include <algorithm>

namespace kovathumb {
namespace tool {

Act DecideEvent(uint32_t mask, bool photo) {
  if (mask & IN_Q_OVERFLOW) return Act::kRescan;
  if (mask & (IN_IGNORED | IN_UNMOUNT)) return Act::kForgetWatch;
  if (mask & IN_ISDIR) {
    if (mask & (IN_CREATE | IN_MOVED_TO)) return Act::kWatchTree;
    if (mask & (IN_MOVED_FROM | IN_DELETE)) return Act::kForgetTree;
    return Act::kNone;
  }
  if (!photo) return Act::kNone;
  // Written and closed, or renamed in from outside: whole, or about to be.
  if (mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) return Act::kSettle;
  if (mask & (IN_MODIFY | IN_ATTRIB | IN_CREATE)) return Act::kPostpone;
  // Deleted, or renamed out of the trees: its thumbnails have nobody to serve.
  if (mask & (IN_DELETE | IN_MOVED_FROM)) return Act::kRemoveEA;
  return Act::kNone;
}

Act DecideRename(bool dir, bool fromPhoto, bool toPhoto) {
  if (dir) return Act::kWatchTree;
  if (fromPhoto && toPhoto) return Act::kMoveEA;
  if (fromPhoto) return Act::kRemoveEA;
  return toPhoto ? Act::kSettle : Act::kNone;
}

void Settler::Arm(const Key& key, double now) { due_[key] = now + quiet_; }

void Settler::Postpone(const Key& key, double now) {
  auto it = due_.find(key);
  if (it != due_.end()) it->second = std::max(it->second, now + quiet_);
}

void Settler::Rename(const Key& from, const Key& to) {
  auto it = due_.find(from);
  if (it == due_.end()) return;
  const double due = it->second;
  due_.erase(it);
  due_[to] = due;
}

void Settler::ForgetDir(int wd) {
  for (auto it = due_.lower_bound(Key(wd, std::string())); it != due_.end() && it->first.first == wd;) {
    it = due_.erase(it);
  }
}

std::vector<Settler::Key> Settler::TakeDue(double now) {
  std::vector<Key> due;
  for (auto it = due_.begin(); it != due_.end();) {
    if (it->second <= now) {
      due.push_back(it->first);
      it = due_.erase(it);
    } else {
      ++it;
    }
  }
  return due;
}

double Settler::NextDue() const {
  double next = std::numeric_limits<double>::infinity();
  for (const auto& d : due_) next = std::min(next, d.second);
  return next;
}

time_t LastWanted(time_t atime, time_t ctime) { return std::max(atime, ctime); }

bool PruneRemoves(Stored kind, bool sourceGone, time_t lastWanted, time_t now, long retention) {
  if (kind == Stored::kNotOurs) return false;
  if (sourceGone) return true;
  return kind == Stored::kBoxThumb && now - lastWanted > retention;
}

}  // namespace tool
}  // namespace kovathumb
