// What the request's source files share: the names of our private
// directories, the unlimited box, and judging a made file before it is kept.
#ifndef KOVATHUMB_LIBKOVATHUMB_THUMB_SHARED_H_
#define KOVATHUMB_LIBKOVATHUMB_THUMB_SHARED_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "util/path.h"

namespace kovathumb {
namespace internal {

constexpr uint32_t kUnlimited = 2147483647;

// Private directories for the tools' work and for staging a file before it
// goes live: in EA directories named safe_fs::kPrivatePrefix + ..., in
// /var/tmp after this template.
constexpr char kVarTmpTemplate[] = "/var/tmp/kovathumb_XXXXXX";

// Whether the open file is a whole image of a type we send as `mime`.
bool IsStorable(int fd, const struct stat64& st, const std::string& mime);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_LIBKOVATHUMB_THUMB_SHARED_H_
