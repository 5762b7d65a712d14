// HEIF/HEIC sources, which the metadata reader does not read. A file counts
// as HEIC only when its primary image's first metadata block is Exif.
#include <libheif/heif_cxx.h>

#include <stdexcept>
#include <string>

#include "kovathumb/thumb_info.h"
#include "util/log.h"

namespace kovathumb {

void ThumbInfo::CheckAndGetHeif() {
  try {
    heif::Context context;
    context.read_from_file(path_);
    heif::ImageHandle handle = context.get_primary_image_handle();
    const std::vector<heif_item_id> ids = handle.get_list_of_metadata_block_IDs(nullptr);
    // Only the first block decides; a later Exif block does not count.
    if (ids.empty() || handle.get_metadata_type(ids.front()) != "Exif") return;
    width_ = static_cast<uint32_t>(handle.get_width());
    height_ = static_cast<uint32_t>(handle.get_height());
    rotate_ = rotateFlopMappingList_.front().first;
    flop_ = rotateFlopMappingList_.front().second;
    heic_ = true;
  } catch (const heif::Error& e) {
    KT_LOG("%s, heif error: code = %d, subcode = %d, %s", path_.c_str(),
           static_cast<int>(e.get_code()), static_cast<int>(e.get_subcode()),
           e.get_message().c_str());
  } catch (const std::runtime_error& e) {
    KT_LOG("runtime error: %s", e.what());
  }
}

}  // namespace kovathumb
