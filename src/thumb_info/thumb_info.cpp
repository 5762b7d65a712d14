#include "kovathumb/thumb_info.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <syslog.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exiv2/exiv2.hpp>
#include <string>

#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb_const.h"
#include "thumb_info/decisions.h"
#include "util/log.h"
#include "util/path.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace {

// Exiv2's "unknown image type" and "cannot open the data source".
constexpr int kExivUnknownType = 11;
constexpr int kExivCannotOpen = 9;

bool OddTurns(int32_t rotate, int32_t userRotate) {
  return internal::TurnSum(rotate, userRotate) & 1;
}

// Debian's Exiv2 0.27 opens HEIF files as QuickTime video with no size,
// instead of rejecting them. We read photos only, so a source it takes for a
// video container is an unknown image type to us, and is never read: its
// video readers can spend minutes and hundreds of megabytes on a few crafted
// kilobytes. Told by the reader's type (the numbers of its riff, mkv, qtime
// and asf readers), not by mimeType(): the TIFF reader fixes its type and
// primary image on the first mimeType() call, and before readMetadata() that
// is the first sub-image (a raw's small thumbnail), not the raw itself.
bool IsVideoContainer(const Exiv2::Image& image) {
  const int type = image.imageType();
  return type == 20 || type == 21 || type == 22 || type == 24;
}

// Exiv2 writes its warnings to standard error, which in a CGI process is the
// web server's log and never ours: send them to the system log instead.
void ToSyslog(int level, const char* message) {
  if (level < Exiv2::LogMsg::warn) return;
  std::string text(message);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  internal::LogRaw(LOG_WARNING, "exiv2: %s", text.c_str());
}

// Exiv2 reads the opened source through its descriptor. Its own file
// reader opens the path anew, and closes it, for each pass over the file:
// three times a probe.
class PinnedIo : public Exiv2::BasicIo {
 public:
  PinnedIo(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  ~PinnedIo() override { munmap(); }
  int open() override {
    struct stat64 st;
    if (fstat64(fd_, &st) != 0) return 1;
    size_ = static_cast<size_t>(st.st_size);
    pos_ = 0;
    bufLen_ = 0;
    eof_ = false;
    open_ = true;
    return 0;
  }
  int close() override {
    munmap();
    open_ = false;
    return 0;
  }
  // Read only: we never write a source.
  long write(const Exiv2::byte*, long) override { return 0; }
  long write(Exiv2::BasicIo&) override { return 0; }
  int putb(Exiv2::byte) override { return EOF; }
  void transfer(Exiv2::BasicIo&) override { throw Exiv2::Error(Exiv2::kerErrorMessage, "read only"); }
  Exiv2::DataBuf read(long count) override {
    Exiv2::DataBuf buf(count);
    const long got = read(buf.pData_, buf.size_);
    if (got < 0) throw Exiv2::Error(Exiv2::kerInputDataReadFailed);
    buf.size_ = got;
    return buf;
  }
  // Buffered as stdio buffers Exiv2's own reader: it reads markers a byte
  // at a time.
  long read(Exiv2::byte* buf, long count) override {
    long done = 0;
    while (done < count) {
      const size_t want = static_cast<size_t>(count - done);
      if (pos_ >= bufAt_ && pos_ < bufAt_ + static_cast<off_t>(bufLen_)) {
        const size_t n = std::min(want, bufLen_ - static_cast<size_t>(pos_ - bufAt_));
        memcpy(buf + done, buffer_ + (pos_ - bufAt_), n);
        pos_ += static_cast<off_t>(n);
        done += static_cast<long>(n);
        continue;
      }
      const bool direct = want >= sizeof buffer_;
      const ssize_t got = direct ? safe_fs::ReadAt(fd_, reinterpret_cast<char*>(buf + done), want, pos_)
                                 : safe_fs::ReadAt(fd_, reinterpret_cast<char*>(buffer_), sizeof buffer_, pos_);
      if (got < 0) return -1;
      if (got == 0) break;
      if (direct) {
        pos_ += got;
        done += static_cast<long>(got);
        if (static_cast<size_t>(got) < want) break;
      } else {
        bufAt_ = pos_;
        bufLen_ = static_cast<size_t>(got);
      }
    }
    eof_ = done < count;
    return done;
  }
  int getb() override {
    Exiv2::byte b;
    return read(&b, 1) == 1 ? b : EOF;
  }
  int seek(long offset, Position from) override {
    const off_t base = from == beg ? 0 : from == cur ? pos_ : static_cast<off_t>(size_);
    if (base + offset < 0) return 1;
    pos_ = base + offset;
    eof_ = false;
    return 0;
  }
  Exiv2::byte* mmap(bool writeable) override {
    munmap();
    if (writeable) throw Exiv2::Error(Exiv2::kerErrorMessage, "read only");
    if (size_ == 0) return nullptr;
    void* map = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_, 0);
    if (map == MAP_FAILED) throw Exiv2::Error(Exiv2::kerCallFailed, path_, strerror(errno), "mmap");
    map_ = static_cast<Exiv2::byte*>(map);
    mapped_ = size_;
    return map_;
  }
  int munmap() override {
    if (map_ != nullptr) ::munmap(map_, mapped_);
    map_ = nullptr;
    return 0;
  }
  long tell() const override { return static_cast<long>(pos_); }
  size_t size() const override { return size_; }
  bool isopen() const override { return open_; }
  int error() const override { return 0; }
  bool eof() const override { return eof_; }
  std::string path() const override { return path_; }

