// The decoders and probes whose libraries (libheif and its codecs, libjxl,
// LibRaw) are loaded only when a source needs them: they live in the module
// libkovathumb_formats.so, which costs nothing to a process that never
// meets such a file. Both sides are built together from this tree.
#ifndef KOVATHUMB_QUALITY_FORMATS_MODULE_H_
#define KOVATHUMB_QUALITY_FORMATS_MODULE_H_

#include <cstdint>
#include <string>

#include "quality/image.h"

extern "C" {

// What a header-only look at a JPEG XL or raw file says.
struct KovathumbModernFacts {
  uint32_t width;  // as stored, before `orientation`
  uint32_t height;
  int orientation;  // EXIF 1-8
  char message[256];  // why not, when the probe answers false
};

// Exported by the module; the decoders are internal::DecodeFn's.
bool kovathumb_probe_jxl(int fd, KovathumbModernFacts* facts);
bool kovathumb_probe_raw(int fd, KovathumbModernFacts* facts);
bool kovathumb_decode_heif(int fd, const kovathumb::internal::DecodeRequest& request,
                           kovathumb::internal::Image* out, std::string* why);
bool kovathumb_decode_jxl(int fd, const kovathumb::internal::DecodeRequest& request,
                          kovathumb::internal::Image* out, std::string* why);
bool kovathumb_decode_raw(int fd, const kovathumb::internal::DecodeRequest& request,
                          kovathumb::internal::Image* out, std::string* why);
}

#endif  // KOVATHUMB_QUALITY_FORMATS_MODULE_H_
