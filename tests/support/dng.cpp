#include "support/dng.h"

#include <cstdint>
#include <vector>

namespace kovathumb {
namespace test {

namespace {

struct Entry {
  uint16_t tag, type;  // type: 1 BYTE, 2 ASCII, 3 SHORT, 4 LONG
  uint32_t count, value;  // value: inline, or offset of the data
};

void U16(std::string* out, uint16_t v) { out->push_back(char(v & 0xFF)), out->push_back(char(v >> 8)); }
void U32(std::string* out, uint32_t v) { U16(out, uint16_t(v & 0xFFFF)), U16(out, uint16_t(v >> 16)); }

void Ifd(std::string* out, const std::vector<Entry>& entries, uint32_t next) {
  U16(out, static_cast<uint16_t>(entries.size()));
  for (const Entry& e : entries) {
    U16(out, e.tag), U16(out, e.type), U32(out, e.count);
    e.type == 3 && e.count == 1 ? (U16(out, static_cast<uint16_t>(e.value)), U16(out, 0)) : U32(out, e.value);
  }
  U32(out, next);
}

}  // namespace

std::string MakeDng(unsigned rawW, unsigned rawH, const std::string& jpeg, unsigned previewW, unsigned previewH) {
  const bool preview = !jpeg.empty();
  // Layout: header, IFD0 (16 entries), [IFD1 (11)], make, model, preview bits per sample, raw, JPEG.
  const uint32_t ifd0 = 8, ifd1 = ifd0 + 2 + 12 * 16 + 4;
  const uint32_t makeAt = preview ? ifd1 + 2 + 12 * 11 + 4 : ifd1, modelAt = makeAt + 8, bpsAt = modelAt + 12;
  const uint32_t rawAt = bpsAt + 8, rawBytes = rawW * rawH * 2, jpegAt = rawAt + rawBytes;
  std::string out = "II";
  U16(&out, 42);
  U32(&out, ifd0);
  Ifd(&out,
      {{254, 4, 1, 0}, {256, 4, 1, rawW}, {257, 4, 1, rawH}, {258, 3, 1, 16}, {259, 3, 1, 1},
       {262, 3, 1, 32803},  // CFA
       {271, 2, 5, makeAt}, {272, 2, 9, modelAt}, {273, 4, 1, rawAt}, {274, 3, 1, 1}, {277, 3, 1, 1},
       {278, 4, 1, rawH}, {279, 4, 1, rawBytes},
       {33421, 3, 2, 2 | (2u << 16)},  // CFARepeatPatternDim 2x2
       {33422, 1, 4, 0x02010100},      // CFAPattern RGGB
       {50706, 1, 4, 0x00000401}},     // DNGVersion 1.4.0.0
      preview ? ifd1 : 0);
  if (preview) {
    const uint32_t size = static_cast<uint32_t>(jpeg.size());
    Ifd(&out,
        {{254, 4, 1, 1}, {256, 4, 1, previewW}, {257, 4, 1, previewH}, {258, 3, 3, bpsAt},
         {259, 3, 1, 6},  // old-style JPEG: never taken for the raw image
         {262, 3, 1, 6},  // YCbCr
         {273, 4, 1, jpegAt}, {277, 3, 1, 3}, {279, 4, 1, size},
         {513, 4, 1, jpegAt},  // JPEGInterchangeFormat, where metadata readers look
         {514, 4, 1, size}},
        0);
  }
  out += std::string("Kova\0\0\0\0Test raw\0\0\0\0", 20);
  U16(&out, 8), U16(&out, 8), U16(&out, 8), U16(&out, 0);
  // A mid-grey raw with a little pattern, so it decodes to something.
  for (uint32_t i = 0; i < rawW * rawH; ++i) U16(&out, static_cast<uint16_t>(2000 + (i % 97) * 10));
  return out + jpeg;
}

}  // namespace test
}  // namespace kovathumb
