// File access that never follows a link an ordinary user could have planted.
//
// We run as root over folders users write into, EA directories included. So
// below a directory the caller trusts, names are opened one component at a
// time with O_NOFOLLOW, only regular files are ever opened for reading (a
// FIFO, device or directory is looked at through O_PATH and refused), and
// work that tools write goes into a private directory only we can write.
// Files opened here are handed on as pinned paths ("/proc/self/fd/N" for
// this process, "/proc/<pid>/fd/N" for our children), which name the very
// inode we checked. Every lookup by name, and every directory made or
// removed, happens in safe_fs.cpp; callers work on the descriptors.
#ifndef KOVATHUMB_UTIL_SAFE_FS_H_
#define KOVATHUMB_UTIL_SAFE_FS_H_

#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

namespace kovathumb {
namespace safe_fs {

// An owned file descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release();
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// "/proc/self/fd/N": the open file itself, for this process.
std::string SelfPath(int fd);
// "/proc/<pid>/fd/N": the same for a child (children inherit none of our fds).
std::string ToolPath(int fd);

// Opens `path` for reading when it is a regular file reached without
// following a link in its last component (a pinned path of ours counts as
// the file itself); fills `st`. Anything else: an invalid Fd, errno set.
Fd OpenRegular(const std::string& path, struct stat64* st);
// The same for `name` in the directory open at `dir`.
Fd OpenRegularAt(int dir, const std::string& name, struct stat64* st);
// Status of `path` without following a link in its last component.
bool StatNoFollow(const std::string& path, struct stat64* st);

// Opens directory `target`, which must lie beneath directory `trusted` (a
// path the caller vouches for), following no link below `trusted`.
Fd OpenDirBeneath(const std::string& trusted, const std::string& target);
// Opens the directory `path` (trusted as a whole).
Fd OpenDir(const std::string& path);

// The start of the names of our private directories inside EA directories.
constexpr char kPrivatePrefix[] = ".kovathumb-";

// A directory only we can write (0700, made exclusively), removed with
// everything in it when destroyed.
class PrivateDir {
 public:
  PrivateDir() = default;
  ~PrivateDir();
  PrivateDir(const PrivateDir&) = delete;
  PrivateDir& operator=(const PrivateDir&) = delete;
  // Makes it in the directory open at `parent`, named `prefix` + our pid +
  // "." + random, first removing those there whose process is gone.
  bool Create(int parent, const std::string& prefix);
  // Makes it by mkdtemp(`pathTemplate`), e.g. "/var/tmp/x_XXXXXX".
  bool CreateAt(const std::string& pathTemplate);
  void Remove();
  bool valid() const { return fd_.valid(); }
  int fd() const { return fd_.get(); }
  // The real path, known only for CreateAt.
  const std::string& path() const { return path_; }
  // A file in it, as our children reach it.
  std::string ToolPath(const std::string& name) const;

 private:
  Fd parent_;
  Fd fd_;
  std::string name_;
  std::string path_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
};

// Removes from the directory open at `parent` the private directories named
// `prefix` + pid + "." + ... whose process is gone (killed or crashed, it
// could not remove its own). Only ours go: a user may plant look-alikes.
void SweepAbandoned(int parent, const std::string& prefix);

// Moves `path` (whose directory is trusted) to `name` in the directory open
// at `dir`; errno is set on failure.
bool RenameInto(const std::string& path, int dir, const std::string& name);
bool RenameAt(int fromDir, const std::string& from, int toDir, const std::string& to);
// Unlinks `name` in `dir` when it is still the file `st` describes.
bool UnlinkIfSame(int dir, const std::string& name, const struct stat64& st);

// The names in the directory open at `dir` (O_PATH will do), but "." and "..".
std::vector<std::string> Names(int dir);

// Regular files of a directory, with what pruning needs.
struct Entry {
  std::string name;
  off_t size;
  struct timespec changed;
  dev_t dev;
  ino_t ino;
};
std::vector<Entry> ListRegular(int dir);

// Up to `size` bytes at `offset`; the count read, or -1.
ssize_t ReadAt(int fd, char* buf, size_t size, off_t offset);
// All `size` bytes, going on after interruptions and short writes; false
// when a write fails or writes nothing.
bool WriteAll(int fd, const void* data, size_t size);

}  // namespace safe_fs
}  // namespace kovathumb

#endif  // KOVATHUMB_UTIL_SAFE_FS_H_
