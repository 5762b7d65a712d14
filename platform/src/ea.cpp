// EA directories on plain Linux: "<dir>/.kovaea/<base>/".
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "kovaplatform/kovaplatform.h"

namespace {

constexpr char kEADirName[] = ".kovaea";

// Splits `path` into its directory (with trailing '/', or empty) and base
// name; fails for a path that names no file ("", "/", "dir/").
bool SplitPath(const char* path, std::string* dir, std::string* base) {
  if (path == nullptr || *path == '\0') return false;
  std::string p(path);
  if (p.back() == '/') return false;
  size_t slash = p.rfind('/');
  if (slash == std::string::npos) {
    dir->clear();
    *base = p;
  } else {
    *dir = p.substr(0, slash + 1);
    *base = p.substr(slash + 1);
  }
  return *base != "." && *base != "..";
}

int CopyOut(const std::string& s, char* buf, size_t size) {
  if (buf == nullptr || s.size() + 1 > size) {
    errno = ENAMETOOLONG;
    return -1;
  }
  memcpy(buf, s.c_str(), s.size() + 1);
  return static_cast<int>(s.size());
}

bool EADir(const char* path, std::string* out) {
  std::string dir, base;
  if (!SplitPath(path, &dir, &base)) {
    errno = EINVAL;
    return false;
  }
  *out = dir + kEADirName + "/" + base;
  return true;
}

}  // namespace

extern "C" {

int KOVAEAPath(int, const char* path, const char* name, char* buf, size_t size, int) {
  std::string eadir;
  if (!EADir(path, &eadir)) return -1;
  if (name == nullptr || *name == '\0' || strchr(name, '/') != nullptr ||
      strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
    errno = EINVAL;
    return -1;
  }
  return CopyOut(eadir + "/" + name, buf, size);
}

int KOVAEADirPath(int, const char* path, char* buf, size_t size) {
  std::string eadir;
  if (!EADir(path, &eadir)) return -1;
  return CopyOut(eadir, buf, size) < 0 ? -1 : 0;
}

int KOVAEAMKDir(int flags, const char* eadir) {
  if (eadir == nullptr || *eadir == '\0') {
    errno = EINVAL;
    return -1;
  }
  // Users write beside their files: neither the ".kovaea" level nor the
  // directory itself may be a link we follow.
  std::string parent, leaf, top, mid;
  if (!SplitPath(eadir, &parent, &leaf)) {
    errno = EINVAL;
    return -1;
  }
  if (parent.empty()) parent = "./";
  parent.pop_back();
  if (!SplitPath(parent.empty() ? "/" : parent.c_str(), &top, &mid)) {
    top = parent.empty() ? "/" : ".";
    mid = ".";
  }
  const int topFd = open(top.empty() ? "." : top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (topFd < 0) return -1;
  if ((flags & 1) && mkdirat(topFd, mid.c_str(), 0777) != 0 && errno != EEXIST) {
    close(topFd);
    return -1;
  }
  const int dirFd = openat(topFd, mid.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  close(topFd);
  if (dirFd < 0) return -1;
  int result = 0;
  struct stat st;
  if (mkdirat(dirFd, leaf.c_str(), 0777) != 0 &&
      (errno != EEXIST || fstatat(dirFd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
       !S_ISDIR(st.st_mode))) {
    errno = ENOTDIR;
    result = -1;
  }
  close(dirFd);
  return result;
}

}  // extern "C"
