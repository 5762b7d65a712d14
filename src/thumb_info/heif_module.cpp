// The libheif side of the HEIF probe, built as a module of its own.
#include "thumb_info/heif_module.h"

#include <libheif/heif_cxx.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace {
void SetMessage(KovathumbHeifResult* r, const std::string& text) {
  strncpy(r->message, text.c_str(), sizeof r->message - 1);
  r->message[sizeof r->message - 1] = '\0';
}
}  // namespace

extern "C" __attribute__((visibility("default"))) int kovathumb_heif_probe(const char* path,
                                                                           KovathumbHeifResult* r) {
  memset(r, 0, sizeof *r);
  try {
    heif::Context context;
    context.read_from_file(path);
    heif::ImageHandle handle = context.get_primary_image_handle();
    const std::vector<heif_item_id> ids = handle.get_list_of_metadata_block_IDs(nullptr);
    // Only the first block decides; a later Exif block does not count.
    if (ids.empty() || handle.get_metadata_type(ids.front()) != "Exif") return KOVATHUMB_HEIF_REJECTED;
    r->width = static_cast<uint32_t>(handle.get_width());
    r->height = static_cast<uint32_t>(handle.get_height());
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
