// The libheif side of the HEIF probe, built as a module of its own.
#include "thumb_info/heif_module.h"

#include "quality/heif_brands.h"

#include <libheif/heif_cxx.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace {
void SetMessage(KovathumbHeifResult* r, const std::string& text) {
  strncpy(r->message, text.c_str(), sizeof r->message - 1);
  r->message[sizeof r->message - 1] = '\0';
}

// "Orientation" of IFD0 in a HEIF Exif block: a 4-byte offset to the TIFF
// header, then the TIFF structure. 0 when absent or malformed.
int ExifOrientation(const std::vector<uint8_t>& b) {
  if (b.size() < 4) return 0;
  const size_t tiff = 4 + ((size_t{b[0]} << 24) | (size_t{b[1]} << 16) | (size_t{b[2]} << 8) | b[3]);
  if (tiff > b.size() || b.size() - tiff < 8) return 0;
  const uint8_t* t = b.data() + tiff;
  const size_t n = b.size() - tiff;
  const bool le = t[0] == 'I' && t[1] == 'I';
  if (!le && !(t[0] == 'M' && t[1] == 'M')) return 0;
  auto u16 = [&](size_t at) { return le ? t[at] | t[at + 1] << 8 : t[at] << 8 | t[at + 1]; };
  auto u32 = [&](size_t at) { return size_t(u16(le ? at + 2 : at)) << 16 | size_t(u16(le ? at : at + 2)); };
  const size_t ifd = u32(4);
  if (ifd > n - 2) return 0;
  const size_t count = static_cast<size_t>(u16(ifd));
  for (size_t i = 0; i < count && ifd + 2 + 12 * (i + 1) <= n; ++i) {
    const size_t e = ifd + 2 + 12 * i;
    if (u16(e) == 0x0112 && u16(e + 2) == 3) return u16(e + 8);
  }
  return 0;
}
}  // namespace

extern "C" __attribute__((visibility("default"))) int kovathumb_heif_probe(const char* path,
                                                                           KovathumbHeifResult* r) {
  memset(r, 0, sizeof *r);
  try {
    heif::Context context;
    uint8_t head[64] = {};
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(head), sizeof head);
    std::vector<uint8_t> bytes;
    file.clear();
    file.seekg(0, std::ios::end);
    const bool small = file.tellg() >= 0 && static_cast<uint64_t>(file.tellg()) <= kovathumb::internal::kMaxHeifBytes;
    if (small && kovathumb::internal::SequenceOnlyBrands(head, sizeof head, false)) {
      // An AVIF sequence, read by its primary image.
      file.seekg(0);
      bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
      kovathumb::internal::SequenceOnlyBrands(bytes.data(), bytes.size(), true);
      context.read_from_memory_without_copy(bytes.data(), bytes.size());
    } else {
      context.read_from_file(path);
    }
    heif::ImageHandle handle = context.get_primary_image_handle();
    r->width = static_cast<uint32_t>(handle.get_width());
    r->height = static_cast<uint32_t>(handle.get_height());
    r->ispeWidth = static_cast<uint32_t>(heif_image_handle_get_ispe_width(handle.get_raw_image_handle()));
    r->ispeHeight = static_cast<uint32_t>(heif_image_handle_get_ispe_height(handle.get_raw_image_handle()));
    const std::vector<heif_item_id> ids = handle.get_list_of_metadata_block_IDs("Exif");
    try {
      if (!ids.empty()) r->exifOrientation = ExifOrientation(handle.get_metadata(ids.front()));
    } catch (const heif::Error&) {
      // An unreadable Exif block only leaves the orientation unknown.
    }
    // Only the first block decides; a later Exif block does not count.
    const std::vector<heif_item_id> all = handle.get_list_of_metadata_block_IDs(nullptr);
    if (all.empty() || handle.get_metadata_type(all.front()) != "Exif") return KOVATHUMB_HEIF_REJECTED;
    return KOVATHUMB_HEIF_ACCEPTED;
  } catch (const heif::Error& e) {
    r->code = static_cast<int>(e.get_code());
    r->subcode = static_cast<int>(e.get_subcode());
    SetMessage(r, e.get_message());
    return KOVATHUMB_HEIF_ERROR;
  } catch (const std::runtime_error& e) {
    SetMessage(r, e.what());
    return KOVATHUMB_HEIF_RUNTIME_ERROR;
  }
}
