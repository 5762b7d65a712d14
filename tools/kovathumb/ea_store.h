// What our store keeps in a source's EA directory, and removing or moving
// it. We act as root in folders users write into, so everything here goes
// through directory descriptors opened without following a link, and only
// files under the names our store makes are ever removed: a file a user
// planted in an EA directory is not ours to delete.
#ifndef KOVATHUMB_TOOLS_KOVATHUMB_EA_STORE_H_
#define KOVATHUMB_TOOLS_KOVATHUMB_EA_STORE_H_

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "front_end/pin.h"

namespace kovathumb {
namespace tool {

enum class Stored {
  kNotOurs,
  kThumb,     // a size's thumbnail, any application's, or the video screenshot
  kBoxThumb,  // a thumbnail of an explicit box (custom size, avatar)
};
// Pure: what the store name `name` is.
Stored ClassifyStored(const std::string& name);

// The sources' EA directories kept in the directory open at `dir`, by the
// names of their sources (present or gone).
std::vector<std::string> EADirsIn(int dir);

// The EA directory of `base` in the directory open at `dir` (O_PATH will
// do), opened O_PATH without following a link; -1 when there is none.
int OpenEADirOf(int dir, const std::string& base);

// A pinned source's EA directory and the source's status, taken once: its
// stored thumbnails are judged through that descriptor, never through a
// path, so a link planted on the way is not followed.
class StoredOf {
 public:
  explicit StoredOf(const PinnedFile& pinned);
  ~StoredOf();
  StoredOf(const StoredOf&) = delete;
  StoredOf& operator=(const StoredOf&) = delete;
  int ea() const { return ea_; }
  const struct stat& source() const { return src_; }
  // Whether `name` is a regular, non-empty file as new as the source.
  bool Fresh(const std::string& name) const;

 private:
  int ea_ = -1;
  struct stat src_ = {};
};

struct Freed {
  long files = 0;
  long long bytes = 0;
};

// Removes the stored files that `pick` chooses from the EA directory open
// at `ea`; regular files under our names only.
using Pick = std::function<bool(const std::string& name, Stored kind, const struct stat& st)>;
void RemoveStored(int ea, const Pick& pick, bool dryRun, Freed* freed);

// Removes the EA directory of `base` in `dir`: our files in it, then the
// directory itself when that left it empty. Whether it is gone.
bool RemoveEADir(int dir, const std::string& base, bool dryRun, Freed* freed);

// Carries the EA directory of `from` in `fromDir` over to `to` in `toDir`,
// replacing the thumbnails `to` had. Whether the thumbnails went along
// (false also when `from` had none).
bool MoveEADir(int fromDir, const std::string& from, int toDir, const std::string& to);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_KOVATHUMB_EA_STORE_H_
