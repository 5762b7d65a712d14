// The source's EA directory, opened without following any link below the
// source's own directory (which the caller vouches for).
#ifndef KOVATHUMB_UTIL_EA_DIR_H_
#define KOVATHUMB_UTIL_EA_DIR_H_

#include <string>

#include "util/safe_fs.h"

namespace kovathumb {
namespace file {

// An invalid Fd when it is missing, or a link or anything but a directory
// stands on the way.
safe_fs::Fd OpenEADir(const std::string& path);

}  // namespace file
}  // namespace kovathumb

#endif  // KOVATHUMB_UTIL_EA_DIR_H_
