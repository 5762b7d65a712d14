#include "libkovathumb/quality_tools.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kovaplatform/kovaplatform.h"
#include "convert_cmd/tool_files.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/thumb_const.h"
#include "sandbox/sandbox.h"
#include "thumb_info/decisions.h"

namespace kovathumb {
namespace internal {

JpegFacts ScanJpegApart(int fd) {
  sandbox::Spec spec;
  spec.keep = {fd};
  spec.opensNothing = true;
  spec.limits.wallSeconds = 10;
  spec.limits.cpuSeconds = 10;
  JpegFacts facts;
  sandbox::RunForRecord<JpegFacts>(spec, [fd](JpegFacts* f) { return *f = ScanJpegFd(fd), true; }, &facts);
  return facts;
}

JpegFacts ScanJpegApart(const std::string& path) {
  struct stat64 st;
  safe_fs::Fd file = safe_fs::OpenRegular(path, &st);
  return file.valid() ? ScanJpegApart(file.get()) : JpegFacts();
}

namespace {

constexpr char kSrgbProfile[] = "/usr/share/color/icc/colord/sRGB.icc";
constexpr char kJpegQuality[] = "85";
constexpr char kCjpeg[] = "/usr/bin/cjpeg";
constexpr char kHeifConvert[] = "/usr/bin/heif-convert";
// Larger decoded images go to ImageMagick, which bounds its own memory.
constexpr uint64_t kMaxInProcessPixels = 16u << 20;

bool Run(const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  return sandbox::RunTool(args[0].c_str(), argv.data());
}

std::string Geometry(ThumbDimension d, const char* flag) {
  return std::to_string(d.width) + "x" + std::to_string(d.height) + flag;
}

// A JPEG that is not the pinned source (an embedded preview, a decoded
// HEIF, a larger thumbnail just made) through the pipeline's child: no
// tool process. False leaves it to the tools.
bool PipeJpeg(const QualityInput& in, ThumbDimension box, bool crop, const QualityWorkDir& wd,
              const std::string& outName) {
  safe_fs::Fd fd(open(in.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct stat64 st;
  if (!fd.valid() || fstat64(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  const JpegFacts facts = ScanJpegApart(fd.get());
  if (!PipelineTakes(kMimeJpeg, facts)) return false;
  PipelineSource source;
  source = {fd.get(), kMimeJpeg, facts.width, facts.height, in.rotate, in.flop, in.userRotate};
  std::vector<PipelineSize> sizes = {
      {outName, PlanThumb(facts.width, facts.height, TurnSum(in.rotate, in.userRotate), box, crop), false}};
  std::string why;
  return RunPipeline(source, &sizes, wd.fd(), &why) && sizes[0].made;
}

}  // namespace

bool EncodeQualityJpeg(const Pixels& pixels, const QualityWorkDir& wd, const std::string& outName) {
  const std::string scaled = wd.File("scaled.ppm");
  return WritePpm(scaled, pixels) &&
         Run({kCjpeg, "-quality", kJpegQuality, "-outfile", wd.File(outName), scaled}) && wd.Has(outName);
}

bool MakeQualityThumb(const QualityInput& in, ThumbDimension box, bool crop, const std::string& outMime,
                      const QualityWorkDir& wd, const std::string& outName, Pixels* keep) {
  const bool odd = TurnSum(in.rotate, in.userRotate) & 1;
  const ThumbDimension sensorBox = odd ? ThumbDimension{box.height, box.width} : box;
  const std::string outCoder = CoderFor(outMime);
  const bool gif = outCoder == "gif";
  if (in.coder == "jpeg" && outCoder == "jpeg" && PipeJpeg(in, box, crop, wd, outName)) return true;
  std::vector<std::string> args = {ThumbConvertCmd::kConvert};

  // A plain JPEG: djpeg decodes at the least eighth that still covers the
  // box, much faster than ImageMagick's reader at the same scale.
  JpegFacts facts;
  if (in.coder == "jpeg") facts = ScanJpegApart(in.path);
  const bool plainJpeg = facts.ok && facts.components != 4 && !facts.icc && !gif;
  if (plainJpeg) {
    const ThumbDimension fit = FitInBox(facts.width, facts.height, sensorBox);
    const std::string scale = std::to_string(DjpegEighths(facts.width, facts.height, fit)) + "/8";
    const std::string decoded = wd.File("decoded.ppm");
    if (!Run({ThumbConvertCmd::kDjpeg, "-scale", scale, "-rgb", "-ppm", "-outfile", decoded, in.path})) {
      return false;
    }
    // To a JPEG: shrink and turn here and let cjpeg write it, a fraction of
    // an ImageMagick start.
    Pixels pixels;
    if (outCoder == "jpeg" && !crop && ReadPpm(decoded, kMaxInProcessPixels, &pixels)) {
      pixels = Orient(Shrink(pixels, fit.width, fit.height), in.rotate, in.flop, in.userRotate);
      if (keep != nullptr) *keep = pixels;
      return EncodeQualityJpeg(pixels, wd, outName);
    }
    args.push_back("ppm:" + decoded);
  } else {
    if (in.coder.empty()) return false;
    // Shrink while loading: the reader picks the least JPEG scale covering it.
    if (in.coder == "jpeg") {
      args.insert(args.end(), {"-define", "jpeg:size=" + Geometry(sensorBox, "")});
    }
    args.push_back(in.coder + ":" + in.path + (gif ? "" : "[0]"));
    if (gif) args.push_back("-coalesce");
  }
  if (crop) {
    args.insert(args.end(), {"-thumbnail", Geometry(sensorBox, "^"), "-gravity", "center",
                             "-extent", Geometry(sensorBox, "")});
  } else {
    args.insert(args.end(), {"-thumbnail", Geometry(sensorBox, ">")});
  }
  // A profile converts from the embedded one; a CMYK file without one
  // still needs its colour space changed.
  if (!plainJpeg) args.insert(args.end(), {"-profile", kSrgbProfile, "-colorspace", "sRGB"});
  if ((in.rotate & 3) != 0) args.insert(args.end(), {"-rotate", std::to_string((in.rotate & 3) * 90)});
  if (in.flop) args.push_back("-flop");
  if ((in.userRotate & 3) != 0) {
    args.insert(args.end(), {"-rotate", std::to_string((in.userRotate & 3) * 90)});
  }
  args.push_back("-strip");
  if (gif) {
    args.insert(args.end(), {"-layers", "Optimize"});
  } else if (outCoder == "jpeg") {
    args.insert(args.end(), {"-quality", kJpegQuality});
  }
  args.push_back(outCoder + ":" + wd.File(outName));
  return Run(args) && wd.Has(outName);
}

bool ExtractRawPreview(const std::string& source, const QualityWorkDir& wd, const std::string& name) {
  const char* argv[] = {"dcraw", "-c", "-e", source.c_str(), nullptr};
  const int out = CreateExclusive(wd.File(name));
  if (out < 0) return false;
  const bool ok = sandbox::RunTool(ThumbConvertCmd::kDcraw.c_str(), argv, out);
  return close(out) == 0 && ok;
}

bool DecodeHeif(const std::string& source, const QualityWorkDir& wd, const std::string& name) {
  // libheif's own tool decodes in a third of ImageMagick's time.
  return Run({kHeifConvert, "-q", "90", source, wd.File(name)}) && wd.Has(name);
}

}  // namespace internal
}  // namespace kovathumb
