// A decoder's whole source in memory, read through its descriptor from the
// start. Header-only: the lazily loaded decoder module uses it too.
#ifndef KOVATHUMB_QUALITY_SOURCE_BYTES_H_
#define KOVATHUMB_QUALITY_SOURCE_BYTES_H_

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace kovathumb {
namespace internal {

// Larger sources are refused before reading: no photo we thumbnail comes
// near it, and the decoder's memory bound would end it later anyway.
constexpr uint64_t kMaxSourceBytes = uint64_t{256} << 20;

inline bool ReadSource(int fd, std::vector<uint8_t>* bytes, std::string* why) {
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return *why = "not a regular file", false;
  if (static_cast<uint64_t>(st.st_size) > kMaxSourceBytes) return *why = "source too large", false;
  bytes->resize(static_cast<size_t>(st.st_size));
  size_t done = 0;
  while (done < bytes->size()) {
    const ssize_t got = pread(fd, bytes->data() + done, bytes->size() - done, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  bytes->resize(done);  // a file cut short meanwhile: what is there
  if (done == 0) return *why = "empty source", false;
  return true;
}

// Whether `w` x `h` may be decoded under `maxPixels`.
inline bool WithinPixels(uint64_t w, uint64_t h, uint64_t maxPixels, std::string* why) {
  if (w == 0 || h == 0) return *why = "no picture size", false;
  if (w * h > maxPixels) return *why = "picture larger than the pixel bound", false;
  return true;
}

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_SOURCE_BYTES_H_
