// Thumb's quality-mode members: the tools that make a thumbnail of the
// source, of its embedded preview, or of a larger thumbnail just made.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "libkovathumb/log_sites.h"
#include "libkovathumb/pinned.h"
#include "libkovathumb/quality.h"
#include "thumb_info/decisions.h"
#include "util/log.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace {

constexpr char kSrgbProfile[] = "/usr/share/color/icc/colord/sRGB.icc";
constexpr char kJpegQuality[] = "85";
constexpr char kCjpeg[] = "/usr/bin/cjpeg";
constexpr char kHeifConvert[] = "/usr/bin/heif-convert";
// Larger decoded images go to ImageMagick, which bounds its own memory.
constexpr uint64_t kMaxInProcessPixels = 16u << 20;

std::string Geometry(ThumbDimension d, const char* flag) {
  return std::to_string(d.width) + "x" + std::to_string(d.height) + flag;
}

}  // namespace

namespace internal {

// A directory only we can write, for the tools' outputs; removed with its
// files when done. Tools reach it through our descriptor, so renaming it
// or planting links beside it changes nothing.
class QualityWorkDir {
 public:
  // In the EA directory open at `ea`, else (-1) under /var/tmp.
  explicit QualityWorkDir(int ea) {
    if (ea >= 0) {
      dir_.Create(ea, ".kovathumb_q.");
    } else {
      dir_.CreateAt("/var/tmp/kovathumb_q.XXXXXX");
    }
  }
  QualityWorkDir(const QualityWorkDir&) = delete;
  QualityWorkDir& operator=(const QualityWorkDir&) = delete;

  bool ok() const { return dir_.valid(); }
  int fd() const { return dir_.fd(); }
  // A file in the directory, by a path the tools and we can both open.
  std::string File(const std::string& name) const { return dir_.ToolPath(name); }
  bool Has(const std::string& name) const {
    struct stat64 st;
    safe_fs::Fd f = safe_fs::OpenRegularAt(dir_.fd(), name, &st);
    return f.valid() && st.st_size > 0;
  }
  // A second name for `from`, replacing `to`.
  bool Link(const std::string& from, const std::string& to) const {
    unlinkat(dir_.fd(), to.c_str(), 0);
    return linkat(dir_.fd(), from.c_str(), dir_.fd(), to.c_str(), 0) == 0;
  }

 private:
  safe_fs::PrivateDir dir_;
};

// What a thumbnail is made from.
struct QualityInput {
  std::string path;
  std::string coder;  // ImageMagick's reader
  int rotate;         // quarter turns, a mirror, then the user's quarter turns
  bool flop;
  int userRotate;
};

}  // namespace internal

