#include "quality/decoders.h"

#include <cstring>

namespace kovathumb {
namespace internal {

namespace {

struct Row {
  const char* mime;
  DecodeFn decode;
};

// One row per type; filled as the decoders arrive.
const Row kDecoders[] = {
    {"image/jpeg", DecodeJpeg},
};

}  // namespace

DecodeFn DecoderFor(const std::string& mime) {
  for (const Row& r : kDecoders) {
    if (r.decode != nullptr && mime == r.mime) return r.decode;
  }
  return nullptr;
}

}  // namespace internal
}  // namespace kovathumb
