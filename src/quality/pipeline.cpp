#include "quality/pipeline.h"

#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <sstream>
#include <utility>

#include "kovathumb/thumb_const.h"
#include "libkovathumb/store_rules.h"
#include "quality/colour.h"
#include "quality/decoders.h"
#include "quality/resample.h"
#include "store/image_facts.h"
#include "thumb_info/decisions.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace internal {

namespace {

// ToSrgb8 converts ICC-profiled and CMYK JPEGs too.
constexpr bool kProfilesInProcess = true;

// What one child may answer: a line per size.
constexpr size_t kMaxReply = 64 * 1024;
// No thumbnail of ours comes near this.
constexpr off_t kMaxThumbBytes = 32 << 20;

ThumbDimension Swapped(ThumbDimension d) { return {d.height, d.width}; }

void WriteAll(int fd, const std::string& s) {
  size_t done = 0;
  while (done < s.size()) {
    const ssize_t n = write(fd, s.data() + done, s.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Largest first: each size is scaled from the one before.
std::vector<size_t> LargestFirst(const std::vector<PipelineSize>& sizes) {
  std::vector<size_t> order(sizes.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    const ThumbDimension& x = sizes[a].plan.scaled;
    const ThumbDimension& y = sizes[b].plan.scaled;
    return uint64_t{x.width} * x.height > uint64_t{y.width} * y.height;
  });
  return order;
}

// Whether the file the child named is a whole file of the type asked and
// of the planned size.
bool CheckMade(int workDir, const PipelineSize& size, const std::string& mime, uint64_t bytes) {
  struct stat64 st;
  safe_fs::Fd fd = safe_fs::OpenRegularAt(workDir, size.file, &st);
  if (!fd.valid() || st.st_size <= 0 || st.st_size > kMaxThumbBytes || static_cast<uint64_t>(st.st_size) != bytes) {
    return false;
  }
  std::string head(kProbeBytes, '\0'), tail(kProbeBytes, '\0');
  const off_t tailAt = std::max<off_t>(0, st.st_size - static_cast<off_t>(kProbeBytes));
  const ssize_t h = safe_fs::ReadAt(fd.get(), &head[0], head.size(), 0);
  const ssize_t t = safe_fs::ReadAt(fd.get(), &tail[0], tail.size(), tailAt);
  if (h <= 0 || t <= 0) return false;
  head.resize(static_cast<size_t>(h));
  tail.resize(static_cast<size_t>(t));
  if (!IsStorableImage(head, tail, st.st_size, mime)) return false;
  if (mime != kMimeJpeg) {
    const store::ImageFacts facts = store::ReadImageFacts(fd.get());
    return facts.mime == mime && facts.width == size.plan.upright.width && facts.height == size.plan.upright.height;
  }
  const JpegFacts facts = ScanJpegFd(fd.get());
  return facts.ok && facts.components == 3 && facts.width == size.plan.upright.width &&
         facts.height == size.plan.upright.height;
}

}  // namespace

ThumbPlan PlanThumb(uint32_t w, uint32_t h, int turns, ThumbDimension box, bool crop) {
  const bool odd = turns & 1;
  const ThumbDimension sensorBox = odd ? Swapped(box) : box;
  ThumbPlan p;
  if (!crop || w == 0 || h == 0) {
    p.scaled = FitInBox(w, h, sensorBox);
    p.cut = p.scaled;
  } else {
    // Filling the box, the longer side overhangs and is cut in the middle.
    const auto side = [](uint64_t a, uint32_t b, uint32_t c) {
      return static_cast<uint32_t>(std::max<long>(1, std::lround(static_cast<double>(a) * b / c)));
    };
    if (uint64_t{w} * sensorBox.height >= uint64_t{h} * sensorBox.width) {
      p.scaled = {std::max(sensorBox.width, side(w, sensorBox.height, h)), sensorBox.height};
    } else {
      p.scaled = {sensorBox.width, std::max(sensorBox.height, side(h, sensorBox.width, w))};
    }
    p.cut = sensorBox;
  }
  p.upright = odd ? Swapped(p.cut) : p.cut;
  return p;
}

sandbox::Limits PipelineLimits(uint64_t pixels) {
  pixels = std::min<uint64_t>(pixels, DecodeRequest().maxPixels);
  sandbox::Limits l;
  // About a second per 8 MP on a slow CPU, with room for a loaded machine.
  l.cpuSeconds = static_cast<unsigned>(10 + pixels / (2u << 20));
  l.wallSeconds = l.cpuSeconds * 2;
  // The process as forked, the decoder's work memory (a progressive JPEG
  // keeps every coefficient: up to 8 bytes a pixel) and the samples decoded
  // (at most the whole picture, 4 bytes a pixel).
  l.addressSpace = (uint64_t{768} << 20) + (uint64_t{64} << 20) + pixels * 12;
  return l;
}

bool PipelineTakesProbed(const std::string& mime) {
  return DecoderFor(mime) != nullptr && (mime != kMimeJpeg || kProfilesInProcess);
}

bool PipelineTakes(const std::string& mime, const JpegFacts& jpeg) {
  if (DecoderFor(mime) == nullptr) return false;
  if (mime != kMimeJpeg) return true;
  return jpeg.ok && (kProfilesInProcess || (!jpeg.icc && jpeg.components != 4));
}

int MakeSizes(const PipelineSource& source, const std::vector<PipelineSize>& sizes, int workDir, int reply) {
  const DecodeFn decode = DecoderFor(source.mime);
  if (decode == nullptr || sizes.empty()) return 2;
  const std::vector<size_t> order = LargestFirst(sizes);
  DecodeRequest request;
  request.need = sizes[order[0]].plan.scaled;
  Image image;
  Pixels pixels;
  std::string why;
  const bool png = source.outMime == kMimePng;
  if (!decode(source.fd, request, &image, &why) || !ToSrgb8(std::move(image), &pixels, &why, png)) {
    WriteAll(reply, "error " + why + "\n");
    return 1;
  }
  Premultiply(&pixels);  // RGBA is scaled premultiplied, from size to size
  const bool turn = TurnSum(source.rotate, source.userRotate) % 4 != 0 || source.flop;
  for (size_t n = 0; n < order.size(); ++n) {
    const size_t i = order[n];
    const ThumbPlan& plan = sizes[i].plan;
    // A raw whose main image is lost decodes to its largest preview: the
    // sizes it does not cover are not made, never enlarged.
    if (plan.scaled.width > pixels.width || plan.scaled.height > pixels.height) continue;
    Pixels scaled = Resize(pixels, plan.scaled.width, plan.scaled.height);
    // The source's pages go back before the encoder takes its own; a size
    // that needs no change of its pixels is encoded as scaled, uncopied.
    if (n + 1 == order.size()) std::vector<unsigned char>().swap(pixels.rgb);
    const bool asScaled = plan.cut.width == scaled.width && plan.cut.height == scaled.height && !turn &&
                          scaled.channels != 4;
    Pixels changed;
    if (!asScaled) {
      changed = CropCentre(scaled, plan.cut.width, plan.cut.height);
      if (turn) changed = Orient(changed, source.rotate, source.flop, source.userRotate);
      Unpremultiply(&changed);
    }
    const Pixels& out = asScaled ? scaled : changed;
    uint64_t bytes = 0;
    const bool encoded = png ? EncodePng(out, workDir, sizes[i].file, &bytes, &why)
                             : EncodeJpeg(out, JpegParamsFor(out.width, out.height), workDir, sizes[i].file, &bytes, &why);
    if (!encoded) {
      WriteAll(reply, "error " + why + "\n");
      return 1;
    }
    WriteAll(reply, sizes[i].file + " " + std::to_string(out.width) + " " + std::to_string(out.height) + " " +
                        std::to_string(bytes) + "\n");
    pixels = std::move(scaled);
  }
  return 0;
}

bool RunPipeline(const PipelineSource& source, std::vector<PipelineSize>* sizes, int workDir, std::string* why) {
  for (PipelineSize& s : *sizes) s.made = false;
  if (sizes->empty() || source.fd < 0 || workDir < 0) return false;
  sandbox::Spec spec;
  spec.keep = {source.fd, workDir};
  spec.writable = {workDir};  // the body runs as the sandbox account
  spec.opensNothing = true;   // its decoders are loaded already
  spec.limits = PipelineLimits(uint64_t{source.width} * source.height);
  std::string reply;
  int status = -1;
  const sandbox::Outcome outcome = sandbox::Run(
      spec,
      [&](int replyFd) {
        // Pictures come from the heap and stay there when freed: the encoder
        // reuses the decoder's pages rather than faulting in fresh ones.
        mallopt(M_MMAP_THRESHOLD, 32 << 20);
        mallopt(M_TRIM_THRESHOLD, 256 << 20);
        return MakeSizes(source, *sizes, workDir, replyFd);
      },
      &reply, kMaxReply, &status);
  // Whatever the child says is checked against what was asked.
  std::istringstream lines(reply);
  std::string line;
  bool any = false;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string name;
    uint32_t w = 0, h = 0;
    uint64_t bytes = 0;
    if (!(fields >> name >> w >> h >> bytes)) continue;
    for (PipelineSize& s : *sizes) {
      if (!s.made && s.file == name && s.plan.upright.width == w && s.plan.upright.height == h) {
        s.made = CheckMade(workDir, s, source.outMime, bytes);
        any = any || s.made;
      }
    }
  }
  if (why != nullptr && !any) {
    if (outcome == sandbox::kTimedOut) {
      *why = "timed out";
    } else if (outcome != sandbox::kExited) {
      *why = "decoder ended abnormally";
    } else {
      *why = reply.compare(0, 6, "error ") == 0 ? reply.substr(6, reply.find('\n') - 6) : "nothing made";
      // The child's words go to the log: printable and short.
      for (char& c : *why) c = c >= ' ' && c <= '~' ? c : '?';
      if (why->size() > 200) why->resize(200);
    }
  }
  return any;
}

}  // namespace internal
}  // namespace kovathumb
