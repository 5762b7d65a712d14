// Thumb's store: the one way a file enters the EA directory, and the batch
// members that make and store whole sets of thumbnails.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "kovaplatform/kovaplatform.h"
#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"
#include "libkovathumb/log_sites.h"
#include "libkovathumb/pinned.h"
#include "libkovathumb/run_as_root_guard.h"
#include "libkovathumb/store_rules.h"
#include "libkovathumb/thumb_shared.h"
#include "thumb_info/thumb_info_access.h"
#include "util/safe_fs.h"
#include "util/system.h"

namespace kovathumb {

namespace internal {

bool IsStorable(int fd, const struct stat64& st, const std::string& mime) {
  if (st.st_size > MaxThumbBytes()) return false;
  char head[kProbeBytes];
  char tail[kProbeBytes];
  const off_t tailAt = std::max<off_t>(0, st.st_size - static_cast<off_t>(sizeof tail));
  const ssize_t h = safe_fs::ReadAt(fd, head, sizeof head, 0);
  const ssize_t t = safe_fs::ReadAt(fd, tail, sizeof tail, tailAt);
  if (h < 0 || t < 0) return false;
  return IsStorableImage(std::string(head, static_cast<size_t>(h)), std::string(tail, static_cast<size_t>(t)),
                         st.st_size, mime);
}

}  // namespace internal

namespace {

// Requests for arbitrary boxes must not fill the disk: keep the newest few
// in `dir`, `kept` (just stored) among them. Every store trims, whichever
// path made the file, so concurrent requests end within the bound too.
void BoundBoxThumbs(int dir, const std::string& kept) {
  if (!internal::IsBoxThumbName(kept)) return;
  const std::vector<safe_fs::Entry> entries = safe_fs::ListRegular(dir);
  std::vector<internal::StoredThumb> stored;
  for (const safe_fs::Entry& e : entries) stored.push_back({e.name, e.size, e.changed});
  for (const std::string& name : internal::BoxThumbsToRemove(stored, kept)) {
    for (const safe_fs::Entry& e : entries) {
      if (e.name != name) continue;
      struct stat64 st;
      st.st_dev = e.dev;
      st.st_ino = e.ino;
      safe_fs::UnlinkIfSame(dir, name, st);
    }
  }
}

}  // namespace

using internal::BaseName;
using internal::IsStorable;
namespace site = internal::site;

bool Thumb::SaveThumbToEA(const std::string& src, const std::string& dst, long mtime) {
  struct stat64 st;
  safe_fs::Fd in = safe_fs::OpenRegular(src, &st);
  if (!in.valid()) {
    // Kept as the appliance writes it, typo and literal "\n" included: log readers match it.
    KT_LOG_AT(site::kCannotAccess, "Can not acess thumbnail '%s'\\n", src.c_str());
    return false;
  }
  if (!IsStorable(in.get(), st, info_.GetOutputMimeType())) {
    KT_LOG_AT(site::kRefused, "Refused to store an empty or broken thumbnail '%s'", src.c_str());
    return false;
  }
  // The destination directory is opened without following links below the
  // source's directory; the file is staged in a private directory there,
  // stamped through its descriptor, then renamed into place.
  const std::string name = BaseName(dst);
  safe_fs::Fd dir = safe_fs::OpenDirBeneath(file::Dirname(path_), file::Dirname(dst));
  if (!dir.valid() && errno == EXDEV) dir = safe_fs::OpenDir(file::Dirname(dst));
  safe_fs::PrivateDir stage;
  bool staged = dir.valid() && stage.Create(dir.get(), safe_fs::kPrivatePrefix);
  if (staged && !safe_fs::RenameInto(src, stage.fd(), name)) {
    staged = errno == EXDEV && KLIBCExecl("/bin/mv", 0, "/bin/mv", src.c_str(), stage.ToolPath(name).c_str(),
                                          static_cast<char*>(nullptr)) == 0;
  }
  struct stat64 now;
  safe_fs::Fd file = staged ? safe_fs::OpenRegularAt(stage.fd(), name, &now) : safe_fs::Fd();
  if (!file.valid()) {
    KT_LOG_AT(site::kNotStaged, "Failed to move thumbnail file from '%s' to '%s'", src.c_str(), dst.c_str());
    return false;
  }
  // A copy across file systems, or a file swapped in meanwhile: judge again.
  if ((now.st_dev != st.st_dev || now.st_ino != st.st_ino) &&
      !IsStorable(file.get(), now, info_.GetOutputMimeType())) {
    KT_LOG_AT(site::kRefusedStaged, "Refused to store an empty or broken thumbnail '%s'", src.c_str());
    return false;
  }
  const internal::System& sys = internal::Sys();
  if (sys.fchmod(file.get(), 0777) != 0) KT_LOG_AT(site::kChmod, "Failed to chmod '%s'", dst.c_str());
  {
    internal::RunAsRootGuard guard(site::kChownGuard);
    if (guard.Switched() && sys.fchown(file.get(), 0, 0) != 0) {
      KT_LOG_AT(site::kChown, "Failed to chown '%s', %s", dst.c_str(), strerror(errno));
    }
  }
  // The source's time when it was probed: a source changed since gets a
  // thumbnail that is already stale, and is made again next time.
  if (mtime == 0) mtime = internal::ThumbInfoAccess::ProbedMtime(info_);
  if (mtime != 0) {
    internal::RunAsRootGuard guard(site::kUtimeGuard);
    const struct timespec times[2] = {{0, 0}, {mtime, 0}};
    if (guard.Switched() && sys.futimens(file.get(), times) != 0) {
      // "chown" for a time failure is the appliance's text, kept for its log readers.
      KT_LOG_AT(site::kUtime, "Failed to chown '%s', %s", dst.c_str(), strerror(errno));
    }
  }
  if (!safe_fs::RenameAt(stage.fd(), name, dir.get(), name)) {
    KT_LOG_AT(site::kNotMoved, "Failed to move thumbnail file from '%s' to '%s'", src.c_str(), dst.c_str());
    return false;
  }
  fstat64(file.get(), &now);
  pinned_->SetOutput(dst, std::move(file), now);
  BoundBoxThumbs(dir.get(), name);
  return true;
}

bool Thumb::SaveTmpThumbToEA(const std::string& tmp) {
  outputFile_ = GetOnlineOutputDest();
  return SaveThumbToEA(tmp, outputFile_, 0);
}

bool Thumb::SaveExistingThumbsToEA(std::vector<std::pair<std::string, std::string>> thumbs, long mtime,
                                   bool checkMime) {
  try {
    ProbeTolerant(true, true);
  } catch (const Error&) {
    // "extrace" is kept as the appliance writes it.
    KT_LOG_AT(site::kImportProbe, "Failed to extrace img info '%s'", path_.c_str());
    throw;
  }
  if (!file::MakeEADir(path_)) {
    KT_LOG_AT(site::kImportEADir, "Failed to create eadir '%s'", path_.c_str());
    return false;
  }
  bool failed = false;
  for (const auto& thumb : thumbs) {
    if (checkMime) {
      try {
        ThumbInfo ready(thumb.second, kSizeOriginal, {internal::kUnlimited, internal::kUnlimited});
        ready.ExtractImgInfo(true);
        const std::string readyPreview = ready.GetEXIFPreviewTmpPath();
        if (!readyPreview.empty()) unlink(readyPreview.c_str());
        if (ready.GetMimeType() != info_.GetOutputMimeType()) {
          KT_LOG_AT(site::kImportMime, "Thumbnail has different mime type '%s'", thumb.second.c_str());
          failed = true;
          continue;
        }
      } catch (const Error&) {
        KT_LOG_AT(site::kImportCheck, "Can not check thumbnail info of '%s'", thumb.second.c_str());
        failed = true;
        continue;
      }
    }
    SetSize(thumb.first);
    if (!SaveThumbToEA(thumb.second, GetOnlineOutputDest(), mtime)) failed = true;
  }
  return !failed;
}

bool Thumb::ConvertAll() {
  return Convert(std::vector<std::string>(std::begin(kConvertibleSizes), std::end(kConvertibleSizes))) > 0;
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
      ProbeFacts();
      SetSize(size);
      made += SetOutOnline() ? 1 : 0;
    } catch (...) {
      KT_LOG_AT(site::kConvertSizes, "Unknown Internal Error");
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
      ProbeFacts();
      SetSize(kSizeCustom, dimension);
      made += SetOutOnline() ? 1 : 0;
    } catch (...) {
      KT_LOG_AT(site::kConvertDimensions, "Unknown Internal Error");
    }
  }
  return made;
}

}  // namespace kovathumb
