// Fuzzes one of quality mode's decoders (KOVATHUMB_FUZZ_MIME picks it),
// then the colour conversion of what it decoded, in process. The first
// byte picks the size asked for; the rest is the file.
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "quality/colour.h"
#include "quality/decoders.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kovathumb::internal;
  static const DecodeFn decode = DecoderFor(KOVATHUMB_FUZZ_MIME);
  if (decode == nullptr) abort();  // the module is missing: nothing would be fuzzed
  if (size < 1) return 0;
  // LibRaw 0.20's TIFF parser reads wild addresses on 65-byte files within a
  // minute of fuzzing: not ours to fix, and its child holds it. The raw
  // harness fuzzes our own CR3 reader and preview decoding, which never hand
  // a CR3 to LibRaw; KOVATHUMB_FUZZ_LIBRAW=1 hands it everything.
  static const bool cr3Only =
      strcmp(KOVATHUMB_FUZZ_MIME, "image/x-canon-cr3") == 0 && getenv("KOVATHUMB_FUZZ_LIBRAW") == nullptr;
  if (cr3Only && (size < 13 || memcmp(data + 5, "ftypcrx ", 8) != 0)) return 0;
  const int fd = memfd_create("source", MFD_CLOEXEC);
  if (fd < 0 || write(fd, data + 1, size - 1) != static_cast<ssize_t>(size - 1)) abort();
  DecodeRequest request;
  request.need = data[0] == 0 ? kovathumb::ThumbDimension{0, 0} : kovathumb::ThumbDimension{data[0], data[0]};
  request.maxPixels = uint64_t{16} << 20;  // the fuzzer's memory bound, not the product's
  Image image;
  std::string why;
  if (decode(fd, request, &image, &why)) {
    Pixels pixels;
    ToSrgb8(std::move(image), &pixels, &why);
  }
  close(fd);
  return 0;
}
