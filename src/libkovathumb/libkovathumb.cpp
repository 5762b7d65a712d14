// Thumb: the thumbnail request, its chain of destinations, the thumbnail
// store and the HTTP output.
#include "kovathumb/thumb.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "kovaplatform/kovaplatform.h"
#include "kovaplatform/webfile_relay.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb_const.h"
#include "libkovathumb/run_as_root_guard.h"
#include "thumb_info/decisions.h"
#include "util/log.h"

namespace kovathumb {

namespace {

constexpr char kSourceFile[] = "libkovathumb.cpp";
// Places that the appliance's log readers know these lines by.
constexpr int kChownGuardLine = 489;
constexpr int kUtimeGuardLine = 510;
constexpr int kConvertSizesLine = 95;
constexpr int kConvertDimensionsLine = 113;

constexpr char kCacheControl[] = "Cache-Control: max-age=300, must-revalidate\r\n";
constexpr uint32_t kUnlimited = 2147483647;

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

const std::map<std::string, ThumbDimension> Thumb::strThumbSizeMap_ = {
    {kSizeSmall, {120, 120}},   {kSizeMedium, {360, 360}},  {kSizeBig, {640, 640}},
    {kSizeLarge, {1280, 1280}}, {kSizeXLarge, {1280, 1280}}, {kSizeOriginal, {kUnlimited, kUnlimited}},
};

const std::vector<std::string> Thumb::size_vec = {kSizeOriginal, kSizeXLarge, kSizeLarge,
                                                  kSizeBig,      kSizeMedium, kSizeSmall};

// ---- Request ------------------------------------------------------------------

Thumb::Thumb(const std::string& path, int options, bool allowHeicOriginal)
    : outputType_(kThumbOutputNone),
      path_(path),
      isVideo_(IsSupportVideo(BaseName(path))),
      allowHeicOriginal_(allowHeicOriginal),
      info_(path, kSizeOriginal, {kUnlimited, kUnlimited}),
      needDelete_(false),
      batchExtracted_(false) {
  SetOption(options);
}

Thumb::~Thumb() {
  const std::string preview = info_.GetEXIFPreviewTmpPath();
  if (!preview.empty()) unlink(preview.c_str());
}

void Thumb::SetOption(int options) {
  const bool avatar = options & kThumbOptAvatar;
  noOnline_ = (options & kThumbOptNoOnline) || isVideo_;
  wantDossivaEA_ = (options & kThumbOptDossivaEA) && !avatar;
  wantPictavoEA_ = (options & kThumbOptPictavoEA) && !avatar;
  enableGIF_ = options & kThumbOptEnableGIF;
  originalOnlyWhenMarked_ = true;
  avatar_ = avatar;
  smallerFallback_ = (options & kThumbOptSmallerFallback) && !isVideo_;
  info_.enableGIF_ = enableGIF_;
  info_.cropMode_ = avatar_;
}

void Thumb::Rotate(int rotation) { info_.userRotate_ = rotation; }

int Thumb::Output(const std::string& size) {
  info_.size_ = size;
  info_.dimension_ = strThumbSizeMap_.at(size);
  return OutputImpl();
}

int Thumb::Output(int width, int height) {
  info_.size_ = kSizeCustom;
  info_.dimension_ = {static_cast<uint32_t>(width), static_cast<uint32_t>(height)};
  return OutputImpl();
}

int Thumb::Output(int edge) { return Output(edge, edge); }

int Thumb::OutputImpl() {
  if (CalcOutputFile().empty()) return 0;
  return HttpOutputFile(info_.GetOutputMimeType());
}

std::string Thumb::CalcOutputFile() {
  if (!isVideo_) {
    // Probing again writes a new preview: drop the one an earlier request
    // on this object left unused.
    const std::string stale = info_.GetEXIFPreviewTmpPath();
    if (!stale.empty()) unlink(stale.c_str());
    try {
      info_.ExtractImgInfo(true);
    } catch (const Error& e) {
      if (e.Code() != 602) throw Error(e);
    }
  }
  if (info_.size_ == kSizeOriginal) {
    if (!info_.IsWebAcceptable()) return std::string();
    outputType_ = kThumbOutputOriginal;
    outputFile_ = path_;
    return outputFile_;
  }
  if (wantPictavoEA_ && (SetOutPictavoEA() || SetOutPictavoOldEA())) return outputFile_;
  if (wantDossivaEA_ && SetOutDossivaEA()) return outputFile_;
  if (isVideo_ && SetOutCinevoEA()) return outputFile_;
  if (avatar_ && SetOutAvatar()) return outputFile_;
  if (SetOutFromEXIFPreview()) return outputFile_;
  if (allowHeicOriginal_ && info_.IsHeic() && SetOutOriginalImage()) return outputFile_;
  if (!noOnline_ && SetOutOnline()) return outputFile_;
  // Only a source that on-line conversion marked as good enough is served.
  if (originalOnlyWhenMarked_ && outputType_ != kThumbOutputOriginal) return std::string();
  SetOutOriginalImage();
  return outputFile_;
}

std::string Thumb::CalcOutputFile(const std::string& size) {
  auto it = std::find(size_vec.begin(), size_vec.end(), size);
  for (; it != size_vec.end(); ++it) {
    info_.size_ = *it;
    info_.dimension_ = strThumbSizeMap_.at(*it);
    if (!CalcOutputFile().empty() || !smallerFallback_) return outputFile_;
  }
  return std::string();
}

const std::string& Thumb::GetOutputFile() const { return outputFile_; }
bool Thumb::IsNeedDelete() const { return needDelete_; }

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

std::string Thumb::GetOutputMimeType() { return info_.GetOutputMimeType(); }

// ---- Destinations ---------------------------------------------------------------

bool Thumb::Fail() {
  outputFile_.clear();
  return false;
}

bool Thumb::SetOutStored(const std::string& name, bool needEAPath, bool condition, int type) {
  const std::string path = file::GetEAPath(path_, name);
  if (needEAPath && path.empty()) return Fail();
  if (!condition || !info_.IsThumbUptoDate(path)) return Fail();
  outputFile_ = path;
  outputType_ = type;
  return true;
}

bool Thumb::SetOutPictavoEA() {
  return SetOutStored(info_.GetPictavoThumbEAName(), true, true, kThumbOutputPictavo);
}

bool Thumb::SetOutPictavoOldEA() {
  return SetOutStored(info_.GetPictavoOldThumbEAName(), true, true, kThumbOutputPictavo);
}

bool Thumb::SetOutDossivaEA() {
  return SetOutStored(info_.GetDossivaThumbEAName(), false, info_.IsGood() || isVideo_,
                      kThumbOutputDossiva);
}

bool Thumb::SetOutAvatar() {
  return SetOutStored(info_.GetAvatarThumbEAName(), false, true, kThumbOutputDossiva);
}

bool Thumb::SetOutCinevoEA() {
  return SetOutStored(info_.GetCinevoThumbEAName(), true, true, kThumbOutputCinevo);
}

bool Thumb::SetOutOriginalImage() {
  outputFile_ = path_;
  return true;
}

std::string Thumb::GetOnlineOutputDest() const {
  return file::GetEAPath(path_, avatar_ ? info_.GetAvatarThumbEAName() : info_.GetDossivaThumbEAName());
}

bool Thumb::SetOutFromEXIFPreview() {
  if (!info_.IsGood()) return Fail();
  const std::string preview = info_.GetEXIFPreviewTmpPath();
  const std::string dest = file::GetEAPath(path_, info_.GetDossivaThumbEAName());
  if (preview.empty()) return Fail();
  if (!file::MakeEADir(path_)) {
    unlink(preview.c_str());
    return Fail();
  }
  const bool upright = internal::TurnSum(info_.GetRotate(), info_.GetUserRotate()) % 4 == 0;
  if (info_.GetMimeType() == "image/jpeg" && upright) {
    if (!SaveTmpThumbToEA(preview)) {
      KT_LOG("failed to save to EA");
      return Fail();
    }
  } else {
    ConvertCmd convert(info_, preview, dest);
    if (!convert.exec()) {
      KT_LOG("failed to rotate or convert tmp file to web accepatable img %s -> %s", preview.c_str(),
             dest.c_str());
      unlink(preview.c_str());
      return Fail();
    }
  }
  outputFile_ = dest;
  outputType_ = kThumbOutputDossiva;
  unlink(preview.c_str());
  return true;
}

bool Thumb::SetOutOnline() {
  if (!info_.IsNeedConvert()) {
    outputType_ = kThumbOutputOriginal;
    return Fail();
  }
  const bool good = info_.IsGood();
  const bool eaWritable = file::IsDestSupportEAWrite(file::Dirname(path_));
  std::string work;
  if (!eaWritable) {
    work = file::GetVarTmpPath(info_.GetDossivaTmpThumbEAName());
  } else {
    work = file::GetEAPath(path_, info_.GetDossivaTmpThumbEAName());
    if (work.empty() || !file::MakeEADir(path_)) return Fail();
  }
  // Users can write in the EA directory: a link planted under our work
  // file's name would make the tools write through it.
  unlink(work.c_str());

  bool made = false;
  if (good) {
    if (info_.GetMimeType() == "image/jpeg") {
      DJpegCmd djpeg(info_, path_, work);
      if (info_.GetFileSize() <= djpeg.GetConvertBytes()) {
        // Converting would not make it smaller than the source.
        outputType_ = kThumbOutputOriginal;
        return Fail();
      }
      made = djpeg.exec();
      if (made) needDelete_ = djpeg.IsNeedDelete();
    }
    if (info_.GetOutputMimeType() == "image/gif") {
      GIFConvertCmd gif(info_, path_, work);
      made = gif.exec();
    }
  }
  if (!made) {
    if (!info_.IsWebAcceptable()) {
      DcrawCmd dcraw(info_, path_, work);
      made = dcraw.exec();
      if (!made && good) made = ConvertCmd(info_, path_, work).exec();
    } else if (good) {
      made = ConvertCmd(info_, path_, work).exec();
    }
  }
  if (!made) return Fail();

  if (eaWritable) {
    if (!SaveTmpThumbToEA(work)) return Fail();
    outputType_ = kThumbOutputDossiva;
  } else {
    outputFile_ = work;
    outputType_ = kThumbOutputDossivaVarTmp;
  }
  return true;
}

// ---- Store ----------------------------------------------------------------------

bool Thumb::SaveThumbToEA(const std::string& src, const std::string& dst, long mtime) {
  if (access(src.c_str(), F_OK) != 0) {
    KT_LOG("Can not acess thumbnail '%s'\\n", src.c_str());
    return false;
  }
  if (rename(src.c_str(), dst.c_str()) != 0) {
    if (errno != EXDEV ||
        KLIBCExecl("/bin/mv", 0, "/bin/mv", src.c_str(), dst.c_str(), static_cast<char*>(nullptr)) != 0) {
      KT_LOG("Failed to move thumbnail file from '%s' to '%s'", src.c_str(), dst.c_str());
      return false;
    }
  }
  // The EA directory is writable by its users: never follow a link planted
  // in place of the thumbnail to change another file's mode, owner or times.
  if (fchmodat(AT_FDCWD, dst.c_str(), 0777, AT_SYMLINK_NOFOLLOW) != 0) {
    KT_LOG("Failed to chmod '%s'", dst.c_str());
  }
  {
    internal::RunAsRootGuard guard(kSourceFile, kChownGuardLine);
    if (guard.Switched() && lchown(dst.c_str(), 0, 0) != 0) {
      KT_LOG("Failed to chown '%s', %s", dst.c_str(), strerror(errno));
    }
  }
  if (mtime == 0) {
    struct stat st;
    if (stat(path_.c_str(), &st) != 0) {
      KT_LOG("Failed to get mime '%s'", path_.c_str());
      return true;
    }
    if (st.st_mtime == 0) return true;
    mtime = st.st_mtime;
  }
  internal::RunAsRootGuard guard(kSourceFile, kUtimeGuardLine);
  if (!guard.Switched()) return true;
  struct timespec times[2] = {{0, 0}, {mtime, 0}};
  if (utimensat(AT_FDCWD, dst.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
    KT_LOG("Failed to chown '%s', %s", dst.c_str(), strerror(errno));
  }
  return true;
}

bool Thumb::SaveTmpThumbToEA(const std::string& tmp) {
  outputFile_ = GetOnlineOutputDest();
  return SaveThumbToEA(tmp, outputFile_, 0);
}

bool Thumb::SaveExistingThumbsToEA(std::vector<std::pair<std::string, std::string>> thumbs, long mtime,
                                   bool checkMime) {
  if (!isVideo_) {
    try {
      info_.ExtractImgInfo(true);
    } catch (const Error& e) {
      if (e.Code() != 602) {
        KT_LOG("Failed to extrace img info '%s'", path_.c_str());
        throw Error(e);
      }
    }
  }
  if (!file::MakeEADir(path_)) {
    KT_LOG("Failed to create eadir '%s'", path_.c_str());
    return false;
  }
  bool failed = false;
  for (const auto& thumb : thumbs) {
    if (checkMime) {
      try {
        ThumbInfo ready(thumb.second, kSizeOriginal, {kUnlimited, kUnlimited});
        ready.ExtractImgInfo(true);
        const std::string readyPreview = ready.GetEXIFPreviewTmpPath();
        if (!readyPreview.empty()) unlink(readyPreview.c_str());
        if (ready.GetMimeType() != info_.GetOutputMimeType()) {
          KT_LOG("Thumbnail has different mime type '%s'", thumb.second.c_str());
          failed = true;
          continue;
        }
      } catch (const Error&) {
        KT_LOG("Can not check thumbnail info of '%s'", thumb.second.c_str());
        failed = true;
        continue;
      }
    }
    info_.size_ = thumb.first;
    info_.dimension_ = strThumbSizeMap_.at(thumb.first);
    if (!SaveThumbToEA(thumb.second, GetOnlineOutputDest(), mtime)) failed = true;
  }
  return !failed;
}

void Thumb::ExtractForBatch() {
  if (batchExtracted_ || isVideo_) return;
  try {
    info_.ExtractImgInfo(false);
  } catch (const Error& e) {
    if (e.Code() != 602) throw Error(e);
  }
  batchExtracted_ = true;
}

bool Thumb::ConvertAll() {
  return Convert({std::string(kSizeSmall), std::string(kSizeMedium), std::string(kSizeBig),
                  std::string(kSizeLarge), std::string(kSizeXLarge)}) > 0;
}

int Thumb::Convert(std::initializer_list<std::string> sizes) {
  return Convert(std::vector<std::string>(sizes));
}

int Thumb::Convert(std::initializer_list<ThumbDimension> dimensions) {
  return Convert(std::vector<ThumbDimension>(dimensions));
}

int Thumb::Convert(const std::vector<std::string>& sizes) {
  int made = 0;
  for (const std::string& size : sizes) {
    try {
      ExtractForBatch();
      info_.size_ = size;
      info_.dimension_ = strThumbSizeMap_.at(size);
      made += SetOutOnline() ? 1 : 0;
    } catch (...) {
      internal::LogError(kSourceFile, kConvertSizesLine, "Convert", "Unknown Internal Error");
    }
  }
  return made;
}

int Thumb::Convert(const std::vector<ThumbDimension>& dimensions) {
  int made = 0;
  for (const ThumbDimension& dimension : dimensions) {
    try {
      ExtractForBatch();
      info_.size_ = kSizeCustom;
      info_.dimension_ = dimension;
      made += SetOutOnline() ? 1 : 0;
    } catch (...) {
      internal::LogError(kSourceFile, kConvertDimensionsLine, "Convert", "Unknown Internal Error");
    }
  }
  return made;
}

// ---- HTTP output ------------------------------------------------------------------

bool Thumb::HttpOutputFile(const std::string& mime) {
  // First and unconditionally, and flushed: the relay writes after it.
  fputs(kCacheControl, stdout);
  fflush(stdout);
  WebFileRelay relay;
  if (outputType_ == kThumbOutputPictavo && (info_.GetUserRotate() & 3) != 0) {
    // Stored gallery thumbnails are upright: apply only the user's turn.
    JpegTranCmd jpegtran(info_, outputFile_, "", true);
    FILE* stream = jpegtran.popen();
    return relay.Output(stream, BaseName(outputFile_).c_str(), mime.c_str()) == 0;
  }
  return relay.Output(outputFile_.c_str(), mime.c_str()) == 0;
}

bool Thumb::OutputOriginalImage() {
  if (!info_.IsWebAcceptable()) return false;
  outputFile_ = path_;
  return HttpOutputFile(info_.GetMimeType());
}

}  // namespace kovathumb
