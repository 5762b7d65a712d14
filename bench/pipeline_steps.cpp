// kovathumb_pipeline_steps: CPU time of each step of quality mode's
// in-process pipeline on one JPEG or PNG (decode at the scale the largest
// size needs, each reduction, each encode: PNGs with their alpha), over
// repeated runs, as one JSON line.
//
//   kovathumb_pipeline_steps FILE [RUNS]
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "quality/colour.h"
#include "quality/decoders.h"
#include "quality/pipeline.h"
#include "quality/resample.h"
#include "store/image_facts.h"

using namespace kovathumb;
using namespace kovathumb::internal;

namespace {
double CpuMs() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: kovathumb_pipeline_steps FILE [RUNS]\n");
    return 2;
  }
  const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
  const int fd = open(argv[1], O_RDONLY | O_CLOEXEC);
  char dirTemplate[] = "/tmp/kovathumb_steps_XXXXXX";
  if (fd < 0 || mkdtemp(dirTemplate) == nullptr) return 1;
  const int dir = open(dirTemplate, O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  const ThumbDimension boxes[] = {{1280, 1280}, {640, 640}, {360, 360}, {120, 120}};
  double decode = 0, resize = 0, encode = 0;
  uint32_t dw = 0, dh = 0;
  const store::ImageFacts facts = store::ReadImageFacts(fd);
  const bool png = facts.mime == kMimePng;
  const uint32_t w = facts.width, h = facts.height;
  for (int r = 0; r < runs; ++r) {
    std::string why;
    DecodeRequest req;
    req.need = PlanThumb(w, h, 0, boxes[0], false).scaled;
    double t = CpuMs();
    Image full;
    Pixels px;
    if (!(png ? DecodePng : DecodeJpeg)(fd, req, &full, &why) || !ToSrgb8(std::move(full), &px, &why, png)) {
      std::fprintf(stderr, "%s\n", why.c_str());
      return 1;
    }
    Premultiply(&px);
    decode += CpuMs() - t;
    dw = px.width, dh = px.height;
    for (const ThumbDimension& box : boxes) {
      const ThumbPlan plan = PlanThumb(w, h, 0, box, false);
      t = CpuMs();
      px = Resize(px, plan.scaled.width, plan.scaled.height);
      resize += CpuMs() - t;
      t = CpuMs();
      const std::string name = std::to_string(box.width) + (png ? ".png" : ".jpg");
      unlinkat(dir, name.c_str(), 0);
      uint64_t bytes = 0;
      Pixels straight;
      if (png) {
        straight = px;
        Unpremultiply(&straight);
      }
      if (!(png ? EncodePng(straight, dir, name, &bytes, &why)
                : EncodeJpeg(px, JpegParamsFor(px.width, px.height), dir, name, &bytes, &why))) {
        return 1;
      }
      encode += CpuMs() - t;
      unlinkat(dir, name.c_str(), 0);
    }
  }
  rmdir(dirTemplate);
  std::printf("{\"decoded\":\"%ux%u\",\"decode_ms\":%.2f,\"resize_ms\":%.2f,\"encode_ms\":%.2f,\"total_ms\":%.2f}\n", dw,
              dh, decode / runs, resize / runs, encode / runs, (decode + resize + encode) / runs);
  return 0;
}
