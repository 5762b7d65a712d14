#include "quality/decoders.h"

#include <atomic>
#include <cstring>

#include "quality/formats_module.h"
#include "util/log.h"
#include "util/modules.h"

namespace kovathumb {
namespace internal {

namespace {

struct Row {
  const char* mime;
  DecodeFn decode;       // linked in
  const char* symbol;    // else in libkovathumb_formats.so
  std::atomic<void*>* loaded;
};

std::atomic<void*> heif{nullptr}, jxl{nullptr}, raw{nullptr};

// One row per type. Raws by the names the probe gives them.
const Row kDecoders[] = {
    {"image/jpeg", DecodeJpeg, nullptr, nullptr},
    {"image/webp", DecodeWebp, nullptr, nullptr},
    {"image/png", DecodePng, nullptr, nullptr},
    {"image/avif", nullptr, "kovathumb_decode_heif", &heif},
    {"image/heic", nullptr, "kovathumb_decode_heif", &heif},
    {"image/heif", nullptr, "kovathumb_decode_heif", &heif},
    {"image/jxl", nullptr, "kovathumb_decode_jxl", &jxl},
    {"image/x-canon-cr3", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-canon-cr2", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-canon-crw", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-nikon-nef", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-sony-arw", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-fuji-raf", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-olympus-orf", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-panasonic-rw2", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-pentax-pef", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-samsung-srw", nullptr, "kovathumb_decode_raw", &raw},
    {"image/x-minolta-mrw", nullptr, "kovathumb_decode_raw", &raw},
};

}  // namespace

void* FormatsModuleSymbol(const char* symbol) {
  std::string error;
  void* found = ModuleSymbol("libkovathumb_formats.so", symbol, &error);
  if (found == nullptr) KT_LOG("runtime error: %s", ("no decoder module: " + error).c_str());
  return found;
}

DecodeFn DecoderFor(const std::string& mime) {
  for (const Row& r : kDecoders) {
    if (mime != r.mime) continue;
    if (r.decode != nullptr) return r.decode;
    // No lock: a racing second load finds the module loaded already.
    void* f = r.loaded->load();
    if (f == nullptr) r.loaded->store(f = FormatsModuleSymbol(r.symbol));
    return reinterpret_cast<DecodeFn>(f);
  }
  return nullptr;
}

}  // namespace internal
}  // namespace kovathumb
