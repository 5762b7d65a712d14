// Naming a source so that nobody who can write in the tree can change which
// file we read. We run as root over folders ordinary users write into: a
// path string checked now may lead elsewhere a moment later, once a link
// has been renamed into place. So the source's directory is opened once,
// never through a link, and the library is handed a path that goes through
// that open directory: "/proc/<pid>/fd/<dirfd>/<base>". Whatever is renamed
// above it afterwards changes nothing; the library itself follows no link
// from there on.
#ifndef KOVATHUMB_TOOLS_COMMON_PIN_H_
#define KOVATHUMB_TOOLS_COMMON_PIN_H_

#include <string>

#include "store/ea.h"

namespace kovathumb {
namespace tool {

// The platform's EA directory name, as the store knows it: walks and pins
// keep out of it.
using store::EADirName;
using store::IsEADirName;

// Opens directory `rel` (relative; "" or "." is `rootfd` itself) beneath
// `rootfd` as an O_PATH descriptor, following no link and never leaving
// it. -1 with errno: ELOOP (a link on the way), EXDEV (leaves the root),
// ENOENT, ENOTDIR... `walk` forces the component-by-component way that is
// used where openat2 is missing.
int OpenDirBeneath(int rootfd, const std::string& rel, bool walk = false);

// A source held by its open directory.
class PinnedFile {
 public:
  PinnedFile() = default;
  ~PinnedFile();
  PinnedFile(const PinnedFile&) = delete;
  PinnedFile& operator=(const PinnedFile&) = delete;

  // The path to hand the library.
  std::string Path() const;
  const std::string& Base() const { return base_; }
  // The source's directory, opened O_PATH.
  int Dir() const { return dirfd_; }
  // `text` with Path() replaced by `shown`, for messages a user reads.
  std::string Unpinned(const std::string& text, const std::string& shown) const;

 private:
  friend int PinBeneath(const std::string&, const std::string&, PinnedFile*);
  friend int PinGiven(const std::string&, PinnedFile*);
  void Reset(int dirfd, const std::string& base);
  int dirfd_ = -1;
  std::string base_;
};

// Pins `rel`, relative to the trusted directory `root`: 0, or an errno.
// Refused: ".." (EXDEV), an EA directory (EPERM), a link anywhere (ELOOP),
// anything but a regular file at the end (EISDIR for a directory, EINVAL
// otherwise); ENOENT, ENOTDIR, EACCES as the system says.
int PinBeneath(const std::string& root, const std::string& rel, PinnedFile* out);

// Pins a path given on a command line: its directory is trusted as given
// (links there are the caller's), the file itself must not be a link
// (ELOOP). 0, or an errno; a missing file is left to the library to report.
int PinGiven(const std::string& path, PinnedFile* out);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_PIN_H_