 private:
  int fd_;
  std::string path_;
  size_t size_ = 0;
  off_t pos_ = 0;
  Exiv2::byte buffer_[4096];
  off_t bufAt_ = 0;  // the file's bytes from here are in buffer_
  size_t bufLen_ = 0;
  bool eof_ = false;
  bool open_ = false;
  Exiv2::byte* map_ = nullptr;
  size_t mapped_ = 0;
};

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

void ThumbInfo::Read(bool facts, bool preview) {
  if (IsSupportVideo(internal::BaseName(path_))) return;

  bool failed = false;
  int code = 0;
  std::string text;
  int index = 0;
  {
    std::lock_guard<std::mutex> lock(exiv2_mutex_);
    static const bool routed = (Exiv2::LogMsg::setHandler(ToSyslog), true);
    (void)routed;
    try {
      if (!sourceFd_) {  // there, but not readable by us
        throw Exiv2::Error(Exiv2::kerDataSourceOpenFailed, path_, strerror(EACCES));
      }
      // Exiv2 0.27 takes and gives std::auto_ptr, which clang flags when
      // named; null for a type it does not know.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
      auto image = Exiv2::ImageFactory::open(Exiv2::BasicIo::AutoPtr(new PinnedIo(*sourceFd_, PinnedSource())));
#pragma GCC diagnostic pop
      if (image.get() == nullptr) throw Exiv2::Error(Exiv2::kerFileContainsUnknownImageType, PinnedSource());
      if (IsVideoContainer(*image)) throw Exiv2::Error(Exiv2::kerFileContainsUnknownImageType, path_);
      image->readMetadata();
      const std::string mimeType = image->mimeType();
      if (facts) {
        mimeType_ = mimeType;
        width_ = static_cast<uint32_t>(image->pixelWidth());
        height_ = static_cast<uint32_t>(image->pixelHeight());
      }
      if (preview) ExtractEXIFPreviewInfo(image);
      if (facts) index = ResolveOrientationIndex(*image);
    } catch (const Exiv2::AnyError& e) {
      failed = true;
      code = e.code();
      text = e.what();
    }
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
  if (mimeType_ == kMimeGif && enableGIF_ && !cropMode_) return kMimeGif;
  if (mimeType_ == kMimePng) return kMimePng;
  return kMimeJpeg;
}

std::string ThumbInfo::GetOutputExtension() const {
  if (mimeType_ == kMimeGif && enableGIF_ && !cropMode_) return ".gif";
  if (mimeType_ == kMimePng) return ".png";
  return ".jpg";
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
  // Only a regular, non-empty file counts: never a link, FIFO or directory.
  if (!safe_fs::StatNoFollow(thumbPath, &st) || !S_ISREG(st.st_mode) || st.st_size <= 0) return false;
  return fileStat_.st_mtime <= st.st_mtime;
}

int ThumbInfo::UpdateAMTime(const std::string& file) const {
  const struct timespec times[2] = {{fileStat_.st_atime, 0}, {fileStat_.st_mtime, 0}};
  return utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace kovathumb
