// Quality mode in one process: every size of one source from one decode,
// each made from the next larger and written once as a JPEG (a PNG, with
// its alpha, for PNG sources), all inside one sandboxed child. Root plans
// the sizes, the child decodes, scales, turns and encodes into a private
// work directory, and root checks each file it names before storing it.
#ifndef KOVATHUMB_QUALITY_PIPELINE_H_
#define KOVATHUMB_QUALITY_PIPELINE_H_

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kovathumb/thumb_const.h"
#include "kovathumb/thumb_info.h"
#include "libkovathumb/quality.h"
#include "sandbox/sandbox.h"

namespace kovathumb {
namespace internal {

// One size as the source lies (before turning): scaled to `scaled`, then
// its centre `cut` kept; `upright` is the stored picture's size.
struct ThumbPlan {
  ThumbDimension scaled{0, 0};
  ThumbDimension cut{0, 0};
  ThumbDimension upright{0, 0};
};
// A `w` x `h` source (as stored) turned by `turns` quarter turns, into
// `box`: fitted, never enlarged; with `crop`, filling the box exactly.
ThumbPlan PlanThumb(uint32_t w, uint32_t h, int turns, ThumbDimension box, bool crop);

// How a thumbnail of `w` x `h` is encoded.
struct JpegParams {
  int quality = 84;
  bool fullChroma = false;  // 4:4:4; else 4:2:0
};
JpegParams JpegParamsFor(uint32_t w, uint32_t h);

// Bounds of the child making thumbnails of a source of `pixels` pixels.
sandbox::Limits PipelineLimits(uint64_t pixels);

// Whether the pipeline makes thumbnails of a source of type `mime`: a
// decoder for it, and colours it can convert (`jpeg`: what its markers say,
// for JPEGs).
bool PipelineTakes(const std::string& mime, const JpegFacts& jpeg);
// The same for a source whose size the probe read: its markers need no
// walk of their own, since every colour a JPEG may carry is converted.
bool PipelineTakesProbed(const std::string& mime);

struct PipelineSource {
  int fd = -1;  // the pinned source
  std::string mime;
  uint32_t width = 0;  // as probed, before turning
  uint32_t height = 0;
  int rotate = 0;  // as QualityInput
  bool flop = false;
  int userRotate = 0;
  // kMimePng: PNGs that keep the source's alpha (a PNG source's thumbnails).
  std::string outMime = kMimeJpeg;
};

struct PipelineSize {
  std::string file;  // its name in the work directory
  ThumbPlan plan;
  bool made = false;  // set when the file is there, checked
};

// Makes every size of `sizes` (largest first, each from the one before) in
// the private directory open at `workDir`; marks those made after checking
// each is a whole file of the type asked and of its planned size. False
// with `why` when none was.
bool RunPipeline(const PipelineSource& source, std::vector<PipelineSize>* sizes, int workDir,
                 std::string* why);

// The child's part, for benchmarks and tests: decodes, scales and encodes
// `sizes` into `workDir`, writing one line "name width height bytes" per
// file to `reply`. Returns 0 when all were written.
int MakeSizes(const PipelineSource& source, const std::vector<PipelineSize>& sizes, int workDir, int reply);

// A new file `name` in the directory open at `dir`, made exclusively and
// never through a link; null (with `why`) when it cannot be.
FILE* CreateEncoded(int dir, const std::string& name, std::string* why);
// Writes `pixels` as the JPEG `name`, created in the directory open at `dir`.
bool EncodeJpeg(const Pixels& pixels, const JpegParams& params, int dir, const std::string& name,
                uint64_t* bytes, std::string* why);
// The same as a PNG: RGB, or RGBA with straight alpha.
bool EncodePng(const Pixels& pixels, int dir, const std::string& name, uint64_t* bytes, std::string* why);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_PIPELINE_H_
