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

namespace {

// Colour profiles and Exif sit before the frame header; 64 KiB segments
// can be chained, so read enough for several.
constexpr size_t kHeadBytes = 512 * 1024;

uint32_t Be16(const unsigned char* p) { return (uint32_t{p[0]} << 8) | p[1]; }

bool IsFrameHeader(unsigned char m) {
  // SOF0..SOF15 except DHT (C4), JPG (C8) and DAC (CC).
  return m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC;
}

}  // namespace

JpegFacts ScanJpeg(const unsigned char* data, size_t size) {
  JpegFacts facts;
  if (size < 4 || data[0] != 0xFF || data[1] != 0xD8) return facts;
  size_t pos = 2;
  while (pos + 4 <= size) {
    if (data[pos] != 0xFF) return facts;
    const unsigned char marker = data[pos + 1];
    if (marker == 0xFF) {  // fill byte
      ++pos;
      continue;
    }
    if (marker == 0xD9 || marker == 0xDA) return facts;
    const uint32_t length = Be16(data + pos + 2);
    if (length < 2) return facts;
    const unsigned char* body = data + pos + 4;
    const size_t avail = size - (pos + 4);
    if (marker == 0xE2 && avail >= 12 && memcmp(body, "ICC_PROFILE", 12) == 0) facts.icc = true;
    if (IsFrameHeader(marker)) {
      if (avail < 6) return facts;
      facts.height = Be16(body + 1);
      facts.width = Be16(body + 3);
      facts.components = body[5];
      facts.ok = facts.width != 0 && facts.height != 0;
      return facts;
    }
    pos += 2 + length;
  }
  return facts;
}

JpegFacts ScanJpegFile(const std::string& path) {
  // Our pinned paths are magic links; anything else is never followed.
  struct stat64 st;
  safe_fs::Fd file = safe_fs::OpenRegular(path, &st);
  return file.valid() ? ScanJpegFd(file.get()) : JpegFacts();
}

JpegFacts ScanJpegFd(int fd) {
  // Most frame headers are in the first 64 KiB; read more only when not.
  std::unique_ptr<unsigned char[]> head(new unsigned char[kHeadBytes]);
  size_t got = 0;
  JpegFacts facts;
  for (size_t want = 64 * 1024; want <= kHeadBytes; want *= 8) {
    const ssize_t n = safe_fs::ReadAt(fd, reinterpret_cast<char*>(head.get()) + got, want - got,
                                      static_cast<off_t>(got));
    if (n > 0) got += static_cast<size_t>(n);
    facts = ScanJpeg(head.get(), got);
    if (facts.ok || got < want) break;  // found, or the whole file read
  }
  return facts;
}

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
