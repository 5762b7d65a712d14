#include "support/dng.h"

#include <cstdint>
#include <vector>

namespace kovathumb {
namespace test {

namespace {

struct Entry {
  uint16_t tag, type;     // type 1 BYTE, 2 ASCII, 3 SHORT, 4 LONG
  uint32_t count, value;  // an inline value, or the offset of the data
};

struct Writer {
  void U16(uint16_t v) { bytes += char(v & 0xFF), bytes += char(v >> 8); }
  void U32(uint32_t v) { U16(uint16_t(v & 0xFFFF)), U16(uint16_t(v >> 16)); }
  // Entries sorted by tag; no next IFD.
  void Ifd(const std::vector<Entry>& entries) {
    U16(static_cast<uint16_t>(entries.size()));
    for (const Entry& e : entries) {
      U16(e.tag), U16(e.type), U32(e.count);
      e.type == 3 && e.count == 1 ? (U16(static_cast<uint16_t>(e.value)), U16(0)) : U32(e.value);
    }
    U32(0);
  }
  std::string bytes = std::string("II\x2A\0\x08\0\0\0", 8);  // IFD0 right after the header
};

uint32_t IfdSize(size_t n) { return static_cast<uint32_t>(2 + 12 * n + 4); }

}  // namespace

std::string MakeDng(unsigned rawW, unsigned rawH, const std::string& jpeg, unsigned previewW,
                    unsigned previewH, int orientation) {
  const bool preview = !jpeg.empty();
  const uint32_t thumbW = 160, thumbH = 120, thumbSize = thumbW * thumbH * 3;
  // After the IFDs: Make, Model and BitsPerSample 8,8,8 in 28 bytes, the
  // SubIFDs' offsets, then the thumbnail's, the raw's and the preview's data.
  const uint32_t sub0 = 8 + IfdSize(15), sub1 = sub0 + IfdSize(12);
  const uint32_t common = preview ? sub1 + IfdSize(11) : sub1, bps = common + 20, subs = common + 28;
  const uint32_t thumbAt = subs + 8, rawAt = thumbAt + thumbSize, jpegAt = rawAt + rawW * rawH * 2;
  const uint32_t jpegSize = static_cast<uint32_t>(jpeg.size());
  Writer w;
  w.Ifd({{254, 4, 1, 1}, {256, 4, 1, thumbW}, {257, 4, 1, thumbH}, {258, 3, 3, bps}, {259, 3, 1, 1},
         {262, 3, 1, 2}, {271, 2, 5, common}, {272, 2, 9, common + 8}, {273, 4, 1, thumbAt},
         {274, 3, 1, static_cast<uint32_t>(orientation)}, {277, 3, 1, 3}, {278, 4, 1, thumbH},
         {279, 4, 1, thumbSize}, preview ? Entry{330, 4, 2, subs} : Entry{330, 4, 1, sub0},
         {50706, 1, 4, 0x00000401}});  // DNGVersion 1.4
  // The raw: RGGB (2 x 2 pattern), uncompressed, one strip.
  w.Ifd({{254, 4, 1, 0}, {256, 4, 1, rawW}, {257, 4, 1, rawH}, {258, 3, 1, 16}, {259, 3, 1, 1},
         {262, 3, 1, 32803}, {273, 4, 1, rawAt}, {277, 3, 1, 1}, {278, 4, 1, rawH}, {279, 4, 1, rawW * rawH * 2},
         {33421, 3, 2, 2 | (2u << 16)}, {33422, 1, 4, 0x02010100}});
  // The preview: old-style JPEG, never taken for the raw; also where
  // metadata readers look (513, 514).
  if (preview) {
    w.Ifd({{254, 4, 1, 1}, {256, 4, 1, previewW}, {257, 4, 1, previewH}, {258, 3, 3, bps}, {259, 3, 1, 6},
           {262, 3, 1, 6}, {273, 4, 1, jpegAt}, {277, 3, 1, 3}, {279, 4, 1, jpegSize}, {513, 4, 1, jpegAt},
           {514, 4, 1, jpegSize}});
  }
  w.bytes += std::string("Kova\0\0\0\0Test raw\0\0\0\0", 20);
  w.U16(8), w.U16(8), w.U16(8), w.U16(0);
  w.U32(sub0), w.U32(sub1);
  for (uint32_t i = 0; i < thumbW * thumbH; ++i) w.bytes += "\x80\x70\x60";
  // A mid-grey raw with a little pattern, so it decodes to something.
  for (uint32_t i = 0; i < rawW * rawH; ++i) w.U16(static_cast<uint16_t>(2000 + (i % 97) * 10));
  return w.bytes + jpeg;
}

}  // namespace test
}  // namespace kovathumb
