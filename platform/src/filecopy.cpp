// File copy and move. A copy goes to a hidden temporary name beside the
// destination and is renamed into place, so no reader sees half a file.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "kovaplatform/kovaplatform.h"

static_assert(sizeof(KOVA_FILE_COPY_OPT) == 60, "options record is 60 bytes");

namespace {

bool CopyFd(int in, int out, off_t size) {
  off_t done = 0;
  while (done < size) {
    ssize_t n = sendfile(out, in, nullptr, static_cast<size_t>(size - done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EINVAL || errno == ENOSYS)) break;  // plain copy below
    if (n <= 0) return n == 0;  // the source shrank: keep what was read
    done += n;
  }
  char buf[65536];
  for (;;) {
    ssize_t n = read(in, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    for (ssize_t off = 0; off < n;) {
      ssize_t w = write(out, buf + off, static_cast<size_t>(n - off));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      off += w;
    }
  }
}

int Copy(const char* src, const char* dst) {
  int in = open(src, O_RDONLY | O_CLOEXEC);
  if (in < 0) return -1;
  struct stat st;
  errno = 0;
  if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
    int e = errno;
    if (e == 0 || S_ISDIR(st.st_mode)) e = EINVAL;
    close(in);
    errno = e;
    return -1;
  }
  std::string d(dst);
  size_t slash = d.rfind('/');
  std::string tmp = (slash == std::string::npos ? std::string() : d.substr(0, slash + 1)) +
                    ".kovacopy." + std::to_string(getpid()) + "." +
                    std::to_string(static_cast<long>(time(nullptr)));
  int out = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777);
  if (out < 0) {
    int e = errno;
    close(in);
    errno = e;
    return -1;
  }
  bool ok = CopyFd(in, out, st.st_size);
  int e = errno;
  close(in);
  if (close(out) != 0 && ok) {
    ok = false;
    e = errno;
  }
  if (ok && rename(tmp.c_str(), dst) == 0) return 0;
  if (ok) e = errno;
  unlink(tmp.c_str());
  errno = e;
  return -1;
}

}  // namespace

extern "C" int KOVAFileCopy(const char* src, const char* dst, const KOVA_FILE_COPY_OPT* opt) {
  if (src == nullptr || dst == nullptr) {
    errno = EINVAL;
    return -1;
  }
  bool move = opt != nullptr && opt->move != 0;
  if (move) {
    if (rename(src, dst) == 0) return 0;
    if (errno != EXDEV) return -1;
  }
  if (Copy(src, dst) != 0) return -1;
  if (move && unlink(src) != 0) return -1;
  return 0;
}
