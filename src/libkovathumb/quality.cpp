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
#include "quality/pipeline.h"
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
  int piped = 0;
  if (derived == nullptr && QualityPiped(nullptr, false, &piped)) return piped > 0 || Fail();
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
  const std::string coder = internal::ScanJpegApart(raw).ok ? "jpeg" : "pnm";
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
  if (&wd == qualityWork_ && wd.piped.empty()) qualityWork_->Link(name, "prev" + ext);
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
  if (QualityPiped(&jobs, named, &made)) return made;
  for (const auto& job : jobs) {
    try {
      ProbeFacts();
      if (qualityWork_ == nullptr) qualityWork_ = NewQualityWorkDir();
      SetSize(job.first, named ? strThumbSizeMap_.at(job.first) : job.second);
      const std::string name = GetOnlineOutputDest();
      if (name == qualityLastName_) {  // "large" and "xlarge" share one file, also over several calls
        made += qualityLastMade_ ? 1 : 0;
        continue;
      }
      qualityLastName_ = name;
      const bool odd = internal::TurnSum(info_.GetRotate(), info_.GetUserRotate()) & 1;
      const ThumbDimension fit = internal::FitInBox(odd ? info_.GetHeight() : info_.GetWidth(),
                                                    odd ? info_.GetWidth() : info_.GetHeight(),
                                                    info_.GetDimension());
      const bool useDerived = !qualityDerived_.empty() && qualityDerivedSize_.width >= fit.width &&
                              qualityDerivedSize_.height >= fit.height && fit.width != 0;
      const std::string derived = useDerived ? qualityDerived_ : std::string();
      qualityLastMade_ = QualityOnline(useDerived ? &derived : nullptr);
      const std::string prev = "prev" + info_.GetOutputExtension();
      if (qualityLastMade_ && qualityWork_->ok() && qualityWork_->Has(prev) && fit.width != 0) {
        qualityDerived_ = qualityWork_->File(prev);
        qualityDerivedSize_ = fit;
      }
      made += qualityLastMade_ ? 1 : 0;
    } catch (...) {
      // Logged as the member the caller called.
      const internal::LogSite& at = named ? internal::site::kConvertSizes : internal::site::kConvertDimensions;
      internal::LogError(at.file, at.line, "Convert", "Unknown Internal Error");
    }
  }
  return made;
}

namespace {

bool SamePlan(const internal::ThumbPlan& a, const internal::ThumbPlan& b) {
  const auto same = [](ThumbDimension x, ThumbDimension y) { return x.width == y.width && x.height == y.height; };
  return same(a.scaled, b.scaled) && same(a.cut, b.cut) && same(a.upright, b.upright);
}

// What a file was when its thumbnails were made, to tell it from a
// replacement.
std::string Stamp(int fd) {
  struct stat64 st;
  if (fstat64(fd, &st) != 0) return std::string();
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
}

}  // namespace

