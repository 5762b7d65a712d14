#include "ea_store.h"

#include <fcntl.h>
#include <unistd.h>

namespace kovathumb {
namespace tool {

StoredOf::StoredOf(const PinnedFile& pinned) {
  if (fstatat(pinned.Dir(), pinned.Base().c_str(), &src_, AT_SYMLINK_NOFOLLOW) == 0) {
    ea_ = OpenEADirOf(pinned.Dir(), pinned.Base());
  }
}

StoredOf::~StoredOf() {
  if (ea_ >= 0) close(ea_);
}

bool StoredOf::Fresh(const std::string& name, store::Behaviour b) const {
  return store::ServesAt(ea_, name, src_.st_mtime, b);
}

}  // namespace tool
}  // namespace kovathumb
