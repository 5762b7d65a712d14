#include "kovathumb/thumb_info.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exiv2/exiv2.hpp>
#include <string>

#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb_const.h"
#include "store/fresh.h"
#include "thumb_info/decisions.h"
#include "thumb_info/exiv2_io.h"
#include "thumb_info/probe.h"
#include "libkovathumb/quality.h"
#include "util/log.h"
#include "util/path.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace internal {

std::string OutputExtension(const std::string& mime, bool enableGIF, bool crop) {
  if (mime == kMimeGif && enableGIF && !crop) return ".gif";
  if (mime == kMimePng) return ".png";
  return ".jpg";
}

}  // namespace internal

namespace {

// Exiv2's "unknown image type" and "cannot open the data source".
constexpr int kExivUnknownType = 11;
constexpr int kExivCannotOpen = 9;

bool OddTurns(int32_t rotate, int32_t userRotate) {
  return internal::TurnSum(rotate, userRotate) & 1;
}

}  // namespace

const uint32_t ThumbInfo::LARGE_ORIG_THRESHOLD;
std::mutex ThumbInfo::exiv2_mutex_;

ThumbInfo::ThumbInfo(const std::string& path, const std::string& size, const ThumbDimension& dim)
    : path_(path),
      size_(size),
      dimension_(dim),
      width_(0),
      height_(0),
      rotate_(0),
      userRotate_(0),
      good_(false),
      heic_(false),
      flop_(false),
      enableGIF_(false),
      cropMode_(false),
      quality_(false) {
  memset(&fileStat_, 0, sizeof fileStat_);
  // Opened once, without following a link: every later reading (ours and
  // the tools') is of this very file.
  safe_fs::Fd fd = safe_fs::OpenRegular(path_, &fileStat_);
  if (fd.valid()) {
    sourceFd_ = std::shared_ptr<const int>(new int(fd.release()), [](const int* p) {
      close(*p);
      delete p;
    });
  } else if (errno != EACCES || !S_ISREG(fileStat_.st_mode)) {
    throw Error(kErrorCannotExamine, "Can't stat " + path_);
  }
}

std::string ThumbInfo::PinnedSource() const {
  return sourceFd_ ? safe_fs::SelfPath(*sourceFd_) : path_;
}

ThumbInfo::~ThumbInfo() = default;

void ThumbInfo::ExtractImgInfo(bool withPreview) { Read(true, withPreview); }

int ThumbInfo::ChoosePreview(const std::vector<internal::PreviewProps>& props) const {
  return quality_ ? internal::ChooseQualityPreview(props, width_, height_, dimension_)
                  : internal::ChoosePreview(props, mimeType_, dimension_);
}

void ThumbInfo::Read(bool facts, bool preview) {
  if (IsSupportVideo(internal::BaseName(path_))) return;

  // Exiv2 reads the source in a sandboxed child; what comes back is data,
  // checked before it is taken.
  internal::Probed probed;
  {
    std::lock_guard<std::mutex> lock(exiv2_mutex_);
    const internal::ProbeRequest request{sourceFd_ ? *sourceFd_ : -1, path_, PinnedSource(), facts, preview,
                                         [this](const std::vector<internal::PreviewProps>& props) {
                                           return ChoosePreview(props);
                                         },
                                         [this](Exiv2::Image& image) { return ResolveOrientationIndex(image); }};
    probed = internal::ProbeInSandbox(request, rotateFlopMappingList_.size());
  }
  const bool failed = probed.failed;
  const int code = probed.code;
  const std::string& text = probed.text;
  const int index = probed.index;
  if (!failed && facts) {
    mimeType_ = probed.mime;
    width_ = probed.width;
    height_ = probed.height;
    previews_.reset();
    if (probed.previewsListed) previews_ = std::make_shared<std::vector<internal::PreviewProps>>(probed.previews);
  }
  if (!failed && preview) {
    exifPreviewTmpPath_.clear();
    if (probed.previewFound) StoreEXIFPreview(probed.extension, probed.data);
  }

  if (failed) {
    if (ProbeModern(facts)) return;
    if (!facts) good_ = false;  // as when the preview was read with the facts
    if (code != kExivCannotOpen && code != kExivUnknownType) {
      // Named as the member the caller called.
      internal::LogError(__FILE_NAME__, __LINE__, "ExtractImgInfo", "Exiv2 exception: E%d %s", code, text.c_str());
    }
    if (code == kExivCannotOpen) throw Error(kErrorCannotOpen, text);
    if (code != kExivUnknownType) throw Error(kErrorCannotExamine, text);
    const std::string ext = file::GetFileExt(internal::BaseName(path_));
    if (ext == "heif" || ext == "heic" || (quality_ && ext == "hif")) {
      CheckAndGetHeif();
      if (IsHeic()) return;
    }
    throw Error(kErrorUnknownType, text);
  }

  if (!facts) return;
  rotate_ = rotateFlopMappingList_[static_cast<size_t>(index)].first;
  flop_ = rotateFlopMappingList_[static_cast<size_t>(index)].second;
  good_ = true;
}