bool Thumb::QualityPiped(const std::vector<std::pair<std::string, ThumbDimension>>* jobs, bool named,
                         int* made) {
  // Sources with a decoder are made in one sandboxed child: one decode, each
  // size from the next larger, no tool started. False leaves the source to
  // the tools.
  *made = 0;
  const size_t count = jobs != nullptr ? jobs->size() : 1;
  const auto setJob = [&](size_t i) {
    if (jobs != nullptr) SetSize((*jobs)[i].first, named ? strThumbSizeMap_.at((*jobs)[i].first) : (*jobs)[i].second);
  };
  internal::PipelineSource source;
  int turns = 0;
  // Per job: the stored name and the plan, or no name when the source
  // itself serves.
  std::vector<std::pair<std::string, internal::ThumbPlan>> wants;
  try {
    if (jobs != nullptr) ProbeFacts();
    const int* fd = internal::ThumbInfoAccess::SourceFd(info_);
    // JPEGs, and PNGs of PNG sources; GIFs stay animated by the tools.
    const std::string outMime = info_.GetOutputMimeType();
    if (!info_.IsGood() || fd == nullptr || (outMime != kMimeJpeg && outMime != kMimePng)) return false;
    source = {*fd, info_.GetMimeType(), info_.GetWidth(), info_.GetHeight(), info_.GetRotate(), info_.GetFlop(),
              info_.GetUserRotate(), outMime};
    // A file libjpeg cannot read fails in the pipeline's child: no walk of
    // its markers first, in a child of its own.
    if (!internal::PipelineTakesProbed(source.mime)) return false;
    turns = internal::TurnSum(source.rotate, source.userRotate);
    bool any = false;
    for (size_t i = 0; i < count; ++i) {
      setJob(i);
      wants.emplace_back();
      if (internal::ServesOriginal(source.mime, source.outMime, source.width, source.height, turns, source.flop,
                                   info_.GetDimension())) {
        continue;
      }
      wants.back() = {GetOnlineOutputDest(), internal::PlanThumb(source.width, source.height, turns,
                                                                 info_.GetDimension(), info_.GetCropMode())};
      any = true;
    }
    if (!any) return false;  // the tools' path answers with the source
  } catch (...) {
    return false;  // the tools' path reports it
  }

  // A batch keeps what it made across calls: front ends ask one size at a
  // time, largest first.
  std::unique_ptr<WorkDir> local;
  if (jobs != nullptr && qualityWork_ == nullptr) qualityWork_ = NewQualityWorkDir();
  if (jobs == nullptr) local.reset(NewQualityWorkDir());
  WorkDir& wd = jobs != nullptr ? *qualityWork_ : *local;
  if (!wd.ok()) return Fail();
  const std::string stamp = Stamp(source.fd);
  if (stamp != wd.pipedSource) {
    for (const WorkDir::Piped& p : wd.piped) {
      if (p.storedAs.empty()) wd.Drop(p.file);
    }
    wd.piped.clear();
    wd.pipedSource = stamp;
  }
  const auto find = [&](const std::string& name, const internal::ThumbPlan& plan) -> WorkDir::Piped* {
    WorkDir::Piped* free = nullptr;
    for (WorkDir::Piped& p : wd.piped) {
      if (!SamePlan(p.plan, plan)) continue;
      if (p.storedAs == name) return &p;
      if (p.storedAs.empty()) free = &p;
    }
    return free;
  };
  std::vector<internal::PipelineSize> todo;
  const auto plan = [&](const internal::ThumbPlan& p) {
    for (const internal::PipelineSize& t : todo) {
      if (SamePlan(t.plan, p)) return;
    }
    todo.push_back({"t" + std::to_string(wd.piped.size() + todo.size()) + info_.GetOutputExtension(), p});
  };
  uint64_t largest = 0;
  for (const auto& want : wants) {
    if (want.first.empty() || find(want.first, want.second) != nullptr) continue;
    plan(want.second);
    largest = std::max(largest, uint64_t{want.second.scaled.width} * want.second.scaled.height);
  }
  if (!todo.empty() && jobs != nullptr && named) {
    // The smaller named sizes cost little beside the decode: made now, in
    // case they are asked for next.
    for (const char* size : kConvertibleSizes) {
      const ThumbDimension box = strThumbSizeMap_.at(size);
      const internal::ThumbPlan p = internal::PlanThumb(source.width, source.height, turns, box, info_.GetCropMode());
      const bool served =
          internal::ServesOriginal(source.mime, source.outMime, source.width, source.height, turns, source.flop, box);
      if (!served && uint64_t{p.scaled.width} * p.scaled.height <= largest && find("", p) == nullptr) plan(p);
    }
  }
  if (!todo.empty()) {
    std::string why;
    if (!internal::RunPipeline(source, &todo, wd.fd(), &why)) {
      KT_LOG("failed to make quality thumbnail of %s: %s", path_.c_str(), why.c_str());
    }
    for (const internal::PipelineSize& t : todo) {
      if (t.made) wd.piped.push_back({t.file, t.plan, std::string()});
    }
  }
  for (size_t i = 0; i < count; ++i) {
    try {
      if (wants[i].first.empty()) continue;
      setJob(i);
      WorkDir::Piped* p = find(wants[i].first, wants[i].second);
      if (p == nullptr) continue;
      // "large" and "xlarge" share one file: stored once, made for both.
      if (p->storedAs.empty()) {
        if (!QualityStore(wd, p->file)) continue;
        p->storedAs = wants[i].first;
      }
      ++*made;
    } catch (...) {
      const internal::LogSite& at = named ? internal::site::kConvertSizes : internal::site::kConvertDimensions;
      internal::LogError(at.file, at.line, "Convert", "Unknown Internal Error");
    }
  }
  return true;
}

void Thumb::QualityRelease() {
  delete qualityWork_;
  qualityWork_ = nullptr;
  delete qualityPixels_;
  qualityPixels_ = nullptr;
  qualityDerived_.clear();
  qualityLastName_.clear();
  qualityLastMade_ = false;
}

}  // namespace kovathumb
