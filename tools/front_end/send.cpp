#include "front_end/send.h"

#include <cstdio>

#include "kovathumb/thumb.h"

namespace kovathumb {
namespace tool {

bool SendThumbnail(Thumb& thumb, const Wanted& wanted, bool deleteIfNeeded) {
  bool sent;
  if (!wanted.size.empty() && wanted.fallback) {
    // Output never falls back; the fallback overload chooses, then we send.
    sent = !thumb.CalcOutputFile(wanted.size).empty() && thumb.HttpOutputFile(thumb.GetOutputMimeType());
  } else if (!wanted.size.empty()) {
    sent = thumb.Output(wanted.size) != 0;
  } else if (wanted.edge > 0) {
    sent = thumb.Output(wanted.edge) != 0;
  } else {
    sent = thumb.Output(wanted.width, wanted.height) != 0;
  }
  std::fflush(stdout);
  if (deleteIfNeeded && thumb.IsNeedDelete() && !thumb.GetOutputFile().empty()) thumb.DeleteOutputFile();
  return sent;
}

}  // namespace tool
}  // namespace kovathumb
