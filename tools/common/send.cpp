#include "common/send.h"

#include <unistd.h>

#include <cstdio>

#include "kovathumb/thumb.h"

namespace kovathumb {
namespace tool {

namespace {

// TEMPORARY, until Thumb::DeleteOutputFile() is on this branch: the member
// unlinks through the pinned EA directory; this stand-in unlinks by name and
// goes away with the overload below once the member exists.
template <typename T>
auto DeleteOutput(T& thumb, int) -> decltype(thumb.DeleteOutputFile(), void()) {
  thumb.DeleteOutputFile();
}
template <typename T>
void DeleteOutput(T& thumb, long) {
  unlink(thumb.GetOutputFile().c_str());
}

}  // namespace

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
  if (deleteIfNeeded && thumb.IsNeedDelete() && !thumb.GetOutputFile().empty()) DeleteOutput(thumb, 0);
  return sent;
}

}  // namespace tool
}  // namespace kovathumb
