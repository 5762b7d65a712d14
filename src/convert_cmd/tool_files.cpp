#include "convert_cmd/tool_files.h"

#include <ctype.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include "kovathumb/thumb_const.h"
#include "store/image_facts.h"

namespace kovathumb {
namespace internal {


std::string CoderFor(const std::string& mime) {
  static const std::pair<const char*, const char*> kCoders[] = {
      {kMimeJpeg, "jpeg"}, {kMimePng, "png"},   {kMimeGif, "gif"},     {kMimeBmp, "bmp"},
      {"image/bmp", "bmp"}, {kMimeTiff, "tiff"}, {"image/heic", "heic"}, {"image/heif", "heic"},
  };
  for (const auto& c : kCoders) {
    if (mime == c.first) return c.second;
  }
  return std::string();
}

std::string MagickCoder(const std::string& head, const std::string& mime) {
  if (head.empty()) return CoderFor(mime);
  return store::SniffType(head);
}

int OpenInput(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string ReadHead(int fd) {
  char buf[16];
  const ssize_t n = fd < 0 ? -1 : pread(fd, buf, sizeof buf, 0);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

std::string MagickSafeName(const std::string& name) {
  std::string safe(name);
  for (char& c : safe) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') c = '_';
  }
  return safe;
}

int CreateExclusive(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

std::string RandomText(size_t n) {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  unsigned char bytes[64];
  if (n > sizeof bytes) n = sizeof bytes;
  size_t got = 0;
  while (got < n) {
    const ssize_t r = getrandom(bytes + got, n - got, 0);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  std::string text;
  for (size_t i = 0; i < got; ++i) text += kAlphabet[bytes[i] % (sizeof kAlphabet - 1)];
  return text;
}

int RandomNumber() {
  uint32_t n = 0;
  while (getrandom(&n, sizeof n, 0) != static_cast<ssize_t>(sizeof n)) {
  }
  return static_cast<int>(n & 0x7fffffffU);
}

}  // namespace internal
}  // namespace kovathumb
