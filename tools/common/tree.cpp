#include "common/tree.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>

#include "kovathumb/file.h"

namespace kovathumb {
namespace tool {

namespace {
constexpr char kEADirName[] = ".kovaea";
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

void WalkTree(const std::string& dir, const std::string& realRoot, std::vector<std::string>* files) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != ".." && name != kEADirName) names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISLNK(st.st_mode)) {
      if (!Inside(RealPath(path), realRoot) || stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    }
    if (S_ISDIR(st.st_mode)) {
      WalkTree(path, realRoot, files);
    } else if (S_ISREG(st.st_mode) && (IsSupportImage(name) || IsSupportVideo(name))) {
      files->push_back(path);
    }
  }
}

}  // namespace tool
}  // namespace kovathumb
