// Thumb's destinations: thumbnails stored in the EA directory, the camera's
// embedded preview, and a conversion made now.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"
#include "libkovathumb/log_sites.h"
#include "libkovathumb/pinned.h"
#include "libkovathumb/store_rules.h"
#include "libkovathumb/thumb_shared.h"
#include "store/fresh.h"
#include "store/image_facts.h"
#include "store/names.h"
#include "thumb_info/decisions.h"
#include "thumb_info/thumb_info_access.h"
#include "util/ea_dir.h"
#include "util/safe_fs.h"

namespace kovathumb {

using internal::BaseName;

bool Thumb::Fail() {
  outputFile_.clear();
  pinned_->output.reset();
  return false;
}

int Thumb::EADir(bool make) {
  safe_fs::Fd& ea = pinned_->eaDir;
  if (!ea.valid()) ea = file::OpenEADir(path_);
  if (!ea.valid() && make && file::MakeEADir(path_)) {
    ea = file::OpenEADir(path_);
    // Made for this request: it goes again if nothing is stored in it.
    if (ea.valid()) pinned_->madeEADir = BaseName(path_);
  }
  return ea.get();
}

std::string Thumb::ToolSource() const {
  const int* fd = internal::ThumbInfoAccess::SourceFd(info_);
  return fd != nullptr ? safe_fs::ToolPath(*fd) : path_;
}

std::string Thumb::ServePath() const {
  const Pinned& p = *pinned_;
  if (p.output.valid() && p.outputPath == outputFile_) return safe_fs::SelfPath(p.output.get());
  return outputFile_ == path_ ? internal::ThumbInfoAccess::PinnedSource(info_) : outputFile_;
}

bool Thumb::SetOutStored(const std::string& name, bool needEAPath, bool condition, int type) {
  const std::string path = file::GetEAPath(path_, name);
  if (needEAPath && path.empty()) return Fail();
  if (path.empty() || !condition) return Fail();
  // The store's one rule decides, on the very file that is then sent.
  const int ea = EADir(false);
  const store::Behaviour behaviour = quality_ ? store::Behaviour::kQuality : store::Behaviour::kAppliance;
  struct stat64 st;
  safe_fs::Fd fd;
  if (!store::ServesAt(ea, name, internal::ThumbInfoAccess::ProbedMtime(info_), behaviour, &fd, &st)) return Fail();
  outputFile_ = path;
  pinned_->SetOutput(path, std::move(fd), st);
  outputType_ = type;
  return true;
}

// A probe is a sandboxed child, the most a stored answer would cost. Of its
// facts a named size's stored name takes only the type, which the first
// bytes tell as the probe would, and the orientation's turn: where the
// store holds one fresh file among the four turns, it was made for this
// source as it still is (the freshness rule's premise), and it is the
// answer. None, or two (the source rewritten, a name planted), and the
// probe decides as ever. Boxes (custom sizes, avatars) take the source's
// size into their names: those always probe, as do the types whose facts
// depend on the behaviour (a thumbnail the other stored is no evidence).
bool Thumb::SetOutStoredUnprobed() {
  const int* source = internal::ThumbInfoAccess::SourceFd(info_);
  const store::SizeRow* row = store::FindSize(info_.GetSize());
  if (isVideo_ || avatar_ || source == nullptr || row == nullptr || *row->letter == '\0' || EADir(false) < 0) {
    return false;
  }
  char head[16];
  const ssize_t got = pread(*source, head, sizeof head, 0);
  const std::string type = store::SniffType(std::string(head, got > 0 ? static_cast<size_t>(got) : 0));
  // Types both behaviours probe alike; a HEIF's turn, and whether the
  // newer types are read at all, differ between them.
  if (type != "jpeg" && type != "png" && type != "gif" && type != "bmp" && type != "tiff") return false;
  const std::string mime = type == "png" ? kMimePng : type == "gif" ? kMimeGif : std::string();
  store::StoredName n;
  n.letter = row->letter;
  n.ext = internal::OutputExtension(mime, info_.GetEnableGIF(), info_.GetCropMode());
  bool served = false;
  for (store::Scheme scheme : {store::Scheme::kPictavo, store::Scheme::kPictavoOld}) {
    n.scheme = scheme;
    served = served || (wantPictavoEA_ && SetOutStored(store::Build(n), true, true, kThumbOutputPictavo));
  }
  if (!served && wantDossivaEA_) {
    n.scheme = store::Scheme::kDossiva;
    const store::Behaviour behaviour = quality_ ? store::Behaviour::kQuality : store::Behaviour::kAppliance;
    std::string only;
    for (int32_t rotate = 0; rotate < 4; ++rotate) {
      n.turns = internal::TurnSum(rotate, info_.GetUserRotate()) % 4;
      const std::string name = store::Build(n);
      if (!store::ServesAt(EADir(false), name, internal::ThumbInfoAccess::ProbedMtime(info_), behaviour)) continue;
      if (!only.empty()) return false;
      only = name;
    }
    served = !only.empty() && SetOutStored(only, false, true, kThumbOutputDossiva);
  }
  if (served) pinned_->unprobedMime = store::MimeOfExt(n.ext);
  return served;
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
  ProbeTolerant(false, true);
  if (quality_) return QualityFromPreview();
  if (!info_.IsGood()) return Fail();
  const std::string preview = info_.GetEXIFPreviewTmpPath();
  const std::string dest = file::GetEAPath(path_, info_.GetDossivaThumbEAName());
  if (preview.empty()) return Fail();
  if (EADir(true) < 0) {
    unlink(preview.c_str());
    return Fail();
  }
  const bool upright = internal::TurnSum(info_.GetRotate(), info_.GetUserRotate()) % 4 == 0;
  if (info_.GetMimeType() == kMimeJpeg && upright) {
    if (!SaveTmpThumbToEA(preview)) {
      KT_LOG_AT(internal::site::kPreviewNotSaved, "failed to save to EA");
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
      // "accepatable" is kept as the appliance writes it: log readers match it.
      KT_LOG_AT(internal::site::kPreviewNotConverted,
                "failed to rotate or convert tmp file to web accepatable img %s -> %s", preview.c_str(),
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
    if (ea < 0 || !dir.Create(ea, safe_fs::kPrivatePrefix)) return false;
    *work = dir.ToolPath(info_.GetDossivaTmpThumbEAName());
  } else {
    if (!dir.CreateAt(internal::kVarTmpTemplate)) return false;
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
    if (info_.GetMimeType() == kMimeJpeg) {
      DJpegCmd djpeg(info_, source, work);
      if (info_.GetFileSize() <= djpeg.GetConvertBytes()) {
        // Converting would not make it smaller than the source.
        outputType_ = kThumbOutputOriginal;
        return Fail();
      }
      made = djpeg.exec();
      if (made) needDelete_ = djpeg.IsNeedDelete();
    }
    if (info_.GetOutputMimeType() == kMimeGif) {
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
    outputType_ = kThumbOutputDossiva;
    return true;
  }
  const std::string name = BaseName(work);
  struct stat64 st;
  safe_fs::Fd fd = safe_fs::OpenRegularAt(pinned_->work.fd(), name, &st);
  if (!fd.valid() || !internal::IsStorable(fd.get(), st, info_.GetOutputMimeType())) return Fail();
  outputFile_ = pinned_->work.path() + "/" + name;
  pinned_->SetOutput(outputFile_, std::move(fd), st);
  outputType_ = kThumbOutputDossivaVarTmp;
  cleanup.keep = true;
  return true;
}

}  // namespace kovathumb
