// Quality mode's probe of the types the metadata reader does not know:
// AVIF and HEIF by content (libheif's look, through the HEIF probe), JPEG XL
// and CR3 by the formats module's header-only look.
#include "thumb_info/modern_probe.h"

#include <stdio.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "kovaplatform/kovaplatform.h"
#include "kovathumb/thumb_info.h"
#include "quality/decoders.h"
#include "quality/formats_module.h"
#include "sandbox/sandbox.h"
#include "util/log.h"

namespace kovathumb {
namespace internal {

ModernKind SniffModern(const uint8_t* h, size_t n) {
  static const uint8_t kJxlBox[12] = {0, 0, 0, 12, 'J', 'X', 'L', ' ', 0x0D, 0x0A, 0x87, 0x0A};
  if (n >= 2 && h[0] == 0xFF && h[1] == 0x0A) return ModernKind::kJxl;
  if (n >= 12 && memcmp(h, kJxlBox, 12) == 0) return ModernKind::kJxl;
  if (n < 16 || memcmp(h + 4, "ftyp", 4) != 0) return ModernKind::kNone;
  const size_t box = std::min<size_t>(n, (uint32_t{h[0]} << 24) | (uint32_t{h[1]} << 16) | (uint32_t{h[2]} << 8) | h[3]);
  // The major brand, then the compatible ones after the minor version.
  auto brand = [&](const char* b) {
    for (size_t at = 8; at + 4 <= box; at += at == 8 ? 8 : 4) {
      if (memcmp(h + at, b, 4) == 0) return true;
    }
    return false;
  };
  if (memcmp(h + 8, "crx ", 4) == 0) return ModernKind::kCr3;
  if (brand("avif") || brand("avis")) return ModernKind::kAvif;
  for (const char* b : {"heic", "heix", "heim", "heis", "mif1", "msf1"}) {
    if (brand(b)) return ModernKind::kHeif;
  }
  return ModernKind::kNone;
}

const char* ModernMime(ModernKind kind) {
  switch (kind) {
    case ModernKind::kAvif: return "image/avif";
    case ModernKind::kHeif: return "image/heic";
    case ModernKind::kJxl: return "image/jxl";
    case ModernKind::kCr3: return "image/x-canon-cr3";
    case ModernKind::kNone: break;
  }
  return nullptr;
}

}  // namespace internal

bool ThumbInfo::ProbeModern(bool readFacts) {
  if (!quality_ || !sourceFd_) return false;
  uint8_t head[64] = {};
  const ssize_t got = pread(*sourceFd_, head, sizeof head, 0);
  const internal::ModernKind kind = internal::SniffModern(head, got > 0 ? static_cast<size_t>(got) : 0);
  if (kind == internal::ModernKind::kNone) return false;
  // Reading the preview alone: these types have none beyond what the
  // decoder reads, and their facts stand.
  if (!readFacts) return IsGood() && mimeType_ == internal::ModernMime(kind);
  if (kind == internal::ModernKind::kAvif || kind == internal::ModernKind::kHeif) {
    CheckAndGetHeif();
    if (heic_) mimeType_ = internal::ModernMime(kind);
    return heic_;
  }
  // The module is loaded here, where its files are; its header walk reads
  // the source in a sandboxed child, whose answer is a fixed-size record.
  using Probe = bool (*)(int, KovathumbModernFacts*);
  const Probe probe = reinterpret_cast<Probe>(internal::FormatsModuleSymbol(
      kind == internal::ModernKind::kJxl ? "kovathumb_probe_jxl" : "kovathumb_probe_raw"));
  if (probe == nullptr) return false;
  const int source = *sourceFd_;
  sandbox::Spec spec;
  spec.keep = {source};
  spec.opensNothing = true;
  spec.limits.wallSeconds = 20;
  spec.limits.cpuSeconds = 20;
  spec.limits.addressSpace = KOVA_CHILD_ADDRESS_SPACE;
  struct Answer {
    int ok;
    KovathumbModernFacts facts;
  } answer{};
  if (sandbox::RunForRecord<Answer>(spec, [&](Answer* a) { return a->ok = probe(source, &a->facts), true; },
                                    &answer)) {
    answer.facts.message[sizeof answer.facts.message - 1] = '\0';
  } else {
    snprintf(answer.facts.message, sizeof answer.facts.message, "the reader stopped");
  }
  const KovathumbModernFacts& facts = answer.facts;
  if (answer.ok != 1) {
    KT_LOG("%s: %s", path_.c_str(), facts.message);
    return false;
  }
  mimeType_ = internal::ModernMime(kind);
  width_ = facts.width;
  height_ = facts.height;
  const size_t index = facts.orientation >= 1 && facts.orientation <= 8 ? static_cast<size_t>(facts.orientation - 1) : 0;
  rotate_ = rotateFlopMappingList_[index].first;
  flop_ = rotateFlopMappingList_[index].second;
  good_ = true;
  return true;
}

}  // namespace kovathumb