namespace {

using internal::QualityInput;
using WorkDir = internal::QualityWorkDir;

bool Run(const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  return KLIBCExecv(args[0].c_str(), argv.data(), 1) == 0;
}

// Scales `in` into `box`, turns it upright, converts it to sRGB and writes
// `outName` in `wd` as `outMime`.
bool MakeThumb(const QualityInput& in, ThumbDimension box, bool crop, const std::string& outMime,
               const WorkDir& wd, const std::string& outName, internal::Pixels* keep) {
  const bool odd = internal::TurnSum(in.rotate, in.userRotate) & 1;
  const ThumbDimension sensorBox = odd ? ThumbDimension{box.height, box.width} : box;
  const std::string outCoder = internal::CoderFor(outMime);
  const bool gif = outCoder == "gif";
  std::vector<std::string> args = {ThumbConvertCmd::kConvert};

  // A plain JPEG: djpeg decodes at the least eighth that still covers the
  // box, much faster than ImageMagick's reader at the same scale.
  internal::JpegFacts facts;
  if (in.coder == "jpeg") facts = internal::ScanJpegFile(in.path);
  const bool plainJpeg = facts.ok && facts.components != 4 && !facts.icc && !gif;
  if (plainJpeg) {
    const ThumbDimension fit = internal::FitInBox(facts.width, facts.height, sensorBox);
    const std::string scale =
        std::to_string(internal::DjpegEighths(facts.width, facts.height, fit)) + "/8";
    const std::string decoded = wd.File("decoded.ppm");
    if (!Run({ThumbConvertCmd::kDjpeg, "-scale", scale, "-rgb", "-ppm", "-outfile", decoded, in.path})) {
      return false;
    }
    // To a JPEG: shrink and turn here and let cjpeg write it, a fraction of
    // an ImageMagick start.
    internal::Pixels pixels;
    if (outCoder == "jpeg" && !crop && internal::ReadPpm(decoded, kMaxInProcessPixels, &pixels)) {
      pixels = internal::Orient(internal::Shrink(pixels, fit.width, fit.height), in.rotate, in.flop,
                                in.userRotate);
      if (keep != nullptr) *keep = pixels;
      const std::string scaled = wd.File("scaled.ppm");
      return internal::WritePpm(scaled, pixels) &&
             Run({kCjpeg, "-quality", kJpegQuality, "-outfile", wd.File(outName), scaled}) &&
             wd.Has(outName);
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

}  // namespace

// ---- Thumb's quality members ------------------------------------------------------

bool Thumb::QualityStoredOk(const std::string& path) const {
  // A stored file made by the appliance's rules may be a BMP or twice the box.
  const std::string mime = info_.GetOutputMimeType();
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  unsigned char head[32] = {};
  const ssize_t n = read(fd, head, sizeof head);
  close(fd);
  if (n < 24) return false;
  uint32_t w = 0, h = 0;
  if (mime == "image/jpeg") {
    const internal::JpegFacts f = internal::ScanJpegFile(path);
    w = f.ok ? f.width : 0;
    h = f.ok ? f.height : 0;
  } else if (mime == "image/png" && memcmp(head, "\x89PNG", 4) == 0) {
    w = (uint32_t{head[16]} << 24) | (uint32_t{head[17]} << 16) | (uint32_t{head[18]} << 8) | head[19];
    h = (uint32_t{head[20]} << 24) | (uint32_t{head[21]} << 16) | (uint32_t{head[22]} << 8) | head[23];
  } else if (mime == "image/gif" && memcmp(head, "GIF8", 4) == 0) {
    w = head[6] | (uint32_t{head[7]} << 8);
    h = head[8] | (uint32_t{head[9]} << 8);
  }
  const ThumbDimension box = info_.GetDimension();
  return w != 0 && h != 0 && w <= box.width && h <= box.height;
}

bool Thumb::QualityFromPreview() {
  const std::string preview = info_.GetEXIFPreviewTmpPath();
  if (!info_.IsGood() || preview.empty()) return Fail();
  const bool ok = QualityMake(
      {preview, "jpeg", info_.GetRotate(), info_.GetFlop(), info_.GetUserRotate()});
  unlink(preview.c_str());
  return ok;
}

bool Thumb::QualityOnline(const std::string* derived) {
  const int turns = internal::TurnSum(info_.GetRotate(), info_.GetUserRotate());
  if (internal::ServesOriginal(info_.GetMimeType(), info_.GetOutputMimeType(), info_.GetWidth(),
                               info_.GetHeight(), turns, info_.GetFlop(), info_.GetDimension())) {
    outputType_ = kThumbOutputOriginal;
    return Fail();
  }
  if (derived != nullptr && qualityPixels_ != nullptr && qualityWork_ != nullptr) {
    // Its pixels are still here: no decoding at all.
    const ThumbDimension fit =
        internal::FitInBox(qualityPixels_->width, qualityPixels_->height, info_.GetDimension());
    *qualityPixels_ = internal::Shrink(*qualityPixels_, fit.width, fit.height);
    const std::string name = "thumb" + info_.GetOutputExtension();
    const std::string scaled = qualityWork_->File("scaled.ppm");
    if (!internal::WritePpm(scaled, *qualityPixels_) ||
        !Run({kCjpeg, "-quality", kJpegQuality, "-outfile", qualityWork_->File(name), scaled}) ||
        !qualityWork_->Has(name)) {
      return Fail();
    }
    return QualityStore(*qualityWork_, name);
  }
  if (derived != nullptr) {  // a larger thumbnail: already upright and in sRGB
    return QualityMake({*derived, internal::CoderFor(info_.GetOutputMimeType()), 0, false, 0});
  }
  if (!info_.IsGood()) return Fail();
  const QualityInput source{ToolSource(), info_.IsHeic() ? "heic" : internal::CoderFor(info_.GetMimeType()),
                            info_.GetRotate(), info_.GetFlop(), info_.GetUserRotate()};
  if (info_.IsHeic()) return QualityFromHeif() || QualityMake(source);
  if (info_.IsWebAcceptable()) return QualityMake(source);
  // Raw files: the camera's own preview, scaled from its size; else the
  // whole image where ImageMagick has a reader for the type.
  return QualityFromRaw() || (!source.coder.empty() && QualityMake(source));
}

bool Thumb::QualityFromRaw() {
  std::unique_ptr<WorkDir> owned(NewQualityWorkDir());
  const WorkDir& wd = *owned;
  if (!wd.ok()) return Fail();
  const std::string source = ToolSource();
  const char* argv[] = {"dcraw", "-c", "-e", source.c_str(), nullptr};
  FILE* pipe = KLIBCPopenv(ThumbConvertCmd::kDcraw.c_str(), "r", argv);
  if (pipe == nullptr) return Fail();
  const std::string raw = wd.File("preview");
  FILE* out = fopen(raw.c_str(), "wbx");
  bool ok = out != nullptr;
  char buf[65536];
  size_t total = 0;
  for (size_t n; ok && (n = fread(buf, 1, sizeof buf, pipe)) > 0; total += n) {
    ok = fwrite(buf, 1, n, out) == n;
  }
  if (out != nullptr && fclose(out) != 0) ok = false;
  if (KLIBCPclose(pipe) != 0 || total == 0) ok = false;
  if (!ok) return Fail();
  const std::string coder = internal::ScanJpegFile(raw).ok ? "jpeg" : "pnm";
  return QualityMake({raw, coder, info_.GetRotate(), info_.GetFlop(), info_.GetUserRotate()});
}

bool Thumb::QualityFromHeif() {
  // libheif's own tool decodes (and turns, as the file says) in a third of
  // ImageMagick's time; its JPEG is then shrunk while it loads.
  std::unique_ptr<WorkDir> owned(NewQualityWorkDir());
  const WorkDir& wd = *owned;
  if (!wd.ok()) return Fail();
  const std::string decoded = wd.File("decoded.jpg");
  if (!Run({kHeifConvert, "-q", "90", ToolSource(), decoded}) || !wd.Has("decoded.jpg")) return Fail();
  return QualityMake({decoded, "jpeg", info_.GetRotate(), info_.GetFlop(), info_.GetUserRotate()});
}

internal::QualityWorkDir* Thumb::NewQualityWorkDir() {
  // Inside the EA directory when we can write there: storing is a rename.
  const bool eaWritable = file::IsDestSupportEAWrite(file::Dirname(path_));
  return new WorkDir(eaWritable ? EADir(true) : -1);
}

bool Thumb::QualityMake(const QualityInput& in) {
  std::unique_ptr<WorkDir> own;
  const WorkDir* wd = qualityWork_;
  if (wd == nullptr) {
    own.reset(NewQualityWorkDir());
    wd = own.get();
  }
  if (!wd->ok()) return Fail();
  const std::string ext = info_.GetOutputExtension();
  internal::Pixels kept;
  if (!MakeThumb(in, info_.GetDimension(), info_.GetCropMode(), info_.GetOutputMimeType(), *wd,
                 "thumb" + ext, qualityWork_ != nullptr ? &kept : nullptr)) {
    KT_LOG("failed to make quality thumbnail of %s", path_.c_str());
    return Fail();
  }
  if (qualityWork_ != nullptr && kept.width != 0) {
    if (qualityPixels_ == nullptr) qualityPixels_ = new internal::Pixels;
    *qualityPixels_ = std::move(kept);
  }
  return QualityStore(*wd, "thumb" + ext);
}

bool Thumb::QualityStore(const WorkDir& wd, const std::string& name) {
  if (!file::IsDestSupportEAWrite(file::Dirname(path_))) {
    // Served from a private directory under /var/tmp until the next request.
    std::string work;
    if (!PrepareWork(false, &work)) return Fail();
    const std::string served = work.substr(work.rfind('/') + 1);
    struct stat64 st;
    safe_fs::Fd fd;
    if (safe_fs::RenameAt(wd.fd(), name, pinned_->work.fd(), served)) {
      fd = safe_fs::OpenRegularAt(pinned_->work.fd(), served, &st);
    }
    if (!fd.valid()) return Fail();
    outputFile_ = pinned_->work.path() + "/" + served;
    pinned_->SetOutput(outputFile_, std::move(fd), st);
    outputType_ = kThumbOutputDossivaVarTmp;
    return true;
  }
  // A batch makes its next smaller size from this one.
  const std::string ext = info_.GetOutputExtension();
  if (qualityWork_ != nullptr) qualityWork_->Link(name, "prev" + ext);
  if (!SaveTmpThumbToEA(wd.File(name))) return Fail();
  outputType_ = kThumbOutputDossiva;
  return true;
}

int Thumb::QualityConvert(std::vector<std::pair<std::string, ThumbDimension>> jobs, bool named) {
  // Largest first: each smaller size is made from the one before, so the
  // source is decoded once, also over several calls on one object.
  std::stable_sort(jobs.begin(), jobs.end(), [](const auto& a, const auto& b) {
    return uint64_t{a.second.width} * a.second.height > uint64_t{b.second.width} * b.second.height;
  });
  int made = 0;
  std::string lastName;
  bool lastMade = false;
  for (const auto& job : jobs) {
    try {
      ExtractForBatch();
      if (qualityWork_ == nullptr) qualityWork_ = NewQualityWorkDir();
      SetSize(job.first, named ? strThumbSizeMap_.at(job.first) : job.second);
      const std::string name = GetOnlineOutputDest();
      if (name == lastName) {  // "large" and "xlarge" share one file
        made += lastMade ? 1 : 0;
        continue;
      }
      lastName = name;
      const bool odd = internal::TurnSum(info_.GetRotate(), info_.GetUserRotate()) & 1;
      const ThumbDimension fit = internal::FitInBox(odd ? info_.GetHeight() : info_.GetWidth(),
                                                    odd ? info_.GetWidth() : info_.GetHeight(),
                                                    info_.GetDimension());
      const bool useDerived = !qualityDerived_.empty() && qualityDerivedSize_.width >= fit.width &&
                              qualityDerivedSize_.height >= fit.height && fit.width != 0;
      const std::string derived = useDerived ? qualityDerived_ : std::string();
      lastMade = QualityOnline(useDerived ? &derived : nullptr);
      const std::string prev = "prev" + info_.GetOutputExtension();
      if (lastMade && qualityWork_->ok() && qualityWork_->Has(prev) && fit.width != 0) {
        qualityDerived_ = qualityWork_->File(prev);
        qualityDerivedSize_ = fit;
      }
      made += lastMade ? 1 : 0;
    } catch (...) {
      // Logged as the member the caller called.
      const internal::LogSite& at = named ? internal::site::kConvertSizes : internal::site::kConvertDimensions;
      internal::LogError(at.file, at.line, "Convert", "Unknown Internal Error");
    }
  }
  return made;
}

void Thumb::QualityRelease() {
  delete qualityWork_;
  qualityWork_ = nullptr;
  delete qualityPixels_;
  qualityPixels_ = nullptr;
  qualityDerived_.clear();
}

}  // namespace kovathumb
