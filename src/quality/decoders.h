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

// The decoders linked in, by type.
bool DecodeJpeg(int fd, const DecodeRequest& request, Image* out, std::string* why);
bool DecodeWebp(int fd, const DecodeRequest& request, Image* out, std::string* why);
bool DecodePng(int fd, const DecodeRequest& request, Image* out, std::string* why);

// The decoder for a probed MIME type, or null. Decoders of the heavier
// libraries come from libkovathumb_formats.so, loaded by the first call
// for such a type: call it before the sandbox forks, so that each child
// finds the module loaded.
DecodeFn DecoderFor(const std::string& mime);

// `symbol` of libkovathumb_formats.so (loaded once), or null, logged.
void* FormatsModuleSymbol(const char* symbol);

// The least size of `w` x `h`'s shape whose sides both reach `need`'s
// (`w` x `h` itself when it does not, or nothing is asked).
ThumbDimension ScaledCover(uint32_t w, uint32_t h, ThumbDimension need);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_DECODERS_H_
