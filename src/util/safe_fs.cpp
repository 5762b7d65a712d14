#include "util/safe_fs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/random.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "util/system.h"

namespace kovathumb {
namespace safe_fs {

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Whether `path` is one of our own pinned paths: those name an open file of
// ours, never a link someone planted.
bool IsPinned(const std::string& path) {
  static const std::string self = "/proc/self/fd/";
  const std::string mine = "/proc/" + std::to_string(getpid()) + "/fd/";
  const std::string* prefix = path.compare(0, self.size(), self) == 0    ? &self
                              : path.compare(0, mine.size(), mine) == 0 ? &mine
                                                                        : nullptr;
  if (prefix == nullptr || path.size() == prefix->size()) return false;
  return path.find_first_not_of("0123456789", prefix->size()) == std::string::npos;
}

// Reopens an O_PATH descriptor of a regular file for reading; a FIFO, device
// or directory is never opened for reading, so it cannot block or trigger.
Fd Reopen(Fd pathFd, struct stat64* st) {
  if (!pathFd.valid()) return Fd();
  if (fstat64(pathFd.get(), st) != 0) return Fd();
  if (!S_ISREG(st->st_mode)) {
    errno = S_ISDIR(st->st_mode) ? EISDIR : S_ISLNK(st->st_mode) ? ELOOP : EINVAL;
    return Fd();
  }
  return Fd(open(SelfPath(pathFd.get()).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

std::vector<std::string> Components(const std::string& rest) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= rest.size()) {
    size_t end = rest.find('/', start);
    if (end == std::string::npos) end = rest.size();
    const std::string part = rest.substr(start, end - start);
    if (!part.empty() && part != ".") parts.push_back(part);
    start = end + 1;
  }
  return parts;
}

std::string RandomSuffix() {
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  unsigned char bytes[10];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) abort();
  std::string s;
  for (unsigned char b : bytes) s += kChars[b % (sizeof kChars - 1)];
  return s;
}

void EmptyDir(int dir) {
  // Nothing but our tools writes here; they make files only.
  for (const std::string& name : Names(dir)) unlinkat(dir, name.c_str(), 0);
}

}  // namespace

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

int Fd::release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

void Fd::reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

std::string SelfPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

std::string ToolPath(int fd) {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
}

Fd OpenRegular(const std::string& path, struct stat64* st) {
  const int follow = IsPinned(path) ? 0 : O_NOFOLLOW;
  return Reopen(Fd(open(path.c_str(), O_PATH | O_CLOEXEC | follow)), st);
}

Fd OpenRegularAt(int dir, const std::string& name, struct stat64* st) {
  if (name.empty() || name.find('/') != std::string::npos) {
    errno = EINVAL;
    return Fd();
  }
  return Reopen(Fd(openat(dir, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)), st);
}

bool StatNoFollow(const std::string& path, struct stat64* st) {
  if (IsPinned(path)) return stat64(path.c_str(), st) == 0;
  return fstatat64(AT_FDCWD, path.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
}

Fd OpenDir(const std::string& path) {
  return Fd(open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

Fd OpenDirBeneath(const std::string& trusted, const std::string& target) {
  std::string rest;
  if (trusted == "." && !target.empty() && target[0] != '/') {
    rest = target;
  } else {
    std::string base = trusted;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (base == "/") base.clear();
    if (target.compare(0, base.size() + 1, base + "/") != 0) {
      errno = EXDEV;
      return Fd();
    }
    rest = target.substr(base.size() + 1);
  }
  Fd dir = OpenDir(trusted);
  for (const std::string& part : Components(rest)) {
    if (!dir.valid()) break;
    if (part == "..") {
      errno = EXDEV;
      return Fd();
    }
    dir = Fd(openat(dir.get(), part.c_str(), kDirFlags));
  }
  return dir;
}

void SweepAbandoned(int parent, const std::string& prefix) {
  for (const std::string& name : Names(parent)) {
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    char* end = nullptr;
    const long pid = strtol(name.c_str() + prefix.size(), &end, 10);
    if (pid <= 0 || *end != '.' || kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    Fd dir(openat(parent, name.c_str(), kDirFlags));
    struct stat64 st;
    // Only what we made: a user may plant look-alikes.
    if (!dir.valid() || fstat64(dir.get(), &st) != 0 || st.st_uid != geteuid() || (st.st_mode & 077) != 0) continue;
    EmptyDir(dir.get());
    unlinkat(parent, name.c_str(), AT_REMOVEDIR);
  }
}

PrivateDir::~PrivateDir() { Remove(); }

bool PrivateDir::Create(int parent, const std::string& prefix) {
  Remove();
  SweepAbandoned(parent, prefix);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string name = prefix + std::to_string(getpid()) + "." + RandomSuffix();
    if (mkdirat(parent, name.c_str(), 0700) != 0) {
      if (errno == EEXIST) continue;
      return false;
    }
    Fd fd(openat(parent, name.c_str(), kDirFlags));
    struct stat64 st;
    // Someone may have renamed ours away and put theirs in its place.
    if (!fd.valid() || fstat64(fd.get(), &st) != 0 || st.st_uid != geteuid() ||
        (st.st_mode & 077) != 0) {
      return false;
    }
    parent_ = Fd(fcntl(parent, F_DUPFD_CLOEXEC, 0));
    fd_ = std::move(fd);
    name_ = name;
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    return true;
  }
  return false;
}

bool PrivateDir::CreateAt(const std::string& pathTemplate) {
  Remove();
  std::string buf = pathTemplate;
  if (mkdtemp(&buf[0]) == nullptr) return false;
  const size_t slash = buf.rfind('/');
  Fd parent = OpenDir(slash == 0 ? "/" : buf.substr(0, slash));
  Fd fd(parent.valid() ? openat(parent.get(), buf.c_str() + slash + 1, kDirFlags) : -1);
  struct stat64 st;
  if (!fd.valid() || fstat64(fd.get(), &st) != 0) {
    rmdir(buf.c_str());
    return false;
  }
  parent_ = std::move(parent);
  fd_ = std::move(fd);
  name_ = buf.substr(slash + 1);
  path_ = buf;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  return true;
}

void PrivateDir::Remove() {
  if (!fd_.valid()) return;
  EmptyDir(fd_.get());
  struct stat64 st;
  if (fstatat64(parent_.get(), name_.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_dev == dev_ &&
      st.st_ino == ino_) {
    unlinkat(parent_.get(), name_.c_str(), AT_REMOVEDIR);
  }
  fd_.reset();
  parent_.reset();
  name_.clear();
  path_.clear();
}

std::string PrivateDir::ToolPath(const std::string& name) const {
  return safe_fs::ToolPath(fd_.get()) + "/" + name;
}

bool RenameInto(const std::string& path, int dir, const std::string& name) {
  return internal::Sys().renameat(AT_FDCWD, path.c_str(), dir, name.c_str()) == 0;
}

bool RenameAt(int fromDir, const std::string& from, int toDir, const std::string& to) {
  return internal::Sys().renameat(fromDir, from.c_str(), toDir, to.c_str()) == 0;
}

bool UnlinkIfSame(int dir, const std::string& name, const struct stat64& st) {
  struct stat64 now;
  if (fstatat64(dir, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (now.st_dev != st.st_dev || now.st_ino != st.st_ino) return false;
  return internal::Sys().unlinkat(dir, name.c_str(), 0) == 0;
}

std::vector<std::string> Names(int dir) {
  std::vector<std::string> names;
  const int copy = openat(dir, ".", kDirFlags);
  DIR* d = copy < 0 ? nullptr : fdopendir(copy);
  if (d == nullptr) {
    if (copy >= 0) close(copy);
    return names;
  }
  while (struct dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  return names;
}

std::vector<Entry> ListRegular(int dir) {
  std::vector<Entry> entries;
  for (const std::string& name : Names(dir)) {
    struct stat64 st;
    if (fstatat64(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
    entries.push_back({name, st.st_size, st.st_ctim, st.st_dev, st.st_ino});
  }
  return entries;
}

ssize_t ReadAt(int fd, char* buf, size_t size, off_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pread(fd, buf + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

bool WriteAll(int fd, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace safe_fs
}  // namespace kovathumb
