#include "front_end/pin.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>


namespace kovathumb {
namespace tool {

namespace {

constexpr int kDirFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

int Fail(int err) {
  errno = err;
  return -1;
}

int Walk(int rootfd, const std::string& rel) {
  int cur = openat(rootfd, ".", kDirFlags);
  size_t at = 0;
  while (cur >= 0 && at < rel.size()) {
    size_t slash = rel.find('/', at);
    if (slash == std::string::npos) slash = rel.size();
    const std::string part = rel.substr(at, slash - at);
    at = slash + 1;
    if (part.empty() || part == ".") continue;
    int next = part == ".." ? Fail(EXDEV) : openat(cur, part.c_str(), kDirFlags | O_NOFOLLOW);
    int err = errno;
    struct stat st;
    if (next < 0 && err == ENOTDIR && fstatat(cur, part.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(st.st_mode)) {
      err = ELOOP;
    }
    close(cur);
    cur = next < 0 ? Fail(err) : next;
  }
  return cur;
}

}  // namespace

int OpenDirBeneath(int rootfd, const std::string& rel, bool walk) {
  if (!walk) {
    struct open_how how = {};
    how.flags = kDirFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const int fd = static_cast<int>(syscall(SYS_openat2, rootfd, rel.empty() ? "." : rel.c_str(), &how, sizeof how));
    // Old kernels and seccomp filters refuse the call itself: walk instead.
    if (fd >= 0 || (errno != ENOSYS && errno != EPERM && errno != EINVAL && errno != E2BIG)) return fd;
  }
  return Walk(rootfd, rel);
}

PinnedFile::~PinnedFile() { Reset(-1, std::string()); }

void PinnedFile::Reset(int dirfd, const std::string& base) {
  if (dirfd_ >= 0) close(dirfd_);
  dirfd_ = dirfd;
  base_ = base;
}

// Through our pid, not "self": a tool the path reaches resolves it to our
// descriptor table, not its own (root may read another process's).
std::string PinnedFile::Path() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(dirfd_) + "/" + base_;
}

std::string PinnedFile::Unpinned(const std::string& text, const std::string& shown) const {
  std::string out = text;
  const std::string path = Path();
  for (size_t at = out.find(path); at != std::string::npos; at = out.find(path, at + shown.size())) {
    out.replace(at, path.size(), shown);
  }
  return out;
}

int PinBeneath(const std::string& root, const std::string& rel, PinnedFile* out) {
  if (rel.empty() || rel[0] == '/') return EINVAL;
  size_t at = 0;
  while (at <= rel.size()) {
    size_t slash = rel.find('/', at);
    if (slash == std::string::npos) slash = rel.size();
    const std::string part = rel.substr(at, slash - at);
    if (part == "..") return EXDEV;
    if (IsEADirName(part)) return EPERM;
    at = slash + 1;
  }
  const size_t slash = rel.rfind('/');
  const std::string dir = slash == std::string::npos ? std::string() : rel.substr(0, slash);
  const std::string base = rel.substr(slash == std::string::npos ? 0 : slash + 1);
  if (base.empty() || base == ".") return EISDIR;
  const int rootfd = open(root.c_str(), kDirFlags);
  if (rootfd < 0) return errno;
  const int dirfd = OpenDirBeneath(rootfd, dir);
  const int err = errno;
  close(rootfd);
  if (dirfd < 0) return err;
  struct stat st;
  int status = 0;
  if (fstatat(dirfd, base.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    status = errno;
  } else if (!S_ISREG(st.st_mode)) {
    status = S_ISLNK(st.st_mode) ? ELOOP : S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  }
  if (status != 0) {
    close(dirfd);
    return status;
  }
  out->Reset(dirfd, base);
  return 0;
}

int PinGiven(const std::string& path, PinnedFile* out) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const std::string base = path.substr(slash == std::string::npos ? 0 : slash + 1);
  if (base.empty()) return EISDIR;
  const int dirfd = open(dir.c_str(), kDirFlags);
  if (dirfd < 0) return errno;
  struct stat st;
  if (fstatat(dirfd, base.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
    close(dirfd);
    return ELOOP;
  }
  out->Reset(dirfd, base);
  return 0;
}

}  // namespace tool
}  // namespace kovathumb
