// Quality mode (kThumbOptQuality): thumbnails for people who look at them.
// Each one is the type its name says, fits its box as large as the source
// allows, is upright with no orientation tag left, and is in sRGB. The
// decisions are plain functions of plain values; Thumb's quality members
// (quality.cpp) run the tools.
#ifndef KOVATHUMB_LIBKOVATHUMB_QUALITY_H_
#define KOVATHUMB_LIBKOVATHUMB_QUALITY_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kovathumb/thumb_info.h"
#include "store/image_facts.h"
#include "thumb_info/decisions.h"

namespace kovathumb {
namespace internal {

// `w` x `h` scaled into `box`, aspect kept, never enlarged, at least 1 x 1.
ThumbDimension FitInBox(uint32_t w, uint32_t h, ThumbDimension box);

// The least M of djpeg's "-scale M/8" whose result still covers `fit`.
int DjpegEighths(uint32_t w, uint32_t h, ThumbDimension fit);

// Whether two sizes show the same picture shape (aspect within 2 %).
bool SameAspect(uint32_t w1, uint32_t h1, uint32_t w2, uint32_t h2);

// The embedded preview to scale a thumbnail for `box` from, or -1: a JPEG of
// the source's shape (so no bars) that covers the fitted size in either
// orientation, the smallest such.
int ChooseQualityPreview(const std::vector<PreviewProps>& previews, uint32_t srcW, uint32_t srcH,
                         ThumbDimension box);

// Whether the source itself is the thumbnail: a type browsers show, the
// type the thumbnail's name says, needing no turn, within the box.
bool ServesOriginal(const std::string& mime, const std::string& outputMime, uint32_t w, uint32_t h,
                    int turns, bool flop, ThumbDimension box);

// 8-bit RGB pixels, rows top to bottom; RGBA where `channels` is 4 (only
// the in-process pipeline makes those; Shrink and the PPM files are RGB).
struct Pixels {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<unsigned char> rgb;
  int channels = 3;
};
// A binary PPM of at most `maxPixels`, maxval 255; false for anything else.
bool ReadPpm(const std::string& path, uint64_t maxPixels, Pixels* out);
bool WritePpm(const std::string& path, const Pixels& image);
// Shrinks `in` to `w` x `h` (each at most the input's) by area averaging.
Pixels Shrink(const Pixels& in, uint32_t w, uint32_t h);
// Turns by `rotate` quarter turns, mirrors, then turns by `userRotate`
// (RGB or RGBA).
Pixels Orient(const Pixels& in, int rotate, bool flop, int userRotate);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_LIBKOVATHUMB_QUALITY_H_
