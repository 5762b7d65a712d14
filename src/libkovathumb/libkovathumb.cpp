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
#include "libkovathumb/pinned.h"
#include "libkovathumb/run_as_root_guard.h"
#include "libkovathumb/store_rules.h"
#include "thumb_info/decisions.h"
#include "util/ea_dir.h"
#include "util/log.h"
#include "util/safe_fs.h"

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

// Private directories (ours, 0700) that we make inside EA directories and
// /var/tmp for the tools' work and for staging a file before it goes live.
constexpr char kPrivatePrefix[] = ".kovathumb-";
constexpr char kVarTmpTemplate[] = "/var/tmp/kovathumb_XXXXXX";

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Whether the open file is a whole image of a type we send as `mime`.
bool IsStorable(int fd, const struct stat64& st, const std::string& mime) {
  char head[internal::kProbeBytes];
  char tail[internal::kProbeBytes];
  const off_t tailAt = std::max<off_t>(0, st.st_size - static_cast<off_t>(sizeof tail));
  const ssize_t h = safe_fs::ReadAt(fd, head, sizeof head, 0);
  const ssize_t t = safe_fs::ReadAt(fd, tail, sizeof tail, tailAt);
  if (h < 0 || t < 0) return false;
  return internal::IsStorableImage(std::string(head, static_cast<size_t>(h)),
                                   std::string(tail, static_cast<size_t>(t)), st.st_size, mime);
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
      batchExtracted_(false),
      pinned_(new Pinned) {
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
  wantDossivaEA_ = (options & kThumbOptDossivaEA) && !avatar;
  wantPictavoEA_ = (options & kThumbOptPictavoEA) && !avatar;
  enableGIF_ = options & kThumbOptEnableGIF;
  originalOnlyWhenMarked_ = true;
  avatar_ = avatar;
  smallerFallback_ = (options & kThumbOptSmallerFallback) && !isVideo_;
  info_.enableGIF_ = enableGIF_;
  info_.cropMode_ = avatar_;
  quality_ = options & kThumbOptQuality;
  info_.SetQuality(quality_);
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
  pinned_.reset(new Pinned);  // what an earlier request held goes now
  if (!isVideo_) {
    // Probing again writes a new preview: drop the one an earlier request
    // on this object left unused.
    const std::string stale = info_.GetEXIFPreviewTmpPath();
    if (!stale.empty()) unlink(stale.c_str());
    try {
      info_.ExtractImgInfo(true);
    } catch (const Error& e) {
      if (e.Code() != kErrorUnknownType) throw Error(e);
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
  if (allowHeicOriginal_ && !quality_ && info_.IsHeic() && SetOutOriginalImage()) return outputFile_;
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

std::string Thumb::GetOutputMimeType() { return info_.GetOutputMimeType(); }

// ---- Destinations ---------------------------------------------------------------

bool Thumb::Fail() {
  outputFile_.clear();
  pinned_->output.reset();
  return false;
}

int Thumb::EADir(bool make) {
  safe_fs::Fd& ea = pinned_->eaDir;
  if (!ea.valid() && (!make || file::MakeEADir(path_))) ea = file::OpenEADir(path_);
  return ea.get();
}

std::string Thumb::ToolSource() const {
  return info_.sourceFd_ ? safe_fs::ToolPath(*info_.sourceFd_) : path_;
}

std::string Thumb::ServePath() const {
  const Pinned& p = *pinned_;
  if (p.output.valid() && p.outputPath == outputFile_) return safe_fs::SelfPath(p.output.get());
  return outputFile_ == path_ ? info_.PinnedSource() : outputFile_;
}

bool Thumb::SetOutStored(const std::string& name, bool needEAPath, bool condition, int type) {
  const std::string path = file::GetEAPath(path_, name);
  if (needEAPath && path.empty()) return Fail();
  if (path.empty() || !condition) return Fail();
  // Anything but a regular file here (a link, FIFO, directory) is no
  // thumbnail; the file checked is the one sent.
  const int ea = EADir(false);
  struct stat64 st;
  safe_fs::Fd fd = ea < 0 ? safe_fs::Fd() : safe_fs::OpenRegularAt(ea, name, &st);
  if (!fd.valid() || !info_.IsThumbUptoDate(safe_fs::SelfPath(fd.get()))) return Fail();
  if (quality_ && !isVideo_ && !QualityStoredOk(safe_fs::SelfPath(fd.get()))) return Fail();
  outputFile_ = path;
  pinned_->SetOutput(path, std::move(fd), st);
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
  pinned_->output.reset();
  return true;
}

std::string Thumb::GetOnlineOutputDest() const {
  return file::GetEAPath(path_, avatar_ ? info_.GetAvatarThumbEAName() : info_.GetDossivaThumbEAName());
}

bool Thumb::SetOutFromEXIFPreview() {
  if (quality_) return QualityFromPreview();
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
    // The converter writes into our private directory; the store then
    // stamps the result and moves it into place.
    std::string work;
    const bool made = PrepareWork(true, &work) && ConvertCmd(info_, preview, work).exec();
    const bool stored = made && SaveThumbToEA(work, dest, 0);
    pinned_->work.Remove();
    if (!made) {
      KT_LOG("failed to rotate or convert tmp file to web accepatable img %s -> %s", preview.c_str(),
             dest.c_str());
    }
    if (!stored) {
      unlink(preview.c_str());
      return Fail();
    }
  }
  outputFile_ = dest;
  pinned_->outputPath = dest;
  outputType_ = kThumbOutputDossiva;
  unlink(preview.c_str());
  return true;
}

bool Thumb::PrepareWork(bool inEADir, std::string* work) {
  safe_fs::PrivateDir& dir = pinned_->work;
  if (inEADir) {
    const int ea = EADir(true);
    if (ea < 0 || !dir.Create(ea, kPrivatePrefix)) return false;
    *work = dir.ToolPath(info_.GetDossivaTmpThumbEAName());
  } else {
    if (!dir.CreateAt(kVarTmpTemplate)) return false;
    *work = dir.ToolPath(BaseName(file::GetVarTmpPath(info_.GetDossivaTmpThumbEAName())));
  }
  return true;
}

bool Thumb::SetOutOnline() {
  if (quality_) return QualityOnline();
  if (!info_.IsNeedConvert()) {
    outputType_ = kThumbOutputOriginal;
    return Fail();
  }
  const bool good = info_.IsGood();
  const bool eaWritable = file::IsDestSupportEAWrite(file::Dirname(path_));
  std::string work;
  if (!PrepareWork(eaWritable, &work)) return Fail();
  // The work directory goes on every path, but for a result that is served
  // from it: that stays until the next request.
  struct WorkCleanup {
    safe_fs::PrivateDir& dir;
    bool keep;
    ~WorkCleanup() {
      if (!keep) dir.Remove();
    }
  } cleanup{pinned_->work, false};
  // Tools read the opened source, never a name.
  const std::string source = ToolSource();

  bool made = false;
  if (good) {
    if (info_.GetMimeType() == "image/jpeg") {
      DJpegCmd djpeg(info_, source, work);
      if (info_.GetFileSize() <= djpeg.GetConvertBytes()) {
        // Converting would not make it smaller than the source.
        outputType_ = kThumbOutputOriginal;
        return Fail();
      }
      made = djpeg.exec();
      if (made) needDelete_ = djpeg.IsNeedDelete();
    }
    if (info_.GetOutputMimeType() == "image/gif") {
      GIFConvertCmd gif(info_, source, work);
      made = gif.exec();
    }
  }
  if (!made) {
    if (!info_.IsWebAcceptable()) {
      DcrawCmd dcraw(info_, source, work);
      made = dcraw.exec();
      if (!made && good) made = ConvertCmd(info_, source, work).exec();
    } else if (good) {
      made = ConvertCmd(info_, source, work).exec();
    }
  }
  if (!made) return Fail();

  if (eaWritable) {
    if (!SaveTmpThumbToEA(work)) return Fail();
    BoundBoxThumbs(BaseName(outputFile_));
    outputType_ = kThumbOutputDossiva;
    return true;
  }
  const std::string name = BaseName(work);
  struct stat64 st;
  safe_fs::Fd fd = safe_fs::OpenRegularAt(pinned_->work.fd(), name, &st);
  if (!fd.valid() || !IsStorable(fd.get(), st, info_.GetOutputMimeType())) return Fail();
  outputFile_ = pinned_->work.path() + "/" + name;
  pinned_->SetOutput(outputFile_, std::move(fd), st);
  outputType_ = kThumbOutputDossivaVarTmp;
  cleanup.keep = true;
  return true;
}

// Requests for arbitrary boxes must not fill the disk: keep the newest few.
void Thumb::BoundBoxThumbs(const std::string& kept) {
  if (!internal::IsBoxThumbName(kept)) return;
  const int ea = EADir(false);
  if (ea < 0) return;
  const std::vector<safe_fs::Entry> entries = safe_fs::ListRegular(ea);
  std::vector<internal::StoredThumb> stored;
  for (const safe_fs::Entry& e : entries) stored.push_back({e.name, e.size, e.changed});
  for (const std::string& name : internal::BoxThumbsToRemove(stored, kept)) {
    for (const safe_fs::Entry& e : entries) {
      if (e.name != name) continue;
      struct stat64 st;
      st.st_dev = e.dev;
      st.st_ino = e.ino;
      safe_fs::UnlinkIfSame(ea, name, st);
    }
  }
}

// ---- Store ----------------------------------------------------------------------

bool Thumb::SaveThumbToEA(const std::string& src, const std::string& dst, long mtime) {
  struct stat64 st;
  safe_fs::Fd in = safe_fs::OpenRegular(src, &st);
  if (!in.valid()) {
    KT_LOG("Can not acess thumbnail '%s'\\n", src.c_str());
    return false;
  }
  if (!IsStorable(in.get(), st, info_.GetOutputMimeType())) {
    KT_LOG("Refused to store an empty or broken thumbnail '%s'", src.c_str());
    return false;
  }
  // The destination directory is opened without following links below the
  // source's directory; the file is staged in a private directory there,
  // stamped through its descriptor, then renamed into place.
  const std::string name = BaseName(dst);
  safe_fs::Fd dir = safe_fs::OpenDirBeneath(file::Dirname(path_), file::Dirname(dst));
  if (!dir.valid() && errno == EXDEV) dir = safe_fs::OpenDir(file::Dirname(dst));
  safe_fs::PrivateDir stage;
  bool staged = dir.valid() && stage.Create(dir.get(), kPrivatePrefix);
  if (staged && !safe_fs::RenameInto(src, stage.fd(), name)) {
    staged = errno == EXDEV && KLIBCExecl("/bin/mv", 0, "/bin/mv", src.c_str(), stage.ToolPath(name).c_str(),
                                          static_cast<char*>(nullptr)) == 0;
  }
  struct stat64 now;
  safe_fs::Fd file = staged ? safe_fs::OpenRegularAt(stage.fd(), name, &now) : safe_fs::Fd();
  if (!file.valid()) {
    KT_LOG("Failed to move thumbnail file from '%s' to '%s'", src.c_str(), dst.c_str());
    return false;
  }
  // A copy across file systems, or a file swapped in meanwhile: judge again.
  if ((now.st_dev != st.st_dev || now.st_ino != st.st_ino) &&
      !IsStorable(file.get(), now, info_.GetOutputMimeType())) {
    KT_LOG("Refused to store an empty or broken thumbnail '%s'", src.c_str());
    return false;
  }
  if (fchmod(file.get(), 0777) != 0) KT_LOG("Failed to chmod '%s'", dst.c_str());
  {
    internal::RunAsRootGuard guard(kSourceFile, kChownGuardLine);
    if (guard.Switched() && fchown(file.get(), 0, 0) != 0) {
      KT_LOG("Failed to chown '%s', %s", dst.c_str(), strerror(errno));
    }
  }
  // The source's time when it was probed: a source changed since gets a
  // thumbnail that is already stale, and is made again next time.
  if (mtime == 0) mtime = info_.fileStat_.st_mtime;
  if (mtime != 0) {
    internal::RunAsRootGuard guard(kSourceFile, kUtimeGuardLine);
    const struct timespec times[2] = {{0, 0}, {mtime, 0}};
    if (guard.Switched() && futimens(file.get(), times) != 0) {
      KT_LOG("Failed to chown '%s', %s", dst.c_str(), strerror(errno));
    }
  }
  if (!safe_fs::RenameAt(stage.fd(), name, dir.get(), name)) {
    KT_LOG("Failed to move thumbnail file from '%s' to '%s'", src.c_str(), dst.c_str());
    return false;
  }
  fstat64(file.get(), &now);
  pinned_->SetOutput(dst, std::move(file), now);
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
      if (e.Code() != kErrorUnknownType) {
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
    if (e.Code() != kErrorUnknownType) throw Error(e);
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
  if (quality_) {
    std::vector<std::pair<std::string, ThumbDimension>> jobs;
    for (const std::string& size : sizes) {
      const auto it = strThumbSizeMap_.find(size);
      jobs.emplace_back(size, it == strThumbSizeMap_.end() ? ThumbDimension{0, 0} : it->second);
    }
    return QualityConvert(std::move(jobs), true);
  }
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
  if (quality_) {
    std::vector<std::pair<std::string, ThumbDimension>> jobs;
    for (const ThumbDimension& dimension : dimensions) jobs.emplace_back(kSizeCustom, dimension);
    return QualityConvert(std::move(jobs), false);
  }
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
    const Pinned& p = *pinned_;
    const bool pinned = p.output.valid() && p.outputPath == outputFile_;
    JpegTranCmd jpegtran(info_, pinned ? safe_fs::ToolPath(p.output.get()) : outputFile_, "", true);
    FILE* stream = jpegtran.popen();
    return relay.Output(stream, BaseName(outputFile_).c_str(), mime.c_str()) == 0;
  }
  // Through the descriptor of the file that was checked.
  return relay.Output(ServePath().c_str(), mime.c_str()) == 0;
}

bool Thumb::OutputOriginalImage() {
  if (!info_.IsWebAcceptable()) return false;
  outputFile_ = path_;
  return HttpOutputFile(info_.GetMimeType());
}

}  // namespace kovathumb
