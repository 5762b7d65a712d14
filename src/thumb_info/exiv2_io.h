// Exiv2's side of a probe: its reading of an opened source, its log, and
// what it is never let read.
#ifndef KOVATHUMB_THUMB_INFO_EXIV2_IO_H_
#define KOVATHUMB_THUMB_INFO_EXIV2_IO_H_

#include <exiv2/exiv2.hpp>
#include <string>

namespace kovathumb {
namespace internal {

// Exiv2 reads the opened source through its descriptor. Its own file
// reader opens the path anew, and closes it, for each pass over the file:
// three times a probe. Owned by the caller (Exiv2 takes it); `fd` must
// outlive it.
Exiv2::BasicIo* NewPinnedIo(int fd, const std::string& path);

// Debian's Exiv2 0.27 opens HEIF files as QuickTime video with no size,
// instead of rejecting them. We read photos only, so a source it takes for a
// video container is an unknown image type to us, and is never read: its
// video readers can spend minutes and hundreds of megabytes on a few crafted
// kilobytes. Told by the reader's type (the numbers of its riff, mkv, qtime
// and asf readers), not by mimeType(): the TIFF reader fixes its type and
// primary image on the first mimeType() call, and before readMetadata() that
// is the first sub-image (a raw's small thumbnail), not the raw itself.
bool IsVideoContainer(const Exiv2::Image& image);

// Exiv2 writes its warnings to standard error, which in a CGI process is the
// web server's log and never ours: they go to the system log instead.
// Called under the Exiv2 lock; the first call routes them.
void RouteExiv2Log();

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_INFO_EXIV2_IO_H_
