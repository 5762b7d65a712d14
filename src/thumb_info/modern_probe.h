// The photo types quality mode reads beyond the metadata reader's: told by
// their first bytes, sized by their decoder library's header-only look.
#ifndef KOVATHUMB_THUMB_INFO_MODERN_PROBE_H_
#define KOVATHUMB_THUMB_INFO_MODERN_PROBE_H_

#include <cstddef>
#include <cstdint>

namespace kovathumb {
namespace internal {

enum class ModernKind { kNone, kAvif, kHeif, kJxl, kCr3 };

// What the first bytes of a file (at least 12 for an answer) say it is.
ModernKind SniffModern(const uint8_t* head, size_t size);

// The MIME type quality mode names a kind by; null for kNone.
const char* ModernMime(ModernKind kind);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_INFO_MODERN_PROBE_H_
