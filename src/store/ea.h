// A source's EA directory and what our store keeps in it, worked on through
// descriptors. We act as root in folders users write into: nothing here
// follows a link, and only files under the names our store makes are ever
// removed (a file a user planted is not ours to delete). The directory's
// name and layout are the platform's; this is the one place that asks.
// Removing, renaming and making go through the system-call table
// (util/system.h), so tests reach the paths that need root without it.
#ifndef KOVATHUMB_STORE_EA_H_
#define KOVATHUMB_STORE_EA_H_

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "store/names.h"

namespace kovathumb {
namespace store {

// The directory the platform keeps EA directories in, beside the sources
// ("" where it keeps EA files beside the source itself).
const std::string& EADirName();
// Whether `name` (one path component) is that directory: walks keep out.
bool IsEADirName(const std::string& name);

// The sources' EA directories kept in the directory open at `dir`, by the
// names of their sources (present or gone).
std::vector<std::string> EADirsIn(int dir);

// The EA directory of `base` in the directory open at `dir` (O_PATH will
// do), opened O_PATH without following a link; -1 (errno set) when none.
int OpenEADirOf(int dir, const std::string& base);

enum class Stored {
  kNotOurs,
  kThumb,     // a size's thumbnail, any application's, or the video screenshot
  kBoxThumb,  // a thumbnail of an explicit box (custom size, avatar)
};
// Pure: what the file named `name` in an EA directory is.
Stored Classify(const std::string& name);

struct Freed {
  long files = 0;
  long long bytes = 0;
};

// Removes the stored files that `pick` chooses from the EA directory open
// at `ea`; regular files under our names only.
using Pick = std::function<bool(const std::string& name, Stored kind, const struct stat& st)>;
void RemoveStored(int ea, const Pick& pick, bool dryRun, Freed* freed);

// Removes the EA directory of `base` in `dir`: our files in it and the work
// a killed process of ours left, then the directory itself when that left
// it empty. Whether it is gone.
bool RemoveEADir(int dir, const std::string& base, bool dryRun, Freed* freed);

// Removes the EA directory open at `ea`, named `base` in its parent, when
// nothing at all is in it: what a failed conversion made goes, one that
// holds anything stays. Whether it went.
bool RemoveIfEmpty(int ea, const std::string& base);

// Carries the EA directory of `from` in `fromDir` over to `to` in `toDir`,
// replacing the thumbnails `to` had. Whether the thumbnails went along
// (false also when `from` had none).
bool MoveEADir(int fromDir, const std::string& from, int toDir, const std::string& to);

// Removes from the EA directory open at `ea` the work directories that a
// process of ours left when it was killed; a user's look-alikes stay.
void SweepAbandonedWork(int ea);

}  // namespace store
}  // namespace kovathumb

#endif  // KOVATHUMB_STORE_EA_H_
