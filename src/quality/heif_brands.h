// libheif 1.15 refuses an AVIF image sequence whose brands name no still
// image ("avis" without "avif"), though such files carry a primary image
// for readers of stills. Header-only: the HEIF probe's module and the
// formats module both use it.
#ifndef KOVATHUMB_QUALITY_HEIF_BRANDS_H_
#define KOVATHUMB_QUALITY_HEIF_BRANDS_H_

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kovathumb {
namespace internal {

// Sequences larger than this are not read into memory to be renamed.
constexpr uint64_t kMaxHeifBytes = uint64_t{256} << 20;

// Whether the ftyp box at the start of `d` names "avis" but not "avif";
// with `fix`, each "avis" is renamed "avif" in place (libheif looks at the
// compatible brands, not the major one).
inline bool SequenceOnlyBrands(uint8_t* d, size_t n, bool fix) {
  if (n < 16 || memcmp(d + 4, "ftyp", 4) != 0) return false;
  const size_t box = std::min<size_t>(n, (size_t{d[0]} << 24) | (size_t{d[1]} << 16) | (size_t{d[2]} << 8) | d[3]);
  bool avis = false;
  for (size_t at = 8; at + 4 <= box; at += at == 8 ? 8 : 4) {
    if (memcmp(d + at, "avif", 4) == 0) return false;
    avis = avis || memcmp(d + at, "avis", 4) == 0;
  }
  for (size_t at = 8; fix && at + 4 <= box; at += at == 8 ? 8 : 4) {
    if (memcmp(d + at, "avis", 4) == 0) memcpy(d + at, "avif", 4);
  }
  return avis;
}

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_HEIF_BRANDS_H_
