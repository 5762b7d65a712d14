// Thumb: the request and its chain of destinations. The destinations are in
// destinations.cpp, the store in store.cpp, the response in http_output.cpp.
#include "kovathumb/thumb.h"

#include <unistd.h>

#include <algorithm>
#include <string>

#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb_const.h"
#include "libkovathumb/pinned.h"
#include "libkovathumb/thumb_shared.h"
#include "store/names.h"
#include "thumb_info/thumb_info_access.h"
#include "util/safe_fs.h"

namespace kovathumb {

using internal::BaseName;
using internal::kUnlimited;

const std::map<std::string, ThumbDimension> Thumb::strThumbSizeMap_ = [] {
  std::map<std::string, ThumbDimension> sizes;
  for (const store::SizeRow& row : store::Sizes()) sizes[row.size] = row.box;
  return sizes;
}();

const std::vector<std::string> Thumb::size_vec = {kSizeOriginal, kSizeXLarge, kSizeLarge,
                                                  kSizeBig,      kSizeMedium, kSizeSmall};

Thumb::Thumb(const std::string& path, int options, bool allowHeicOriginal)
    : outputType_(kThumbOutputNone),
      path_(path),
      isVideo_(IsSupportVideo(BaseName(path))),
      allowHeicOriginal_(allowHeicOriginal),
      info_(path, kSizeOriginal, {kUnlimited, kUnlimited}),
      needDelete_(false),
      probed_(0),
      pinned_(new Pinned) {
  SetOption(options);
}

Thumb::Thumb(const std::string& path, int options, bool allowHeicOriginal, const Thumb& looked)
    : outputType_(kThumbOutputNone),
      path_(path),
      isVideo_(IsSupportVideo(BaseName(path))),
      allowHeicOriginal_(allowHeicOriginal),
      info_(looked.info_),
      needDelete_(false),
      probed_(looked.probed_),
      probeError_(looked.probeError_ ? new Error(*looked.probeError_) : nullptr),
      pinned_(new Pinned) {
  internal::ThumbInfoAccess::SetPath(&info_, path);
  quality_ = looked.quality_;  // so that SetOption keeps the probe where the mode stays
  SetOption(options);
}

Thumb::~Thumb() {
  QualityRelease();
  const std::string preview = info_.GetEXIFPreviewTmpPath();
  if (!preview.empty()) unlink(preview.c_str());
}

void Thumb::SetOption(int options) {
  const bool avatar = options & kThumbOptAvatar;
  noOnline_ = (options & kThumbOptNoOnline) || isVideo_;
  storedOnly_ = options & kThumbOptStoredOnly;
  wantDossivaEA_ = (options & kThumbOptDossivaEA) && !avatar;
  wantPictavoEA_ = (options & kThumbOptPictavoEA) && !avatar;
  enableGIF_ = options & kThumbOptEnableGIF;
  originalOnlyWhenMarked_ = true;
  avatar_ = avatar;
  smallerFallback_ = (options & kThumbOptSmallerFallback) && !isVideo_;
  info_.SetEnableGIF(enableGIF_);
  info_.SetCropMode(avatar_);
  // Quality mode reads more types: what was probed without it is no answer.
  if (quality_ != static_cast<bool>(options & kThumbOptQuality)) probed_ = 0;
  quality_ = options & kThumbOptQuality;
  info_.SetQuality(quality_);
}

void Thumb::Rotate(int rotation) { info_.SetUserRotate(rotation); }

void Thumb::SetSize(const std::string& size, ThumbDimension box) {
  internal::ThumbInfoAccess::SetSizeAndBox(&info_, size, box);
}

void Thumb::SetSize(const std::string& size) { SetSize(size, strThumbSizeMap_.at(size)); }

void Thumb::ProbeTolerant(bool facts, bool preview) {
  if (isVideo_) return;
  try {
    if (facts) {
      info_.ExtractImgInfo(preview);
    } else {
      internal::ThumbInfoAccess::ReadPreview(&info_);
    }
  } catch (const Error& e) {
    if (e.Code() != kErrorUnknownType) throw Error(e);
  }
}

void Thumb::ProbeFacts() {
  if (probed_ == 2) throw Error(*probeError_);
  if (probed_ == 1) return;
  try {
    ProbeTolerant(true, false);
  } catch (const Error& e) {
    probeError_.reset(new Error(e));
    probed_ = 2;
    throw;
  }
  probed_ = 1;
}

int Thumb::Output(const std::string& size) {
  SetSize(size);
  return OutputImpl();
}

int Thumb::Output(int width, int height) {
  SetSize(kSizeCustom, {static_cast<uint32_t>(width), static_cast<uint32_t>(height)});
  return OutputImpl();
}

int Thumb::Output(int edge) { return Output(edge, edge); }

int Thumb::OutputImpl() {
  if (CalcOutputFile().empty()) return 0;
  return HttpOutputFile(GetOutputMimeType());
}

std::string Thumb::CalcOutputFile() {
  pinned_.reset(new Pinned);  // what an earlier request held goes now
  // A preview an earlier request on this object left unused goes; this
  // request's is read if a conversion needs it.
  internal::ThumbInfoAccess::DropPreview(&info_);
  if (probed_ == 0 && SetOutStoredUnprobed()) return outputFile_;
  ProbeFacts();
  if (info_.GetSize() == kSizeOriginal) {
    if (!info_.IsWebAcceptable()) return std::string();
    outputType_ = kThumbOutputOriginal;
    outputFile_ = path_;
    return outputFile_;
  }
  if (wantPictavoEA_ && (SetOutPictavoEA() || SetOutPictavoOldEA())) return outputFile_;
  if (wantDossivaEA_ && SetOutDossivaEA()) return outputFile_;
  if (isVideo_ && SetOutCinevoEA()) return outputFile_;
  if (avatar_ && SetOutAvatar()) return outputFile_;
  if (storedOnly_) {
    Fail();
    return outputFile_;
  }
  if (SetOutFromEXIFPreview()) return outputFile_;
  if (allowHeicOriginal_ && !quality_ && info_.IsHeic() && SetOutOriginalImage()) return outputFile_;
  if (!noOnline_ && SetOutOnline()) return outputFile_;
  // Only a source that on-line conversion marked as good enough is served.
  if (originalOnlyWhenMarked_ && outputType_ != kThumbOutputOriginal) return std::string();
  SetOutOriginalImage();
  return outputFile_;
}

std::string Thumb::CalcOutputFile(int width, int height) {
  SetSize(kSizeCustom, {static_cast<uint32_t>(width), static_cast<uint32_t>(height)});
  return CalcOutputFile();
}

std::string Thumb::CalcOutputFile(const std::string& size) {
  auto it = std::find(size_vec.begin(), size_vec.end(), size);
  for (; it != size_vec.end(); ++it) {
    SetSize(*it);
    if (!CalcOutputFile().empty() || !smallerFallback_) return outputFile_;
  }
  return std::string();
}

const std::string& Thumb::GetOutputFile() const { return outputFile_; }
bool Thumb::IsNeedDelete() const { return needDelete_; }

int Thumb::GetOutputDescriptor() const {
  const Pinned& p = *pinned_;
  return p.output.valid() && p.outputPath == outputFile_ ? p.output.get() : -1;
}

bool Thumb::DeleteOutputFile() {
  Pinned& p = *pinned_;
  if (outputFile_.empty() || outputFile_ == path_ || !p.output.valid() || p.outputPath != outputFile_) {
    return false;
  }
  const std::string name = BaseName(outputFile_);
  if (outputType_ == kThumbOutputDossivaVarTmp) {
    return p.work.valid() && safe_fs::UnlinkIfSame(p.work.fd(), name, p.outputStat);
  }
  const int ea = EADir(false);
  return ea >= 0 && safe_fs::UnlinkIfSame(ea, name, p.outputStat);
}

std::string Thumb::GetOutputType() {
  switch (outputType_) {
    case kThumbOutputPictavo: return "Pictavo";
    case kThumbOutputDossiva: return "Dossiva";
    case kThumbOutputDossivaVarTmp: return "DossivaVarTmp";
    case kThumbOutputCinevo: return "Cinevo";
    case kThumbOutputOriginal: return "Original";
    default: return "";
  }
}

std::string Thumb::GetOutputMimeType() {
  return pinned_->unprobedMime.empty() ? info_.GetOutputMimeType() : pinned_->unprobedMime;
}

}  // namespace kovathumb
