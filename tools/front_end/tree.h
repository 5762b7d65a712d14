// Finding the photos and videos under a directory tree.
#ifndef KOVATHUMB_TOOLS_COMMON_TREE_H_
#define KOVATHUMB_TOOLS_COMMON_TREE_H_

#include <dirent.h>
#include <sys/types.h>

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

namespace kovathumb {
namespace tool {

// realpath(3) of `path`, or empty.
std::string RealPath(const std::string& path);
// Whether `path` is `root` or below it (both canonical).
bool Inside(const std::string& path, const std::string& root);

// A stream over the directory open at `fd` (taken; -1 is none), or nullptr
// with `fd` closed.
DIR* TakeDir(int fd);
// The names read from `d`, but for "." and ".." and the EA directory, which
// walks never enter: anyone may plant one.
std::vector<std::string> ReadNames(DIR* d);
// Those entries in name order, each with its status read without following
// a link; a directory comes opened for `visit` to take, -1 when it was
// swapped for a link since (O_NOFOLLOW refuses it) or cannot be opened.
using Visit = std::function<void(const std::string& name, const struct stat& st, int sub)>;
void ForEachEntry(DIR* d, const Visit& visit);

struct TreeFile {
  std::string rel;  // relative to the walked directory
  off_t size;
  time_t mtime;
};

// Whether a file of this name is thumbnailed: a video, or a photo of
// quality mode's list (else the appliance's).
bool IsWalkedFile(const std::string& name, bool quality);

// Supported photos (quality mode's, else the appliance's) and videos
// beneath the trusted directory `root`, in name order. Links are never
// followed, nor EA directories entered: anyone may plant either, and nothing
// outside the tree is ever listed.
void WalkTree(const std::string& root, std::vector<TreeFile>* files, bool quality = true);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_TREE_H_
