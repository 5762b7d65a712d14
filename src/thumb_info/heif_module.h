// The HEIF probe lives in a module of its own (libkovathumb_heif.so) that
// is loaded on the first HEIF source: libheif and its codec libraries cost
// every process that links them milliseconds at start-up, and most requests
// never see a HEIF file.
#ifndef KOVATHUMB_THUMB_INFO_HEIF_MODULE_H_
#define KOVATHUMB_THUMB_INFO_HEIF_MODULE_H_

#include <stddef.h>
#include <stdint.h>

extern "C" {

// Results of kovathumb_heif_probe.
enum {
  KOVATHUMB_HEIF_ACCEPTED = 1,       // first metadata block is Exif; result set
  KOVATHUMB_HEIF_REJECTED = 0,       // no metadata, or another block first; result set
  KOVATHUMB_HEIF_ERROR = -1,         // libheif error: code, subcode, message set
  KOVATHUMB_HEIF_RUNTIME_ERROR = -2  // other run-time error: message set
};

struct KovathumbHeifResult {
  uint32_t width;   // as decoded, libheif's rotation and mirroring applied
  uint32_t height;
  uint32_t ispeWidth;  // as stored
  uint32_t ispeHeight;
  int exifOrientation;  // of the first Exif block, 0 when none or unreadable
  int code;
  int subcode;
  char message[512];
};

typedef int (*KovathumbHeifProbeFn)(const char* path, KovathumbHeifResult* result);

// Exported by the module.
int kovathumb_heif_probe(const char* path, KovathumbHeifResult* result);

}  // extern "C"

#endif  // KOVATHUMB_THUMB_INFO_HEIF_MODULE_H_
