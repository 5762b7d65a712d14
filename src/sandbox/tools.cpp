// The tools we start, started from inside a sandbox: they inherit its
// isolation and receive the very argument vectors the launcher is given.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kovaplatform/kovaplatform.h"
#include "sandbox/sandbox.h"

namespace kovathumb {
namespace sandbox {

namespace {

// Copies the tool's output to `out`; false on an error, when there was none
// or when there was more than `max` bytes (when not negative).
bool Copy(int in, int out, long long max = -1) {
  char buf[65536];
  size_t total = 0;
  for (;;) {
    const ssize_t n = read(in, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return total > 0;
    if (max >= 0 && static_cast<long long>(total) + n > max) return false;
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = write(out, buf + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      done += w;
    }
    total += static_cast<size_t>(n);
  }
}

// The file named by a tool argument such as "/a/b.jpg", "jpeg:/a/b.jpg[0]";
// "" when it names none outside what every view holds.
std::string PlainPath(const std::string& arg, const std::string& cwd) {
  std::string p = arg;
  const size_t colon = p.find(':');
  if (colon != std::string::npos && colon > 0 && colon < 16 && p[0] != '/') p.erase(0, colon + 1);
  if (!p.empty() && p.back() == ']' && p.rfind('[') != std::string::npos) p.erase(p.rfind('['));
  // A relative file name (with an extension: not an option's value) in the caller's directory.
  if (!p.empty() && p[0] != '/' && p[0] != '-' && p.find('.') != std::string::npos && !cwd.empty() && cwd != "/") {
    p = cwd + "/" + p;
  }
  if (p.empty() || p[0] != '/' || p.compare(0, 6, "/proc/") == 0 || p.find("/../") != std::string::npos) return "";
  for (const char* system : {"/usr/", "/etc/", "/dev/", "/lib"}) {
    if (p.compare(0, strlen(system), system) == 0) return "";
  }
  return p;
}

// Files a caller names by path rather than by descriptor (the library's
// command classes take any path). Inputs are shown where they are; the
// outputs' directory is shown as a fresh one, whose files are moved to
// their names afterwards, as the caller: the tool never sees the rest of
// that directory.
class PlainFiles {
 public:
  ~PlainFiles() {
    for (int fd : opened_) close(fd);
    for (const OutDir& d : dirs_) {
      // Ours alone: what the tool left, and the points the view mounted its
      // inputs on.
      const int dup = openat(d.fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      DIR* dir = dup >= 0 ? fdopendir(dup) : nullptr;
      if (dir == nullptr && dup >= 0) close(dup);
      for (struct dirent* e; dir != nullptr && (e = readdir(dir)) != nullptr;) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0 && unlinkat(d.fd, e->d_name, 0) != 0) {
          unlinkat(d.fd, e->d_name, AT_REMOVEDIR);
        }
      }
      if (dir != nullptr) closedir(dir);
      close(d.fd);
      rmdir(d.path.c_str());
    }
  }
  void Add(const std::string& path, Spec* spec) {
    struct stat st;
    // An empty file the caller made is a name reserved for the tool to fill.
    if (stat(path.c_str(), &st) == 0 && !(S_ISREG(st.st_mode) && st.st_size == 0 && st.st_uid == geteuid())) {
      if (!S_ISREG(st.st_mode)) return;
      const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0) return;
      opened_.push_back(fd);
      spec->shown.push_back({fd, path, false});
      return;
    }
    const size_t slash = path.rfind('/');
    const std::string dir = path.substr(0, slash);
    struct stat parent;
    if (dir.empty() || stat(dir.c_str(), &parent) != 0 || !S_ISDIR(parent.st_mode)) return;  // fails as it would
    OutDir* out = nullptr;
    for (OutDir& d : dirs_) out = d.parent == dir ? &d : out;
    if (out == nullptr) {
      char tmpl[] = "/var/tmp/kovathumb-out.XXXXXX";
      if (mkdtemp(tmpl) == nullptr) return;
      const int fd = open(tmpl, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (fd < 0) {
        rmdir(tmpl);
        return;
      }
      dirs_.push_back({dir, tmpl, fd, {}});
      out = &dirs_.back();
      spec->shown.push_back({fd, dir, true});
    }
    out->outputs.emplace_back(path, path.substr(slash + 1));
  }
  // Moves what the tool made to the names it was given; false when one
  // could not be.
  bool Deliver() {
    bool ok = true;
    const mode_t mask = umask(0);
    umask(mask);
    for (const OutDir& d : dirs_) {
      for (const auto& o : d.outputs) {
        struct stat st;
        if (fstatat(d.fd, o.second.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
        if (renameat(d.fd, o.second.c_str(), AT_FDCWD, o.first.c_str()) != 0) {
          const int in = openat(d.fd, o.second.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
          const int out = in < 0 ? -1 : open(o.first.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
          ok = ok && out >= 0 && Copy(in, out);
          if (out >= 0) close(out);
          if (in >= 0) close(in);
          continue;
        }
        // As the tool would have made it, running as the caller.
        if (chown(o.first.c_str(), geteuid(), getegid()) != 0 || chmod(o.first.c_str(), 0666 & ~mask) != 0) {
          unlink(o.first.c_str());
          ok = false;
        }
      }
    }
    return ok;
  }

 private:
  struct OutDir {
    std::string parent, path;
    int fd;
    std::vector<std::pair<std::string, std::string>> outputs;  // the caller's name, the name here
  };
  std::vector<int> opened_;
  std::vector<OutDir> dirs_;
};

}  // namespace

std::vector<int> PinnedDescriptors(const std::vector<std::string>& args) {
  const std::string mine = "/proc/" + std::to_string(getpid()) + "/fd/";
  std::vector<int> fds;
  for (const std::string& a : args) {
    for (size_t at = a.find(mine); at != std::string::npos; at = a.find(mine, at + 1)) {
      const size_t digits = at + mine.size();
      const size_t end = std::min(a.find_first_not_of("0123456789", digits), a.size());
      if (end == digits || end - digits > 9) continue;
      const int fd = std::atoi(a.substr(digits, end - digits).c_str());
      bool seen = false;
      for (int f : fds) seen = seen || f == fd;
      if (!seen) fds.push_back(fd);
    }
  }
  return fds;
}

bool RunTool(const char* path, const char* const argv[], int out, int err, long long maxOut) {
  std::vector<std::string> args;
  for (const char* const* a = argv; *a != nullptr; ++a) args.push_back(*a);
  Spec spec;
  for (int fd : PinnedDescriptors(args)) {
    struct stat st;
    if (fstat(fd, &st) != 0) continue;
    (S_ISDIR(st.st_mode) ? spec.writable : spec.visible).push_back(fd);
  }
  PlainFiles plain;
  char* cwd = getcwd(nullptr, 0);
  spec.cwd = cwd != nullptr ? cwd : "";
  free(cwd);
  for (const std::string& a : args) {
    const std::string p = PlainPath(a, spec.cwd);
    if (!p.empty() && a != args[0]) plain.Add(p, &spec);
  }
  if (out >= 0) spec.keep.push_back(out);
  if (err >= 0) spec.keep.push_back(err);
  // The launcher bounds the tool; ours only has to outlast it.
  spec.limits.wallSeconds = static_cast<unsigned>(KOVAChildWallSeconds()) + 5;
  spec.limits.cpuSeconds = KOVA_CHILD_CPU_SECONDS + 5;
  spec.limits.addressSpace = KOVA_CHILD_ADDRESS_SPACE;
  int status = -1;
  const Outcome o = Run(spec, [&](int) {
    if (err >= 0 && dup2(err, 2) != 2) return 1;
    if (out < 0) return KLIBCExecv(path, argv, 1) == 0 ? 0 : 1;
    FILE* pipe = KLIBCPopenv(path, "r", argv);
    if (pipe == nullptr) return 1;
    const bool copied = Copy(fileno(pipe), out, maxOut);
    return KLIBCPclose(pipe) == 0 && copied ? 0 : 1;
  }, nullptr, 0, &status);
  const bool delivered = plain.Deliver();
  return o == kExited && status == 0 && delivered;
}

}  // namespace sandbox
}  // namespace kovathumb
