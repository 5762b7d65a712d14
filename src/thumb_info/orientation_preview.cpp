// Orientation from EXIF (with maker-note fallbacks) and the embedded preview.
// Everything here runs under ThumbInfo::exiv2_mutex_, taken by ExtractImgInfo.
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <exiv2/exiv2.hpp>
#include <string>

#include "kovathumb/thumb_info.h"
#include "libkovathumb/quality.h"
#include "thumb_info/decisions.h"
#include "util/log.h"

namespace kovathumb {

const Exiv2::ExifKey ThumbInfo::stdOrientationKey("Exif.Image.Orientation");

// The first key present wins, so the repeated Sony key never changes a result.
const std::vector<Exiv2::ExifKey> ThumbInfo::orientationKeyList_ = {
    Exiv2::ExifKey("Exif.Panasonic.Rotation"),     Exiv2::ExifKey("Exif.MinoltaCs5D.Rotation"),
    Exiv2::ExifKey("Exif.MinoltaCs5D.Rotation2"),  Exiv2::ExifKey("Exif.MinoltaCs7D.Rotation"),
    Exiv2::ExifKey("Exif.Sony1MltCsA100.Rotation"), Exiv2::ExifKey("Exif.Sony1Cs.Rotation"),
    Exiv2::ExifKey("Exif.Sony2Cs.Rotation"),       Exiv2::ExifKey("Exif.Sony1Cs2.Rotation"),
    Exiv2::ExifKey("Exif.Sony2Cs2.Rotation"),      Exiv2::ExifKey("Exif.Sony1MltCsA100.Rotation"),
};

// Indexed by EXIF orientation - 1: (clockwise quarter turns, mirror).
const std::vector<std::pair<int, bool>> ThumbInfo::rotateFlopMappingList_ = {
    {0, false}, {0, true}, {2, false}, {2, true}, {1, true}, {1, false}, {3, true}, {3, false},
};

namespace internal {

int OrientationIndex(const std::string* standard, const std::string* makerNote) {
  if (standard == nullptr) return 0;
  int orientation;
  if (*standard != "1") {
    orientation = std::stoi(*standard);
  } else if (makerNote != nullptr) {
    orientation = std::stoi(*makerNote);
  } else {
    return 0;
  }
  const uint32_t index = static_cast<uint32_t>(orientation) - 1U;
  return index > 7U ? 0 : static_cast<int>(index);
}

int ChoosePreview(const std::vector<PreviewProps>& previews, const std::string& sourceMime,
                  ThumbDimension box) {
  // Products wrap in 32 bits on purpose: an unlimited box (2147483647 on
  // both sides) then skips no preview and takes the largest.
  const uint32_t maxW = 2U * box.width;
  const uint32_t maxH = 2U * box.height;
  int best = -1;
  uint32_t bestArea = 0;
  for (size_t i = 0; i < previews.size(); ++i) {
    const PreviewProps& p = previews[i];
    if (p.mimeType == "image/tiff" && sourceMime == "image/x-canon-cr2") continue;
    if (p.width > maxW && p.height > maxH) continue;
    const uint32_t area = p.width * p.height;
    if (best < 0 || area > bestArea) {
      best = static_cast<int>(i);
      bestArea = area;
    }
  }
  if (best < 0) return -1;
  const uint32_t boxArea = box.width * box.height;
  if (static_cast<double>(bestArea) < 0.75 * static_cast<double>(boxArea)) return -1;
  return best;
}

}  // namespace internal

int ThumbInfo::ResolveOrientationIndex(Exiv2::Image& image) const {
  Exiv2::ExifData& exif = image.exifData();
  Exiv2::ExifData::iterator it = exif.findKey(stdOrientationKey);
  if (it == exif.end()) return internal::OrientationIndex(nullptr, nullptr);
  const std::string standard = it->toString();
  if (standard != "1") return internal::OrientationIndex(&standard, nullptr);
  for (const Exiv2::ExifKey& key : orientationKeyList_) {
    Exiv2::ExifData::iterator mk = exif.findKey(key);
    if (mk != exif.end()) {
      const std::string makerNote = mk->toString();
      return internal::OrientationIndex(&standard, &makerNote);
    }
  }
  return internal::OrientationIndex(&standard, nullptr);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void ThumbInfo::ExtractEXIFPreviewInfo(const std::auto_ptr<Exiv2::Image>& image) {
#pragma GCC diagnostic pop
  Exiv2::PreviewManager manager(*image);
  const Exiv2::PreviewPropertiesList list = manager.getPreviewProperties();
  std::vector<internal::PreviewProps> props;
  props.reserve(list.size());
  for (const Exiv2::PreviewProperties& p : list) {
    props.push_back({p.mimeType_, p.width_, p.height_});
  }
  const int best = quality_ ? internal::ChooseQualityPreview(props, width_, height_, dimension_)
                            : internal::ChoosePreview(props, mimeType_, dimension_);
  if (best < 0) {
    exifPreviewTmpPath_.clear();
    return;
  }

  Exiv2::PreviewImage preview = manager.getPreviewImage(list[static_cast<size_t>(best)]);
  exifPreviewTmpPath_ = "/tmp/thumb." + std::to_string(static_cast<int>(getpid())) + "." +
                        std::to_string(static_cast<long>(time(nullptr))) + "." +
                        std::to_string(rand());
  const long written = preview.writeFile(exifPreviewTmpPath_);
  if (written == static_cast<long>(preview.size())) {
    exifPreviewTmpPath_ += preview.extension();
    UpdateAMTime(exifPreviewTmpPath_);
  } else {
    // Exiv2 wrote the name with its extension appended; the bare name is
    // what is removed here.
    unlink(exifPreviewTmpPath_.c_str());
    exifPreviewTmpPath_.clear();
    KT_LOG("Write preview to file failed, %s", path_.c_str());
  }
}

}  // namespace kovathumb
