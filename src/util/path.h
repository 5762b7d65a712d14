// Path text, read without touching the file system.
#ifndef KOVATHUMB_UTIL_PATH_H_
#define KOVATHUMB_UTIL_PATH_H_

#include <string>

namespace kovathumb {
namespace internal {

// What follows the last '/' of `path`, all of it when there is none:
// "/a/b.jpg" gives "b.jpg", "/a/" gives "".
inline std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_UTIL_PATH_H_
