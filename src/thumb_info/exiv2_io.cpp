#include "thumb_info/exiv2_io.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "util/log.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace internal {

namespace {

void ToSyslog(int level, const char* message) {
  if (level < Exiv2::LogMsg::warn) return;
  std::string text(message);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  internal::LogRaw(LOG_WARNING, "exiv2: %s", text.c_str());
}

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

bool IsVideoContainer(const Exiv2::Image& image) {
  const int type = image.imageType();
  return type == 20 || type == 21 || type == 22 || type == 24;
}

void RouteExiv2Log() {
  static const bool routed = (Exiv2::LogMsg::setHandler(ToSyslog), true);
  (void)routed;
}

Exiv2::BasicIo* NewPinnedIo(int fd, const std::string& path) { return new PinnedIo(fd, path); }

}  // namespace internal
}  // namespace kovathumb
