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

constexpr int kReadDir = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

std::vector<Entry> ReadEntries(int fd) {
  std::vector<Entry> entries;
  DIR* d = TakeDir(openat(fd, ".", kReadDir));
  if (d == nullptr) return entries;
  std::vector<std::string> names = ReadNames(d);
  closedir(d);
  std::sort(names.begin(), names.end());
  for (std::string& name : names) {
    Entry e;
    if (fstatat(fd, name.c_str(), &e.st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    e.name = std::move(name);
    entries.push_back(std::move(e));
  }
  return entries;
}

// The listed folder `rel` beneath `start`, opened for reading; -1 when it
// is no longer that folder.
int Reopen(int start, const std::string& rel, const struct stat& listed) {
  const int at = OpenDirBeneath(start, rel, rel.size() >= PATH_MAX);
  const int fd = at < 0 ? -1 : openat(at, ".", kReadDir);
  if (at >= 0) close(at);
  struct stat st;
  if (fd >= 0 && (fstat(fd, &st) != 0 || st.st_dev != listed.st_dev || st.st_ino != listed.st_ino)) {
    close(fd);
    return -1;
  }
  return fd;
}

// Path order: component by component, as a walk that entered each folder
// where its name sorts would list them.
bool PathLess(const std::string& a, const std::string& b) {
  const auto key = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c) + 1; };
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [&](char x, char y) { return key(x) < key(y); });
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

size_t WalkFolders(int start, size_t maxDepth, const FolderVisit& visit, std::string* firstTooDeep,
                   const FolderEnter& enter) {
  if (start < 0) return 0;
  // Every folder entered, as its parent and name: names are rebuilt from
  // these, so memory grows with the folders, not with depth times folders.
  struct Met {
    size_t parent;
    std::string name;
  };
  struct Pending {
    size_t parent, depth;
    std::string name;
    struct stat st;
  };
  std::vector<Met> met;
  std::vector<Pending> pending;
  size_t tooDeep = 0;
  const auto relOf = [&](size_t parent, const std::string& name) {
    std::vector<const std::string*> parts = {&name};
    for (size_t at = parent; at != kNoFolder && at != 0; at = met[at].parent) parts.push_back(&met[at].name);
    std::string rel;
    for (size_t i = parts.size(); i-- > 0;) rel += *parts[i] + "/";
    return rel;
  };
  Folder folder{start, std::string(), std::string(), 0, kNoFolder, 0};
  for (;;) {
    met.push_back(Met{folder.parent, folder.name});
    if (enter) enter(folder);
    const std::vector<Entry> entries = ReadEntries(folder.fd);
    visit(folder, entries);
    if (folder.fd != start) close(folder.fd);
    // Pushed last to first, so folders are entered in name order.
    for (size_t i = entries.size(); i-- > 0;) {
      if (!S_ISDIR(entries[i].st.st_mode)) continue;
      if (folder.depth + 1 > maxDepth) {
        if (tooDeep++ == 0 && firstTooDeep != nullptr) *firstTooDeep = relOf(folder.id, entries[i].name);
        continue;
      }
      pending.push_back(Pending{folder.id, folder.depth + 1, entries[i].name, entries[i].st});
    }
    int fd = -1;
    while (fd < 0 && !pending.empty()) {
      Pending next = std::move(pending.back());
      pending.pop_back();
      folder.rel = relOf(next.parent, next.name);
      fd = Reopen(start, folder.rel, next.st);
      folder.name = std::move(next.name);
      folder.parent = next.parent;
      folder.depth = next.depth;
    }
    if (fd < 0) break;
    folder.fd = fd;
    folder.id = met.size();
  }
  close(start);
  return tooDeep;
}

std::string TooDeepMessage(size_t count, const std::string& first) {
  const size_t shown = 120;
  return std::to_string(count) + (count == 1 ? " folder" : " folders") + " deeper than " +
         std::to_string(kMaxTreeDepth) + " levels not entered, the first: " +
         (first.size() > shown ? first.substr(0, shown) + "..." : first);
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

size_t WalkTree(const std::string& root, std::vector<TreeFile>* files, bool quality,
                std::string* firstTooDeep) {
  const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const size_t tooDeep = WalkFolders(fd, kMaxTreeDepth, [&](const Folder& folder, const std::vector<Entry>& entries) {
    for (const Entry& e : entries) {
      if (S_ISREG(e.st.st_mode) && IsWalkedFile(e.name, quality)) {
        files->push_back(TreeFile{folder.rel + e.name, e.st.st_size, e.st.st_mtime});
      }
    }
  }, firstTooDeep);
  std::sort(files->begin(), files->end(), [](const TreeFile& a, const TreeFile& b) { return PathLess(a.rel, b.rel); });
  return tooDeep;
}

}  // namespace tool
}  // namespace kovathumb
