// Pure decisions of watch and prune: what a change in a tree asks of the
// thumbnails, when a file has been quiet long enough to convert, and which
// stored thumbnails are no longer wanted.
#ifndef KOVATHUMB_TOOLS_KOVATHUMB_UPKEEP_RULES_H_
#define KOVATHUMB_TOOLS_KOVATHUMB_UPKEEP_RULES_H_

#include <stdint.h>
#include <time.h>

#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ea_store.h"

namespace kovathumb {
namespace tool {

enum class Act {
  kNone,
  kWatchTree,   // a directory came: watch it and everything below, its photos settle
  kForgetTree,  // a directory left the tree: stop watching it and below
  kForgetWatch, // the kernel dropped a watch (its directory is gone)
  kSettle,      // a photo was written or came in: convert once it is quiet
  kPostpone,    // a photo is being written to: a pending conversion waits
  kRemoveEA,    // a photo is gone: its EA directory goes
  kMoveEA,      // a photo was renamed in the trees: its EA directory follows
  kRescan,      // the kernel dropped events: look at the whole tree again
};

// An inotify event (`mask`) about `name` that is not one half of a rename
// within the trees; `photo`: its name is a supported photo or video.
// Names of EA directories are the caller's to skip.
Act DecideEvent(uint32_t mask, bool photo);

// A rename within the trees: from a name to another, either of which may
// be a photo. A directory renamed is followed (kWatchTree's watches keep).
Act DecideRename(bool dir, bool fromPhoto, bool toPhoto);

// Files wait until nothing has happened to them for `quiet` seconds: a
// photo still being copied is not converted half-written.
class Settler {
 public:
  using Key = std::pair<int, std::string>;  // directory's watch, name

  explicit Settler(double quiet) : quiet_(quiet) {}
  // Pending from now on, due `quiet` after `now`.
  void Arm(const Key& key, double now);
  // A pending file waits `quiet` more; others stay as they are.
  void Postpone(const Key& key, double now);
  void Rename(const Key& from, const Key& to);
  void Forget(const Key& key) { due_.erase(key); }
  void ForgetDir(int wd);
  // Those due by `now`, taken out.
  std::vector<Key> TakeDue(double now);
  // When the next one is due; infinity when none is pending.
  double NextDue() const;
  size_t size() const { return due_.size(); }

 private:
  double quiet_;
  std::map<Key, double> due_;
};

// When a stored thumbnail was last wanted: stored (ctime, which renames and
// stamping set) or read since (atime, which relatime still moves once a day;
// the store sets it to 0, so a thumbnail nobody read shows its ctime).
time_t LastWanted(time_t atime, time_t ctime);

// Whether prune removes a stored file of kind `kind`: every one whose
// source is gone, and thumbnails of explicit boxes not wanted within
// `retention` seconds before `now`.
bool PruneRemoves(Stored kind, bool sourceGone, time_t lastWanted, time_t now, long retention);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_KOVATHUMB_UPKEEP_RULES_H_
