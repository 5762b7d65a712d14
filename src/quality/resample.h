// Reducing decoded pictures to thumbnail sizes: whole blocks averaged while
// the factor is large, then a Catmull-Rom kernel for the last step, which
// keeps edges crisper than averaging alone.
#ifndef KOVATHUMB_QUALITY_RESAMPLE_H_
#define KOVATHUMB_QUALITY_RESAMPLE_H_

#include <cstdint>

#include "libkovathumb/quality.h"

namespace kovathumb {
namespace internal {

// The block size averaged first along an axis going from `from` to `to`
// samples: the kernel is then left a factor between 2 and 4 (or less).
uint32_t BlockFactor(uint32_t from, uint32_t to);

// `in` resampled to `w` x `h` (larger sizes too, for crops of small sources).
// Samples are filtered as they are: RGBA must come premultiplied, or
// transparent pixels darken the edges next to them.
Pixels Resize(const Pixels& in, uint32_t w, uint32_t h);

// RGBA between straight and premultiplied alpha (RGB is left alone).
void Premultiply(Pixels* p);
void Unpremultiply(Pixels* p);

// The centred `w` x `h` part of `in` (each at most its size).
Pixels CropCentre(const Pixels& in, uint32_t w, uint32_t h);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_RESAMPLE_H_
