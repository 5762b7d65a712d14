// First cut: 8-bit grey and RGB taken as sRGB, alpha dropped. Profiles,
// CICP and HDR follow.
#include "quality/colour.h"

#include <utility>

namespace kovathumb {
namespace internal {

bool ToSrgb8(Image&& in, Pixels* out, std::string* why) {
  if (in.bits != 8 || in.colour.cmyk || (in.channels != 1 && in.channels != 3 && in.channels != 4)) {
    if (why != nullptr) *why = "unsupported sample layout";
    return false;
  }
  out->width = in.width;
  out->height = in.height;
  if (in.channels == 3) {
    out->rgb = std::move(in.data8);
    return true;
  }
  const size_t n = size_t{in.width} * in.height;
  out->rgb.resize(n * 3);
  for (size_t i = 0; i < n; ++i) {
    for (int c = 0; c < 3; ++c) {
      out->rgb[i * 3 + c] = in.channels == 1 ? in.data8[i] : in.data8[i * 4 + c];
    }
  }
  return true;
}

}  // namespace internal
}  // namespace kovathumb
