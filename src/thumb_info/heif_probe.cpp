// HEIF/HEIC sources, which the metadata reader does not read. A file counts
// as HEIC only when its primary image's first metadata block is Exif. The
// libheif work is done by a module loaded on the first HEIF source.
#include <dlfcn.h>

#include <mutex>
#include <string>

#include "kovathumb/thumb_info.h"
#include "thumb_info/heif_module.h"
#include "util/log.h"

namespace kovathumb {

namespace {

constexpr char kModuleName[] = "libkovathumb_heif.so";

std::string DirOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

// The module in our versioned directory beside the object that holds this
// code (the installed library, wherever the tree was moved), else where the
// install or the build put it.
KovathumbHeifProbeFn LoadProbe(std::string* error) {
  std::vector<std::string> candidates;
  Dl_info self;
  if (dladdr(reinterpret_cast<void*>(&LoadProbe), &self) != 0 && self.dli_fname != nullptr) {
    candidates.push_back(DirOf(self.dli_fname) + "/" KOVATHUMB_MODULE_SUBDIR "/" + kModuleName);
  }
  candidates.push_back(std::string(KOVATHUMB_HEIF_MODULE_INSTALLED) + "/" + kModuleName);
  candidates.push_back(std::string(KOVATHUMB_HEIF_MODULE_BUILT) + "/" + kModuleName);
  for (const std::string& path : candidates) {
    if (void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
      return reinterpret_cast<KovathumbHeifProbeFn>(dlsym(module, "kovathumb_heif_probe"));
    }
    const char* why = dlerror();
    *error = why != nullptr ? why : path;
  }
  return nullptr;
}

}  // namespace

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
  switch (probe(path_.c_str(), &result)) {
    case KOVATHUMB_HEIF_ACCEPTED:
      width_ = result.width;
      height_ = result.height;
      rotate_ = rotateFlopMappingList_.front().first;
      flop_ = rotateFlopMappingList_.front().second;
      heic_ = true;
      break;
    case KOVATHUMB_HEIF_ERROR:
      KT_LOG("%s, heif error: code = %d, subcode = %d, %s", path_.c_str(), result.code, result.subcode,
             result.message);
      break;
    case KOVATHUMB_HEIF_RUNTIME_ERROR:
      KT_LOG("runtime error: %s", result.message);
      break;
    default:
      break;
  }
}

}  // namespace kovathumb
