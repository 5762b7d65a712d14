// The one way into a ThumbInfo's private state, for the library's own
// classes and its tests: ThumbInfo names this type as its only friend, so
// its public header grants nothing to a particular caller. Not installed.
//
// Everything here is inline: it is compiled into its callers, the library's
// objects and the tests that link them, and no symbol of it is exported.
#ifndef KOVATHUMB_THUMB_INFO_THUMB_INFO_ACCESS_H_
#define KOVATHUMB_THUMB_INFO_THUMB_INFO_ACCESS_H_

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "kovathumb/thumb_info.h"

namespace kovathumb {
namespace internal {

class ThumbInfoAccess {
 public:
  // A request's size name and its box, which always change together.
  static void SetSizeAndBox(ThumbInfo* info, const std::string& size, ThumbDimension box) {
    info->size_ = size;
    info->dimension_ = box;
  }

  // The source's pixel size found elsewhere than by probing it (dcraw's
  // preview of a raw whose own size is unknown); scaling follows it.
  static void SetPixelSize(ThumbInfo* info, uint32_t width, uint32_t height) {
    info->width_ = width;
    info->height_ = height;
  }

  // What a successful probe finds, without an image file: the record is
  // then good.
  static void SetProbed(ThumbInfo* info, const std::string& mime, uint32_t width, uint32_t height,
                        int rotate, bool flop) {
    info->mimeType_ = mime;
    SetPixelSize(info, width, height);
    info->rotate_ = rotate;
    info->flop_ = flop;
    info->good_ = true;
  }

  // A copy's own path to the same opened source (a pinned path is this
  // process's).
  static void SetPath(ThumbInfo* info, const std::string& path) { info->path_ = path; }

  // The descriptor of the opened source, or null when it could not be
  // opened for reading.
  static const int* SourceFd(const ThumbInfo& info) { return info.sourceFd_.get(); }

  // The opened source as this process reads it ("/proc/self/fd/N"); the path
  // when it could not be opened.
  static std::string PinnedSource(const ThumbInfo& info) { return info.PinnedSource(); }

  // The embedded preview of a source the probe read, read only when a
  // conversion needs it: an answer from the store forks no reader.
  static void ReadPreview(ThumbInfo* info) {
    DropPreview(info);
    // None of the previews the facts listed would be chosen: not read again.
    if (info->good_ && (!info->previews_ || info->ChoosePreview(*info->previews_) >= 0)) info->Read(false, true);
  }
  // Removes the preview file an earlier request left unused.
  static void DropPreview(ThumbInfo* info) {
    if (!info->exifPreviewTmpPath_.empty()) unlink(info->exifPreviewTmpPath_.c_str());
    info->exifPreviewTmpPath_.clear();
  }

  // The source's modification time when the record was made: the stamp of
  // the thumbnails made from what was probed.
  static time_t ProbedMtime(const ThumbInfo& info) { return info.fileStat_.st_mtime; }
};

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_INFO_THUMB_INFO_ACCESS_H_
