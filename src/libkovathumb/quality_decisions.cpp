// Quality mode's decisions: plain functions of plain values.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "kovathumb/thumb_const.h"
#include "libkovathumb/quality.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace internal {

ThumbDimension FitInBox(uint32_t w, uint32_t h, ThumbDimension box) {
  if (w == 0 || h == 0) return {std::min(w, box.width), std::min(h, box.height)};
  if (w <= box.width && h <= box.height) return {w, h};
  const double scale = std::min(static_cast<double>(box.width) / w, static_cast<double>(box.height) / h);
  const auto side = [scale](uint32_t v) {
    return std::max<uint32_t>(1, static_cast<uint32_t>(std::lround(v * scale)));
  };
  // Rounding may step one pixel past the box side that set the scale.
  return {std::min(side(w), box.width), std::min(side(h), box.height)};
}

int DjpegEighths(uint32_t w, uint32_t h, ThumbDimension fit) {
  for (int m = 1; m < 8; ++m) {
    // djpeg rounds scaled sides up.
    const uint64_t sw = (uint64_t{w} * m + 7) / 8;
    const uint64_t sh = (uint64_t{h} * m + 7) / 8;
    if (sw >= fit.width && sh >= fit.height) return m;
  }
  return 8;
}

bool SameAspect(uint32_t w1, uint32_t h1, uint32_t w2, uint32_t h2) {
  if (w1 == 0 || h1 == 0 || w2 == 0 || h2 == 0) return false;
  const double a = static_cast<double>(w1) / h1;
  const double b = static_cast<double>(w2) / h2;
  return std::fabs(a - b) <= 0.02 * std::max(a, b);
}

int ChooseQualityPreview(const std::vector<PreviewProps>& previews, uint32_t srcW, uint32_t srcH,
                         ThumbDimension box) {
  // The turn is not known yet when previews are chosen: cover both.
  const ThumbDimension a = FitInBox(srcW, srcH, box);
  const ThumbDimension b = FitInBox(srcW, srcH, {box.height, box.width});
  const uint32_t needW = std::max(a.width, b.width);
  const uint32_t needH = std::max(a.height, b.height);
  int best = -1;
  uint64_t bestArea = 0;
  for (size_t i = 0; i < previews.size(); ++i) {
    const PreviewProps& p = previews[i];
    if (p.mimeType != kMimeJpeg || !SameAspect(p.width, p.height, srcW, srcH)) continue;
    if (p.width < needW || p.height < needH) continue;
    const uint64_t area = uint64_t{p.width} * p.height;
    if (best < 0 || area < bestArea) {
      best = static_cast<int>(i);
      bestArea = area;
    }
  }
  return best;
}

bool ServesOriginal(const std::string& mime, const std::string& outputMime, uint32_t w, uint32_t h,
                    int turns, bool flop, ThumbDimension box) {
  const bool browserType = mime == kMimeJpeg || mime == kMimePng || mime == kMimeGif;
  return browserType && mime == outputMime && (turns & 3) == 0 && !flop && w != 0 && h != 0 &&
         w <= box.width && h <= box.height;
}

}  // namespace internal
}  // namespace kovathumb
