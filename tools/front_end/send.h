// Answering one thumbnail request: on standard output, as `get` and the CGI
// do, or as the library's answer value sent to a sink of the caller's.
#ifndef KOVATHUMB_TOOLS_COMMON_SEND_H_
#define KOVATHUMB_TOOLS_COMMON_SEND_H_

#include <sys/stat.h>

#include <functional>
#include <string>

namespace kovathumb {

class Thumb;
struct ThumbAnswer;

namespace tool {

// What is asked for: a size name, else a box (width and height), else an
// edge.
struct Wanted {
  std::string size;
  int width = 0, height = 0;
  int edge = 0;
  bool fallback = false;  // a size name may fall back to smaller sizes
};

// Receives a response's bytes; false once nobody reads any more.
using Sink = std::function<bool(const char*, size_t)>;
// A request's method and validators, as it gave them.
struct Validators {
  bool head = false;
  const char* ifNoneMatch = nullptr;      // If-None-Match, or null
  const char* ifModifiedSince = nullptr;  // If-Modified-Since, or null
};

// Whether `validators` match file `st`: a 304 answers.
bool NotModified(const struct stat& st, const Validators& validators);
// The header block, to the empty line that ends it, that the platform's
// relay writes for file `st` offered as `name` of type `mime` (a 304 where
// the validators match), byte for byte: answers sent as values and the
// CGI's are the same to a client and its cache. With `sendfile`, the web
// server sends that file as the body (X-Sendfile) in place of a length.
std::string AnswerHead(const struct stat& st, const char* name, const char* mime, const Validators& validators,
                       const char* sendfile = nullptr);

// Chooses the output for `wanted`; false when there is none.
bool ChooseThumbnail(Thumb& thumb, const Wanted& wanted);

// Chooses an output for `wanted`, sends it as a CGI response and flushes;
// true when one was sent. With `deleteIfNeeded`, an output the library
// marks for deletion is removed afterwards. GetOutputFile() stays set when an output was chosen,
// so a caller can tell "nothing to send" from "sent, or a response failed".
bool SendThumbnail(Thumb& thumb, const Wanted& wanted, bool deleteIfNeeded);

// Sends `answer` to `sink` as a complete response to a request with
// `validators`: a 304, the headers alone (HEAD), or the file. Where
// `handover` names a copy for the web server to send (X-Sendfile), the body
// is left to it; it is asked only when a body is due. True when all of it
// went out.
bool SendAnswer(const ThumbAnswer& answer, const Validators& validators,
                const std::function<std::string(const ThumbAnswer&)>& handover, const Sink& sink);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_SEND_H_
