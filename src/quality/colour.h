// From a decoded picture to 8-bit sRGB: ICC profiles, CICP/nclx colour,
// CMYK, HDR transfer functions (PQ, HLG) tone-mapped to SDR, 16-bit samples
// rounded. A profile that is sRGB already is recognised and costs no
// transform. Runs in the sandbox with the decoders.
#ifndef KOVATHUMB_QUALITY_COLOUR_H_
#define KOVATHUMB_QUALITY_COLOUR_H_

#include <string>

#include "quality/image.h"

namespace kovathumb {
namespace internal {

// Converts `in` (consumed) to sRGB pixels; false with `why` when its colour
// cannot be understood.
bool ToSrgb8(Image&& in, Pixels* out, std::string* why);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_COLOUR_H_
