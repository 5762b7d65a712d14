#include "support/dng.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace kovathumb {
namespace test {

namespace {

struct Entry {
  uint16_t tag;
  uint16_t type;  // 1 BYTE, 2 ASCII, 3 SHORT, 4 LONG
  uint32_t count;
  uint32_t value;  // inline value, or offset of the data
};

class Writer {
 public:
  void U16(uint16_t v) { bytes_.push_back(char(v & 0xFF)), bytes_.push_back(char(v >> 8)); }
  void U32(uint32_t v) { U16(uint16_t(v & 0xFFFF)), U16(uint16_t(v >> 16)); }
  void Raw(const std::string& s) { bytes_.append(s); }
  void Patch32(uint32_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes_[at + i] = char((v >> (8 * i)) & 0xFF);
  }
  void Ifd(const std::vector<Entry>& entries, uint32_t next) {
    U16(static_cast<uint16_t>(entries.size()));
    for (const Entry& e : entries) {
      U16(e.tag), U16(e.type), U32(e.count);
      if (e.type == 3 && e.count == 1) {
        U16(static_cast<uint16_t>(e.value)), U16(0);
      } else {
        U32(e.value);
      }
    }
    U32(next);
  }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

uint32_t IfdSize(size_t n) { return static_cast<uint32_t>(2 + 12 * n + 4); }

// The CFA raw image's own tags: 16-bit RGGB, uncompressed, in one strip.
std::vector<Entry> RawEntries(unsigned w, unsigned h, uint32_t at) {
  return {{254, 4, 1, 0},  {256, 4, 1, w},     {257, 4, 1, h},
          {258, 3, 1, 16}, {259, 3, 1, 1},     {262, 3, 1, 32803},  // CFA
          {273, 4, 1, at}, {277, 3, 1, 1},     {278, 4, 1, h},
          {279, 4, 1, w * h * 2},
          {33421, 3, 2, 2 | (2u << 16)},  // CFARepeatPatternDim 2x2
          {33422, 1, 4, 0x02010100}};     // CFAPattern RGGB
}

std::vector<Entry> PreviewEntries(unsigned w, unsigned h, uint32_t bpsAt, uint32_t at,
                                  uint32_t size) {
  return {{254, 4, 1, 1},  {256, 4, 1, w},    {257, 4, 1, h}, {258, 3, 3, bpsAt},
          {259, 3, 1, 6},  // old-style JPEG: never taken for the raw image
          {262, 3, 1, 6},  // YCbCr
          {273, 4, 1, at}, {277, 3, 1, 3},    {279, 4, 1, size},
          {513, 4, 1, at},  // JPEGInterchangeFormat, where metadata readers look
          {514, 4, 1, size}};
}

// Make, Model, and BitsPerSample 8,8,8 for the 8-bit images, in 28 bytes.
void CommonData(Writer* w) {
  w->Raw(std::string("Kova\0\0\0\0", 8));
  w->Raw(std::string("Test raw\0\0\0\0", 12));
  w->U16(8), w->U16(8), w->U16(8), w->U16(0);
}
constexpr uint32_t kCommonSize = 28;
Entry Make(uint32_t common) { return {271, 2, 5, common}; }
Entry Model(uint32_t common) { return {272, 2, 9, common + 8}; }
uint32_t Bps(uint32_t common) { return common + 20; }
const Entry kDngVersion = {50706, 1, 4, 0x00000401};  // 1.4.0.0

// A mid-grey raw with a little pattern, so it decodes to something.
void RawPixels(Writer* w, unsigned rawW, unsigned rawH) {
  for (uint32_t i = 0; i < rawW * rawH; ++i) w->U16(static_cast<uint16_t>(2000 + (i % 97) * 10));
}

std::vector<Entry> Sorted(std::vector<Entry> entries) {
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.tag < b.tag; });
  return entries;
}

}  // namespace

std::string MakeDng(unsigned rawW, unsigned rawH, const std::string& jpeg, unsigned previewW,
                    unsigned previewH) {
  const bool preview = !jpeg.empty();
  // Layout: header, IFD0 (the raw), [IFD1 (the preview)], then data blocks.
  const uint32_t ifd0 = 8;
  const uint32_t ifd1 = ifd0 + IfdSize(16);
  const uint32_t common = preview ? ifd1 + IfdSize(11) : ifd1;
  const uint32_t rawAt = common + kCommonSize;
  const uint32_t jpegAt = rawAt + rawW * rawH * 2;

  Writer w;
  w.Raw("II");
  w.U16(42);
  w.U32(ifd0);
  std::vector<Entry> raw = RawEntries(rawW, rawH, rawAt);
  raw.insert(raw.end(), {Make(common), Model(common), {274, 3, 1, 1}, kDngVersion});
  w.Ifd(Sorted(raw), preview ? ifd1 : 0);
  const uint32_t jpegSize = static_cast<uint32_t>(jpeg.size());
  if (preview) w.Ifd(PreviewEntries(previewW, previewH, Bps(common), jpegAt, jpegSize), 0);
  CommonData(&w);
  RawPixels(&w, rawW, rawH);
  w.Raw(jpeg);
  return w.bytes();
}

std::string MakeCameraDng(unsigned rawW, unsigned rawH, const std::string& jpeg,
                          unsigned previewW, unsigned previewH, int orientation) {
  const bool preview = !jpeg.empty();
  const unsigned thumbW = 160, thumbH = 120;
  // Layout: header, IFD0 (the thumbnail), the raw's SubIFD, [the preview's
  // SubIFD], then data blocks.
  const uint32_t ifd0 = 8;
  const uint32_t sub0 = ifd0 + IfdSize(15);
  const uint32_t sub1 = sub0 + IfdSize(12);
  const uint32_t common = preview ? sub1 + IfdSize(11) : sub1;
  const uint32_t subsAt = common + kCommonSize;
  const uint32_t thumbAt = subsAt + 8;
  const uint32_t thumbSize = thumbW * thumbH * 3;
  const uint32_t rawAt = thumbAt + thumbSize;
  const uint32_t jpegAt = rawAt + rawW * rawH * 2;

  Writer w;
  w.Raw("II");
  w.U16(42);
  w.U32(ifd0);
  w.Ifd({{254, 4, 1, 1},  // a reduced-resolution image, not the primary one
         {256, 4, 1, thumbW},
         {257, 4, 1, thumbH},
         {258, 3, 3, Bps(common)},
         {259, 3, 1, 1},
         {262, 3, 1, 2},  // RGB
         Make(common),
         Model(common),
         {273, 4, 1, thumbAt},
         {274, 3, 1, static_cast<uint32_t>(orientation)},
         {277, 3, 1, 3},
         {278, 4, 1, thumbH},
         {279, 4, 1, thumbSize},
         preview ? Entry{330, 4, 2, subsAt} : Entry{330, 4, 1, sub0},  // SubIFDs
         kDngVersion},
        0);
  w.Ifd(RawEntries(rawW, rawH, rawAt), 0);
  const uint32_t jpegSize = static_cast<uint32_t>(jpeg.size());
  if (preview) w.Ifd(PreviewEntries(previewW, previewH, Bps(common), jpegAt, jpegSize), 0);
  CommonData(&w);
  w.U32(sub0), w.U32(sub1);
  for (uint32_t i = 0; i < thumbW * thumbH; ++i) w.Raw(std::string("\x80\x70\x60", 3));
  RawPixels(&w, rawW, rawH);
  w.Raw(jpeg);
  return w.bytes();
}

}  // namespace test
}  // namespace kovathumb
