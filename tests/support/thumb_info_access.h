// Builds ThumbInfo records with the facts a probe would have found, so the
// decisions that depend on them are tested without image files.
#ifndef KOVATHUMB_TESTS_THUMB_INFO_ACCESS_H_
#define KOVATHUMB_TESTS_THUMB_INFO_ACCESS_H_

#include <string>

#include "kovathumb/thumb_info.h"
#include "thumb_info/thumb_info_access.h"

namespace kovathumb {

struct ThumbInfoTestAccess {
  // A record of `path` (an existing regular file, /etc/passwd by default).
  static ThumbInfo Make(const std::string& mime, unsigned w, unsigned h, int rotate,
                        const std::string& size, ThumbDimension box,
                        const std::string& path = "/etc/passwd") {
    ThumbInfo info(path, size, box);
    internal::ThumbInfoAccess::SetProbed(&info, mime, w, h, rotate, false);
    return info;
  }
  static void SetFlop(ThumbInfo* info, bool flop) {
    internal::ThumbInfoAccess::SetProbed(info, info->GetMimeType(), info->GetWidth(), info->GetHeight(),
                                         info->GetRotate(), flop);
  }
};

}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_THUMB_INFO_ACCESS_H_
