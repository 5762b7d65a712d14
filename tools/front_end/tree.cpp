#include "front_end/tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "front_end/pin.h"
#include "kovathumb/file.h"

namespace kovathumb {
namespace tool {

namespace {

// Takes `fd`, a directory opened without following a link.
void Walk(int fd, const std::string& prefix, bool quality, std::vector<TreeFile>* files) {
  DIR* d = TakeDir(fd);
  if (d == nullptr) return;
  ForEachEntry(d, [&](const std::string& name, const struct stat& st, int sub) {
    if (sub >= 0) Walk(sub, prefix + name + "/", quality, files);
    if (S_ISREG(st.st_mode) && IsWalkedFile(name, quality)) {
      files->push_back(TreeFile{prefix + name, st.st_size, st.st_mtime});
    }
  });
  closedir(d);
}

}  // namespace

DIR* TakeDir(int fd) {
  DIR* d = fd < 0 ? nullptr : fdopendir(fd);
  if (d == nullptr && fd >= 0) close(fd);
  return d;
}

std::vector<std::string> ReadNames(DIR* d) {
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != ".." && !IsEADirName(name)) names.push_back(name);
  }
  return names;
}

void ForEachEntry(DIR* d, const Visit& visit) {
  std::vector<std::string> names = ReadNames(d);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    struct stat st;
    if (fstatat(dirfd(d), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    const int sub =
        S_ISDIR(st.st_mode) ? openat(dirfd(d), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1;
    visit(name, st, sub);
  }
}

std::string RealPath(const std::string& path) {
  char buf[PATH_MAX];
  return realpath(path.c_str(), buf) != nullptr ? std::string(buf) : std::string();
}

bool Inside(const std::string& path, const std::string& root) {
  if (path.empty() || root.empty()) return false;
  if (root == "/") return path[0] == '/';
  return path == root || (path.compare(0, root.size(), root) == 0 && path[root.size()] == '/');
}

bool IsWalkedFile(const std::string& name, bool quality) {
  return (quality ? IsQualityImage(name) : IsSupportImage(name)) || IsSupportVideo(name);
}

void WalkTree(const std::string& root, std::vector<TreeFile>* files, bool quality) {
  const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) Walk(fd, std::string(), quality, files);
}

}  // namespace tool
}  // namespace kovathumb
