// Thumb's quality-mode members: which tool makes a thumbnail, of the
// source, of its embedded preview, or of a larger thumbnail just made, and
// where it goes. The tools' runs are in quality_tools.cpp.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "libkovathumb/log_sites.h"
#include "kovathumb/thumb_const.h"
#include "convert_cmd/tool_files.h"
#include "libkovathumb/pinned.h"
#include "libkovathumb/quality.h"
#include "libkovathumb/quality_tools.h"
#include "thumb_info/decisions.h"
#include "thumb_info/thumb_info_access.h"
#include "util/log.h"
#include "util/path.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace {


using internal::QualityInput;
using WorkDir = internal::QualityWorkDir;

}  // namespace

// ---- Thumb's quality members ------------------------------------------------------

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
    if (!internal::EncodeQualityJpeg(*qualityPixels_, *qualityWork_, name)) return Fail();
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
  if (!wd.ok() || !internal::ExtractRawPreview(ToolSource(), wd, "preview")) return Fail();
  const std::string raw = wd.File("preview");
  const std::string coder = internal::ScanJpegFile(raw).ok ? "jpeg" : "pnm";
  return QualityMake({raw, coder, info_.GetRotate(), info_.GetFlop(), info_.GetUserRotate()});
}

bool Thumb::QualityFromHeif() {
  // The decoded JPEG is then shrunk while it loads.
  std::unique_ptr<WorkDir> owned(NewQualityWorkDir());
  const WorkDir& wd = *owned;
  if (!wd.ok() || !internal::DecodeHeif(ToolSource(), wd, "decoded.jpg")) return Fail();
  return QualityMake(
      {wd.File("decoded.jpg"), "jpeg", info_.GetRotate(), info_.GetFlop(), info_.GetUserRotate()});
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
  if (!internal::MakeQualityThumb(in, info_.GetDimension(), info_.GetCropMode(), info_.GetOutputMimeType(),
                                  *wd, "thumb" + ext, qualityWork_ != nullptr ? &kept : nullptr)) {
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
    const std::string served = internal::BaseName(work);
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
