// HEIF/HEIC sources, which the metadata reader does not read. A file counts
// as HEIC only when its primary image's first metadata block is Exif; in
// quality mode whenever libheif reads its primary image. The libheif work is
// done by a module loaded on the first HEIF source.
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <mutex>
#include <string>

#include "kovathumb/thumb_info.h"
#include "thumb_info/decisions.h"
#include "thumb_info/heif_module.h"
#include "util/modules.h"
#include "kovaplatform/kovaplatform.h"
#include "sandbox/sandbox.h"
#include "util/safe_fs.h"
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
  // libheif reads the source in a sandboxed child (the module is loaded
  // here, where its files are); the answer is a fixed-size record.
  struct Answer {
    int outcome;
    KovathumbHeifResult result;
  } answer{KOVATHUMB_HEIF_RUNTIME_ERROR, {}};
  KovathumbHeifResult& result = answer.result;
  if (sourceFd_) {
    sandbox::Spec spec;
    spec.visible = {*sourceFd_};
    spec.limits.wallSeconds = 20;
    spec.limits.cpuSeconds = 20;
    spec.limits.addressSpace = KOVA_CHILD_ADDRESS_SPACE;
    const std::string source = safe_fs::ToolPath(*sourceFd_);
    if (sandbox::RunForRecord<Answer>(spec, [&](Answer* a) {
          return a->outcome = probe(source.c_str(), &a->result), true;
        }, &answer)) {
      result.message[sizeof result.message - 1] = '\0';
    } else {
      snprintf(result.message, sizeof result.message, "the HEIF reader stopped");
    }
  } else {
    snprintf(result.message, sizeof result.message, "cannot read the source");
  }
  const bool readable = result.width != 0 && result.height != 0;
  switch (answer.outcome) {
    case KOVATHUMB_HEIF_ACCEPTED:
    case KOVATHUMB_HEIF_REJECTED: {
      if (answer.outcome == KOVATHUMB_HEIF_REJECTED && !(quality_ && readable)) break;
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
