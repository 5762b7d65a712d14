// What a file's own bytes say it is: its type by magic, a JPEG's frame
// header, a stored thumbnail's type and size. Read through descriptors;
// the decisions on the bytes are plain functions.
#ifndef KOVATHUMB_STORE_IMAGE_FACTS_H_
#define KOVATHUMB_STORE_IMAGE_FACTS_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace kovathumb {
namespace internal {

// What the markers of a JPEG stream before its scan say.
struct JpegFacts {
  bool ok = false;  // a start-of-frame was found
  uint32_t width = 0;
  uint32_t height = 0;
  int components = 0;  // 4: CMYK or YCCK
  bool icc = false;    // an embedded colour profile
};
JpegFacts ScanJpeg(const unsigned char* data, size_t size);
// The same from the first bytes of a file; not ok when it cannot be read.
JpegFacts ScanJpegFile(const std::string& path);
// The same from the start of the file open at `fd`, wherever its offset is.
JpegFacts ScanJpegFd(int fd);

}  // namespace internal

namespace store {

// The type the first bytes `head` of a file say, by magic: "jpeg", "png",
// "gif", "bmp", "tiff", "ppm" (also grey), "heic", or "" for anything else.
std::string SniffType(const std::string& head);

// A picture's type (a media type as the probe names it, "" when not one
// of ours) and pixel size (0 x 0 when its header does not say).
struct ImageFacts {
  std::string mime;
  uint32_t width = 0;
  uint32_t height = 0;
};
// From the file open at `fd`.
ImageFacts ReadImageFacts(int fd);

}  // namespace store
}  // namespace kovathumb

#endif  // KOVATHUMB_STORE_IMAGE_FACTS_H_
