// Fuzzes quality mode's in-process JPEG path (built as png_fuzzer with
// KOVATHUMB_FUZZ_PNG: the PNG path, alpha kept): arbitrary bytes decoded at
// the scale a leading size byte asks for, then reduced and encoded as the
// pipeline's child does, here in the fuzzer's own process.
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "quality/colour.h"
#include "quality/decoders.h"
#include "quality/pipeline.h"
#include "quality/resample.h"
#include "support/test_util.h"

using namespace kovathumb;
using namespace kovathumb::internal;

namespace {

#ifdef KOVATHUMB_FUZZ_PNG
constexpr bool kPng = true;
#else
constexpr bool kPng = false;
#endif

// Under scripts/fuzz.sh's private TMPDIR; removed at exit.
const std::string& Dir() {
  static const kovathumb::test::TempDir dir;
  return dir.path();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const std::string path = Dir() + "/src";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) abort();
  if (size > 1 && write(fd, data + 1, size - 1) != static_cast<ssize_t>(size - 1)) abort();
  DecodeRequest request;
  request.need = {static_cast<uint32_t>(data[0] % 64) * 8, static_cast<uint32_t>(data[0] / 64) * 40};
  request.maxPixels = 16u << 20;  // the fuzzer's memory, not the pipeline's bound
  Image image;
  Pixels pixels;
  std::string why;
  if ((kPng ? DecodePng : DecodeJpeg)(fd, request, &image, &why) && ToSrgb8(std::move(image), &pixels, &why, kPng)) {
    Premultiply(&pixels);
    const ThumbPlan plan = PlanThumb(pixels.width, pixels.height, data[0] & 3, {120, 120}, data[0] & 4);
    Pixels out = CropCentre(Resize(pixels, plan.scaled.width, plan.scaled.height), plan.cut.width, plan.cut.height);
    out = Orient(out, data[0] & 3, data[0] & 8, 0);
    Unpremultiply(&out);
    const int dir = open(Dir().c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    uint64_t bytes = 0;
    unlinkat(dir, "out", 0);
    if (!(kPng ? EncodePng(out, dir, "out", &bytes, &why)
               : EncodeJpeg(out, JpegParamsFor(out.width, out.height), dir, "out", &bytes, &why))) {
      abort();
    }
    close(dir);
  }
  close(fd);
  return 0;
}
