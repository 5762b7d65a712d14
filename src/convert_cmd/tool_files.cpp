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

namespace kovathumb {
namespace internal {

namespace {

bool StartsWith(const std::string& s, const char* prefix, size_t n, size_t at = 0) {
  return s.size() >= at + n && s.compare(at, n, prefix, n) == 0;
}

}  // namespace

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
  if (StartsWith(head, "\xFF\xD8\xFF", 3)) return "jpeg";
  if (StartsWith(head, "\x89PNG\r\n\x1A\n", 8)) return "png";
  if (StartsWith(head, "GIF87a", 6) || StartsWith(head, "GIF89a", 6)) return "gif";
  if (StartsWith(head, "BM", 2)) return "bmp";
  if (StartsWith(head, "II*\0", 4) || StartsWith(head, "MM\0*", 4)) return "tiff";
  if (StartsWith(head, "P6", 2) || StartsWith(head, "P5", 2)) return "ppm";  // dcraw's previews
  if (StartsWith(head, "ftyp", 4, 4)) {
    for (const char* brand : {"heic", "heix", "mif1", "msf1"}) {
      if (StartsWith(head, brand, 4, 8)) return "heic";
    }
  }
  return "";
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
