// Which in-process decoder reads a source in quality mode. Sources with no
// decoder here go to the tools.
#ifndef KOVATHUMB_QUALITY_DECODERS_H_
#define KOVATHUMB_QUALITY_DECODERS_H_

#include <string>

#include "quality/image.h"

namespace kovathumb {
namespace internal {

// Decodes the source open at `fd` (read from its start, whatever its
// offset); false with `why` when it cannot. Runs only inside the sandbox.
using DecodeFn = bool (*)(int fd, const DecodeRequest& request, Image* out, std::string* why);

// The decoders, by type.
bool DecodeJpeg(int fd, const DecodeRequest& request, Image* out, std::string* why);

// The decoder for a probed MIME type, or null.
DecodeFn DecoderFor(const std::string& mime);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_DECODERS_H_
