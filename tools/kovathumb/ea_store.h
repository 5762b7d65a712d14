// The store as the programs see it: its EA-directory operations and its
// rule for a stored thumbnail, with a pinned source's EA directory taken
// once.
#ifndef KOVATHUMB_TOOLS_KOVATHUMB_EA_STORE_H_
#define KOVATHUMB_TOOLS_KOVATHUMB_EA_STORE_H_

#include <sys/stat.h>

#include <string>

#include "front_end/pin.h"
#include "store/ea.h"
#include "store/fresh.h"

namespace kovathumb {
namespace tool {

using store::EADirsIn;
using store::Freed;
using store::MoveEADir;
using store::OpenEADirOf;
using store::Pick;
using store::RemoveEADir;
using store::RemoveStored;
using store::Stored;

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
  // Whether the thumbnail stored under `name` serves a request of
  // behaviour `b`: the store's rule, as the library applies it.
  bool Fresh(const std::string& name, store::Behaviour b = store::Behaviour::kAppliance) const;

 private:
  int ea_ = -1;
  struct stat src_ = {};
};

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_KOVATHUMB_EA_STORE_H_
