// Finding the photos and videos under a directory tree, and telling whether
// a path lies inside one.
#ifndef KOVATHUMB_TOOLS_COMMON_TREE_H_
#define KOVATHUMB_TOOLS_COMMON_TREE_H_

#include <string>
#include <vector>

namespace kovathumb {
namespace tool {

// realpath(3) of `path`, or empty.
std::string RealPath(const std::string& path);
// Whether `path` is `root` or below it (both canonical).
bool Inside(const std::string& path, const std::string& root);

// Supported photos and videos under `dir` (paths as `dir` + "/" + ...), in
// name order, never inside EA directories. A symbolic link counts only when
// it resolves to a file inside `realRoot`; linked directories are not
// entered, so there are no loops and no file twice.
void WalkTree(const std::string& dir, const std::string& realRoot, std::vector<std::string>* files);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_TREE_H_
