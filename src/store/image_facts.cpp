#include "store/image_facts.h"

#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "kovathumb/thumb_const.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace internal {

namespace {

// Colour profiles and Exif sit before the frame header; 64 KiB segments
// can be chained, so read enough for several.
constexpr size_t kHeadBytes = 512 * 1024;

uint32_t Be16(const unsigned char* p) { return (uint32_t{p[0]} << 8) | p[1]; }

bool IsFrameHeader(unsigned char m) {
  // SOF0..SOF15 except DHT (C4), JPG (C8) and DAC (CC).
  return m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC;
}

}  // namespace

JpegFacts ScanJpeg(const unsigned char* data, size_t size) {
  JpegFacts facts;
  if (size < 4 || data[0] != 0xFF || data[1] != 0xD8) return facts;
  size_t pos = 2;
  while (pos + 4 <= size) {
    if (data[pos] != 0xFF) return facts;
    const unsigned char marker = data[pos + 1];
    if (marker == 0xFF) {  // fill byte
      ++pos;
      continue;
    }
    if (marker == 0xD9 || marker == 0xDA) return facts;
    const uint32_t length = Be16(data + pos + 2);
    if (length < 2) return facts;
    const unsigned char* body = data + pos + 4;
    const size_t avail = size - (pos + 4);
    if (marker == 0xE2 && avail >= 12 && memcmp(body, "ICC_PROFILE", 12) == 0) facts.icc = true;
    if (IsFrameHeader(marker)) {
      if (avail < 6) return facts;
      facts.height = Be16(body + 1);
      facts.width = Be16(body + 3);
      facts.components = body[5];
      facts.ok = facts.width != 0 && facts.height != 0;
      return facts;
    }
    pos += 2 + length;
  }
  return facts;
}

JpegFacts ScanJpegFile(const std::string& path) {
  // Our pinned paths are magic links; anything else is never followed.
  struct stat64 st;
  safe_fs::Fd file = safe_fs::OpenRegular(path, &st);
  return file.valid() ? ScanJpegFd(file.get()) : JpegFacts();
}

JpegFacts ScanJpegFd(int fd) {
  // Most frame headers are in the first 64 KiB; read more only when not.
  std::unique_ptr<unsigned char[]> head(new unsigned char[kHeadBytes]);
  size_t got = 0;
  JpegFacts facts;
  for (size_t want = 64 * 1024; want <= kHeadBytes; want *= 8) {
    const ssize_t n = safe_fs::ReadAt(fd, reinterpret_cast<char*>(head.get()) + got, want - got,
                                      static_cast<off_t>(got));
    if (n > 0) got += static_cast<size_t>(n);
    facts = ScanJpeg(head.get(), got);
    if (facts.ok || got < want) break;  // found, or the whole file read
  }
  return facts;
}

}  // namespace internal

namespace store {

namespace {

bool StartsWith(const std::string& s, const char* prefix, size_t n, size_t at = 0) {
  return s.size() >= at + n && s.compare(at, n, prefix, n) == 0;
}

uint32_t Be32(const unsigned char* p) { return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3]; }
uint32_t Le16(const unsigned char* p) { return p[0] | (uint32_t{p[1]} << 8); }

}  // namespace

std::string SniffType(const std::string& head) {
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

ImageFacts ReadImageFacts(int fd) {
  ImageFacts facts;
  unsigned char head[32] = {};
  const ssize_t got = safe_fs::ReadAt(fd, reinterpret_cast<char*>(head), sizeof head, 0);
  if (got <= 0) return facts;
  const std::string type = SniffType(std::string(reinterpret_cast<char*>(head), static_cast<size_t>(got)));
  if (type == "jpeg") {
    const internal::JpegFacts f = internal::ScanJpegFd(fd);
    facts.mime = kMimeJpeg;
    if (f.ok) facts.width = f.width, facts.height = f.height;
  } else if (type == "png" && got >= 24) {
    facts.mime = kMimePng;
    facts.width = Be32(head + 16);
    facts.height = Be32(head + 20);
  } else if (type == "gif" && got >= 10) {
    facts.mime = kMimeGif;
    facts.width = Le16(head + 6);
    facts.height = Le16(head + 8);
  } else if (type == "bmp") {
    facts.mime = kMimeBmp;
  }
  return facts;
}

}  // namespace store
}  // namespace kovathumb
