// The probe's reading of a source, done in a sandbox: Exiv2 (and the
// embedded-preview reader) runs in an unprivileged child, which hands back
// only facts and the chosen preview's bytes; root checks them.
#ifndef KOVATHUMB_THUMB_INFO_PROBE_H_
#define KOVATHUMB_THUMB_INFO_PROBE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "thumb_info/decisions.h"

namespace Exiv2 {
class Image;
}

namespace kovathumb {
namespace internal {

struct ProbeRequest {
  int fd;                  // the opened source, -1 when we may not read it
  std::string path;        // its name, for error texts
  std::string pinnedPath;  // "/proc/self/fd/N"
  bool facts;
  bool preview;
  std::function<int(const std::vector<PreviewProps>&)> choosePreview;
  std::function<int(Exiv2::Image&)> orientation;  // an index of the orientation table
};

// What the child found; `failed` with Exiv2's code and text, as the
// in-process reader raised them.
struct Probed {
  bool failed = false;
  int code = 0;
  std::string text;
  std::string mime;
  uint32_t width = 0;
  uint32_t height = 0;
  int index = 0;
  bool previewFound = false;
  std::string extension;
  std::string data;
  // With the facts: every embedded preview, unless there are too many to list.
  bool previewsListed = false;
  std::vector<PreviewProps> previews;
};

// Reads `request` in a sandboxed child. A child that crashed, hung, or
// answered what cannot be (an orientation outside `orientations`, an
// oversized field) fails as an unreadable file does.
Probed ProbeInSandbox(const ProbeRequest& request, size_t orientations);

// The embedded previews of `image`, at most `max`; false when there are more.
bool ListPreviews(Exiv2::Image& image, size_t max, std::vector<PreviewProps>* props);

// The chosen embedded preview of `image`; false when none is chosen.
bool ReadChosenPreview(Exiv2::Image& image, const std::function<int(const std::vector<PreviewProps>&)>& choose,
                       std::string* extension, std::string* data);

// The answer's encoding, both ways; Decode is false for anything malformed.
std::string Encode(const Probed& p);
bool Decode(const std::string& in, Probed* p);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_INFO_PROBE_H_