bool ThumbInfo::IsGood() const { return good_ || heic_; }
bool ThumbInfo::IsHeic() const { return heic_; }
const std::string& ThumbInfo::GetMimeType() const { return mimeType_; }
const std::string& ThumbInfo::GetSize() const { return size_; }
ThumbDimension ThumbInfo::GetDimension() const { return dimension_; }
unsigned ThumbInfo::GetWidth() const { return width_; }
unsigned ThumbInfo::GetHeight() const { return height_; }
unsigned ThumbInfo::GetFileSize() const { return static_cast<uint32_t>(fileStat_.st_size); }
int ThumbInfo::GetRotate() const { return rotate_; }
int ThumbInfo::GetUserRotate() const { return userRotate_; }
bool ThumbInfo::GetFlop() const { return flop_; }
bool ThumbInfo::GetEnableGIF() const { return enableGIF_; }
bool ThumbInfo::GetCropMode() const { return cropMode_; }

void ThumbInfo::SetUserRotate(int quarterTurns) { userRotate_ = quarterTurns; }
void ThumbInfo::SetEnableGIF(bool enable) { enableGIF_ = enable; }
void ThumbInfo::SetCropMode(bool crop) { cropMode_ = crop; }
void ThumbInfo::SetQuality(bool quality) { quality_ = quality; }

std::string ThumbInfo::GetOutputMimeType() const {
  return store::MimeOfExt(GetOutputExtension());
}

std::string ThumbInfo::GetOutputExtension() const {
  return internal::OutputExtension(mimeType_, enableGIF_, cropMode_);
}

ThumbDimension ThumbInfo::GetTargetDimension() const {
  const bool odd = OddTurns(rotate_, userRotate_);
  const uint32_t w = dimension_.width;
  const uint32_t h = dimension_.height;
  if (width_ == 0 || height_ == 0) return odd ? ThumbDimension{h, w} : ThumbDimension{w, h};
  if (odd) return ThumbDimension{std::min(width_, h), std::min(height_, w)};
  return ThumbDimension{std::min(width_, w), std::min(height_, h)};
}

bool ThumbInfo::IsNeedConvert() const {
  if (mimeType_ == kMimeGif && !enableGIF_) return true;
  if (!IsWebAcceptable()) return true;
  if (internal::TurnSum(rotate_, userRotate_) != 0) return true;
  if (size_ == "large") return width_ * height_ >= LARGE_ORIG_THRESHOLD;
  const bool odd = OddTurns(rotate_, userRotate_);
  const uint32_t bw = odd ? dimension_.height : dimension_.width;
  const uint32_t bh = odd ? dimension_.width : dimension_.height;
  return width_ > bw || height_ > bh;
}

bool ThumbInfo::IsWebAcceptable() const {
  return mimeType_ == kMimeJpeg || mimeType_ == kMimePng || mimeType_ == kMimeGif ||
         mimeType_ == kMimeBmp;
}

bool ThumbInfo::IsThumbUptoDate(const std::string& thumbPath) const {
  struct stat64 st;
  // Only a regular file counts: never a link, FIFO or directory.
  if (!safe_fs::StatNoFollow(thumbPath, &st)) return false;
  store::StoredFile f;
  f.regular = S_ISREG(st.st_mode);
  f.size = st.st_size;
  f.mtime = st.st_mtime;
  return store::Serves(store::StoredName(), f, fileStat_.st_mtime, store::Behaviour::kAppliance);
}

int ThumbInfo::UpdateAMTime(const std::string& file) const {
  const struct timespec times[2] = {{fileStat_.st_atime, 0}, {fileStat_.st_mtime, 0}};
  return utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace kovathumb
