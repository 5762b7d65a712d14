// Pure decisions of the thumbnail store: whether a made file is a whole
// image worth storing, and which thumbnails of arbitrary boxes to drop so
// that anonymous requests cannot fill the disk.
#ifndef KOVATHUMB_LIBKOVATHUMB_STORE_RULES_H_
#define KOVATHUMB_LIBKOVATHUMB_STORE_RULES_H_

#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

namespace kovathumb {
namespace internal {

// Thumbnails of arbitrary boxes kept per source, and their bytes.
constexpr size_t kMaxBoxThumbs = 8;
constexpr off_t kMaxBoxThumbBytes = 8 << 20;

// Bytes read from each end of a file to judge it.
constexpr size_t kProbeBytes = 64;

// Whether a file that starts with `head` and ends with `tail` (the last
// kProbeBytes or fewer) is a whole image that may be stored for output type
// `outputMime`. djpeg's BMP goes out under the JPEG name.
bool IsStorableImage(const std::string& head, const std::string& tail, off_t size,
                     const std::string& outputMime);

// Names that requests for arbitrary boxes store: "KOVAFILE_THUMB_<w>x<h>..."
// and the avatars'.
bool IsBoxThumbName(const std::string& name);

struct StoredThumb {
  std::string name;
  off_t size;
  struct timespec changed;  // when it was stored
};
// The box thumbnails to remove, oldest first, so that at most kMaxBoxThumbs
// of them and kMaxBoxThumbBytes remain; `keep` (the one just stored) stays.
std::vector<std::string> BoxThumbsToRemove(std::vector<StoredThumb> stored, const std::string& keep);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_LIBKOVATHUMB_STORE_RULES_H_
