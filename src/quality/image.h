// Decoded pictures on their way to a quality thumbnail, and what every
// decoder is asked and answers. Decoders are plain functions of an open
// descriptor; they run only inside the sandbox (sandbox/sandbox.h).
#ifndef KOVATHUMB_QUALITY_IMAGE_H_
#define KOVATHUMB_QUALITY_IMAGE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kovathumb/thumb_info.h"
#include "libkovathumb/quality.h"

namespace kovathumb {
namespace internal {

// How a decoded picture's numbers map to colours.
struct ColourDesc {
  std::string icc;  // the embedded ICC profile; empty for none
  // CICP (ITU-T H.273) code points; 2 is "unspecified".
  int primaries = 2;
  int transfer = 2;
  int matrix = 2;
  bool fullRange = true;
  // A plain power curve's decoding exponent (PNG's gAMA of 1/2.2 is 2.2),
  // heeded when nothing above says more; 0 for none.
  double gamma = 0;
  bool cmyk = false;  // samples are CMYK (Adobe JPEGs store them inverted)
};

// A decoded picture: interleaved samples, rows top to bottom, as stored
// (not yet turned upright).
struct Image {
  uint32_t width = 0;
  uint32_t height = 0;
  int channels = 3;  // 1 grey, 3 RGB, 4 RGBA or CMYK
  int bits = 8;      // 8: `data8`; up to 16: `data16`, at the low end of each value
  std::vector<uint8_t> data8;
  std::vector<uint16_t> data16;
  ColourDesc colour;
  int orientation = 1;  // EXIF 1-8 the file itself states, when the decoder knows it
};

// What a decoder is asked for.
struct DecodeRequest {
  // The smallest size the result must cover; a decoder may return anything
  // from this up to the full picture (0 x 0: the full picture).
  ThumbDimension need{0, 0};
  // Refused before decoding when the picture declares more.
  uint64_t maxPixels = uint64_t{128} << 20;
};

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_IMAGE_H_
