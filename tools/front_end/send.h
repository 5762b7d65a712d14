// Answering one thumbnail request on standard output, as `get` and the CGI
// both do.
#ifndef KOVATHUMB_TOOLS_COMMON_SEND_H_
#define KOVATHUMB_TOOLS_COMMON_SEND_H_

#include <string>

namespace kovathumb {

class Thumb;

namespace tool {

// What is asked for: a size name, else a box (width and height), else an
// edge.
struct Wanted {
  std::string size;
  int width = 0, height = 0;
  int edge = 0;
  bool fallback = false;  // a size name may fall back to smaller sizes
};

// Chooses an output for `wanted`, sends it as a CGI response and flushes;
// true when one was sent. With `deleteIfNeeded`, an output the library
// marks for deletion is removed afterwards. GetOutputFile() stays set when an output was chosen,
// so a caller can tell "nothing to send" from "sent, or a response failed".
bool SendThumbnail(Thumb& thumb, const Wanted& wanted, bool deleteIfNeeded);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_SEND_H_
