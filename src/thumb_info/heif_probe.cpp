// HEIF/HEIC sources, which the metadata reader does not read. A file counts
// as HEIC only when its primary image's first metadata block is Exif; in
// quality mode whenever libheif reads its primary image. The libheif work is
// done by a module loaded on the first HEIF source.
#include <mutex>
#include <string>

#include "kovathumb/thumb_info.h"
#include "thumb_info/decisions.h"
#include "thumb_info/heif_module.h"
#include "util/modules.h"
#include "util/log.h"

namespace kovathumb {

namespace {

// libheif's start-up cost is paid on the first HEIF source only.
KovathumbHeifProbeFn LoadProbe(std::string* error) {
  return reinterpret_cast<KovathumbHeifProbeFn>(
      internal::ModuleSymbol("libkovathumb_heif.so", "kovathumb_heif_probe", error));
}

}  // namespace

namespace internal {

int HeifOrientationIndex(int exifOrientation, uint32_t w, uint32_t h, uint32_t ispeW,
                         uint32_t ispeH) {
  const bool quarterTurn = exifOrientation >= 5 && exifOrientation <= 8;
  const bool decodedAsStored = w == ispeW && h == ispeH && w != h;
  return quarterTurn && decodedAsStored ? exifOrientation - 1 : 0;
}

}  // namespace internal

void ThumbInfo::CheckAndGetHeif() {
  static std::once_flag once;
  static KovathumbHeifProbeFn probe = nullptr;
  static std::string loadError;
  std::call_once(once, [] { probe = LoadProbe(&loadError); });
  if (probe == nullptr) {
    KT_LOG("runtime error: %s", ("no HEIF support: " + loadError).c_str());
    return;
  }
  KovathumbHeifResult result;
  const int outcome = probe(PinnedSource().c_str(), &result);
  const bool readable = result.width != 0 && result.height != 0;
  switch (outcome) {
    case KOVATHUMB_HEIF_ACCEPTED:
    case KOVATHUMB_HEIF_REJECTED: {
      if (outcome == KOVATHUMB_HEIF_REJECTED && !(quality_ && readable)) break;
      const size_t index =
          quality_ ? static_cast<size_t>(internal::HeifOrientationIndex(
                         result.exifOrientation, result.width, result.height, result.ispeWidth,
                         result.ispeHeight))
                   : 0;
      width_ = result.width;
      height_ = result.height;
      rotate_ = rotateFlopMappingList_[index].first;
      flop_ = rotateFlopMappingList_[index].second;
      heic_ = true;
      break;
    }
    case KOVATHUMB_HEIF_ERROR:
      KT_LOG("%s, heif error: code = %d, subcode = %d, %s", path_.c_str(), result.code, result.subcode,
             result.message);
      break;
    case KOVATHUMB_HEIF_RUNTIME_ERROR:
      KT_LOG("runtime error: %s", result.message);
      break;
  }
}

}  // namespace kovathumb
