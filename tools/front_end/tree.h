// Finding the photos and videos under a directory tree.
#ifndef KOVATHUMB_TOOLS_COMMON_TREE_H_
#define KOVATHUMB_TOOLS_COMMON_TREE_H_

#include <dirent.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

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

// Folders deeper than this below a tree's root are not entered. Anyone may
// make a chain of thousands in a second; nobody files photos that deep,
// and the relative name of a file this deep still fits a path.
constexpr size_t kMaxTreeDepth = 1024;

struct Entry {
  std::string name;
  struct stat st;  // of the name itself: a link is a link
};

// A folder met on a walk, open for reading while it is visited.
struct Folder {
  int fd;
  std::string name;    // its own name; "" for the walk's start
  std::string rel;     // beneath the start: "" or "a/b/"
  size_t id, parent;   // numbered in visiting order from 0; the start's parent is kNoFolder
  size_t depth;        // below the start
};
constexpr size_t kNoFolder = SIZE_MAX;
// Called with each folder's entries in name order.
using FolderVisit = std::function<void(const Folder& folder, const std::vector<Entry>& entries)>;
// Called on entering a folder, before its entries are read: a watch added
// here covers every entry the visit then gets, and every one after.
using FolderEnter = std::function<void(const Folder& folder)>;

// Visits the folder open at `start` (taken) and the folders beneath it,
// each before those inside it, down to `maxDepth` levels below the start.
// No link is followed and no EA directory entered. Nothing recurses, and
// only the start and the folder being visited are held open: each folder is
// opened again beneath the start, following no link, and entered only if it
// is still the folder that was listed (device and inode), so a folder
// swapped for a link or another folder meanwhile is passed over. Returns
// how many folders were not entered for their depth; `firstTooDeep` gets
// the first one's name beneath the start.
size_t WalkFolders(int start, size_t maxDepth, const FolderVisit& visit, std::string* firstTooDeep = nullptr,
                   const FolderEnter& enter = nullptr);

// What a walk says, once, of the folders it did not enter for their depth.
std::string TooDeepMessage(size_t count, const std::string& first);

struct TreeFile {
  std::string rel;  // relative to the walked directory
  off_t size;
  time_t mtime;
};

// Whether a file of this name is thumbnailed: a video, or a photo of
// quality mode's list (else the appliance's).
bool IsWalkedFile(const std::string& name, bool quality);

// Supported photos (quality mode's, else the appliance's) and videos
// beneath the trusted directory `root`, in name order (a folder's files
// where its name sorts among its siblings), as WalkFolders finds them from
// there. Returns the count of folders too deep to enter, as WalkFolders does.
size_t WalkTree(const std::string& root, std::vector<TreeFile>* files, bool quality = true,
                std::string* firstTooDeep = nullptr);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_TREE_H_
