// Pure decisions of ThumbInfo, kept apart from Exiv2 so they can be tested
// with plain values.
#ifndef KOVATHUMB_THUMB_INFO_DECISIONS_H_
#define KOVATHUMB_THUMB_INFO_DECISIONS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kovathumb/thumb_info.h"

namespace kovathumb {
namespace internal {

// Index into ThumbInfo::rotateFlopMappingList_ from the text of
// "Exif.Image.Orientation" (null when absent) and, only consulted when that
// text is exactly "1", of the first maker-note rotation key present (null
// when none). The text is read as std::stoi reads it (leading blanks skipped,
// trailing characters ignored); text that is no number, or too large, means
// no orientation (0).
int OrientationIndex(const std::string* standard, const std::string* makerNote);

struct PreviewProps {
  std::string mimeType;
  uint32_t width;
  uint32_t height;
};

// Which embedded preview makes a thumbnail for `box` of a source of type
// `sourceMime`: an index into `previews`, or -1 when none is suitable.
int ChoosePreview(const std::vector<PreviewProps>& previews, const std::string& sourceMime,
                  ThumbDimension box);

// Index into ThumbInfo::rotateFlopMappingList_ for a HEIF source whose
// decoding (libheif's) already applies the file's own rotation and mirroring:
// its Exif orientation counts only where it asks for a quarter turn that the
// decoding visibly did not make (decoded size `w` x `h` equal to the stored
// `ispeW` x `ispeH`, not square). Otherwise 0.
int HeifOrientationIndex(int exifOrientation, uint32_t w, uint32_t h, uint32_t ispeW,
                         uint32_t ispeH);

// rotate + userRotate in 32 bits, wrapping rather than overflowing.
inline int32_t TurnSum(int32_t rotate, int32_t userRotate) {
  return static_cast<int32_t>(static_cast<uint32_t>(rotate) + static_cast<uint32_t>(userRotate));
}

// The extension thumbnails of a source of type `mime` are stored under:
// ".gif" (animated, where asked for and not cropped), ".png" or ".jpg".
std::string OutputExtension(const std::string& mime, bool enableGIF, bool crop);

// "" or "_r<n>" for a total rotation of `sum` quarter turns.
std::string RotateSuffix(int32_t sum);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_INFO_DECISIONS_H_
