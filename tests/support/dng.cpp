#include "support/dng.h"

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
  uint32_t Size() const { return static_cast<uint32_t>(bytes_.size()); }
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

}  // namespace

std::string MakeDng(unsigned rawW, unsigned rawH, const std::string& jpeg, unsigned previewW,
                    unsigned previewH) {
  const bool preview = !jpeg.empty();
  const std::string make = "Kova\0", model = "Test raw\0";
  const size_t rawEntries = 16, previewEntries = 11;
  // Layout: header, IFD0, [IFD1], then data blocks.
  const uint32_t ifd0 = 8;
  const uint32_t ifd1 = ifd0 + IfdSize(rawEntries);
  uint32_t data = preview ? ifd1 + IfdSize(previewEntries) : ifd1;
  const uint32_t makeAt = data;
  data += 8;
  const uint32_t modelAt = data;
  data += 12;
  const uint32_t bpsAt = data;  // three SHORTs 8,8,8 for the preview
  data += 8;
  const uint32_t rawAt = data;
  const uint32_t rawBytes = rawW * rawH * 2;
  const uint32_t jpegAt = rawAt + rawBytes;

  Writer w;
  w.Raw("II");
  w.U16(42);
  w.U32(ifd0);
  w.Ifd({{254, 4, 1, 0},
         {256, 4, 1, rawW},
         {257, 4, 1, rawH},
         {258, 3, 1, 16},
         {259, 3, 1, 1},
         {262, 3, 1, 32803},  // CFA
         {271, 2, 5, makeAt},
         {272, 2, 9, modelAt},
         {273, 4, 1, rawAt},
         {274, 3, 1, 1},
         {277, 3, 1, 1},
         {278, 4, 1, rawH},
         {279, 4, 1, rawBytes},
         {33421, 3, 2, 2 | (2u << 16)},  // CFARepeatPatternDim 2x2
         {33422, 1, 4, 0x02010100},      // CFAPattern RGGB
         {50706, 1, 4, 0x00000401}},     // DNGVersion 1.4.0.0
        preview ? ifd1 : 0);
  if (preview) {
    w.Ifd({{254, 4, 1, 1},
           {256, 4, 1, previewW},
           {257, 4, 1, previewH},
           {258, 3, 3, bpsAt},
           {259, 3, 1, 6},  // old-style JPEG: never taken for the raw image
           {262, 3, 1, 6},  // YCbCr
           {273, 4, 1, jpegAt},
           {277, 3, 1, 3},
           {279, 4, 1, static_cast<uint32_t>(jpeg.size())},
           {513, 4, 1, jpegAt},  // JPEGInterchangeFormat, where metadata readers look
           {514, 4, 1, static_cast<uint32_t>(jpeg.size())}},
          0);
  }
  w.Raw(std::string(make.data(), 5));
  w.Raw(std::string(3, '\0'));
  w.Raw(std::string(model.data(), 9));
  w.Raw(std::string(3, '\0'));
  w.U16(8), w.U16(8), w.U16(8), w.U16(0);
  // A mid-grey raw with a little pattern, so it decodes to something.
  for (uint32_t i = 0; i < rawW * rawH; ++i) w.U16(static_cast<uint16_t>(2000 + (i % 97) * 10));
  if (preview) w.Raw(jpeg);
  (void)w.Size();
  return w.bytes();
}

}  // namespace test
}  // namespace kovathumb
