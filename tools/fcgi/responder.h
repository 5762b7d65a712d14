// One FastCGI worker's answering: the shared checks, then a stored
// thumbnail straight from this process, anything else (conversions, lists)
// in a bounded child, as kovathumb-cgi answers. The library's probe of the
// source for a stored answer runs in the worker, under the tools' address
// space limit and an alarm of a request's wall time: a crash or hang there
// ends the worker and its one request, and the supervisor starts another.
//
// Stored thumbnails are handed to the web server with X-Sendfile, which
// reopens the file by name. Every name above an EA directory is in folders
// users write into: a path into the tree, checked now, can be renamed to
// lead elsewhere before the server opens it. So the web server is never
// given a path in the tree: the bytes of the file the library checked, read
// through the descriptor it checked, are copied into a private directory no
// one else may write, and that copy's name is handed over. The next request
// for the very same file (device, inode, size, modification and change
// times, read through the descriptor it checked) is handed the same copy.
// Names are never reused for other bytes, and a copy is removed once
// sixteen other copies of its worker were made after its last use (the
// server opens it when it reads the headers): one gone too early costs an
// error, never another file. Everything else, the sources themselves
// included, is streamed through the socket.
#ifndef KOVATHUMB_TOOLS_FCGI_RESPONDER_H_
#define KOVATHUMB_TOOLS_FCGI_RESPONDER_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "cgi/answer.h"

namespace kovathumb {
namespace fcgi {

// Receives a response's bytes; false once nobody reads any more.
using Sink = std::function<bool(const char*, size_t)>;

// The private directory copies are handed over from, shared by the
// workers. A copy is named after the file it was made from (device, inode,
// size, modification and change times), so every worker hands the same
// file over under the same name and the web server sees few names come and
// go; copies nobody handed over for a while are removed by Sweep.
class Handover {
 public:
  // Opens `dir`, which must be ours and writable by nobody else. False, with `error` set, if it
  // cannot be used.
  bool Open(const std::string& dir, std::string* error);
  bool IsOpen() const { return fd_ >= 0; }
  // The path of a copy of `size` bytes of `from` at `offset`, which are the
  // file `checked` describes; "" on failure.
  std::string Copy(int from, off_t offset, size_t size, const struct stat& checked);
  // Removes the copies not handed over for `seconds`.
  void Sweep(int seconds);

  // A copy handed over stays at least this long.
  static constexpr int kKeptSeconds = 120;

 private:
  std::string dir_;
  int fd_ = -1;
  unsigned long made_ = 0;
};

class Responder {
 public:
  // Standard output becomes this responder's buffer from here on.
  explicit Responder(Handover* handover);
  // Answers one request to `sink`, with a complete response. A child
  // closes `sockets` (the listening socket and the request's connection),
  // so that only this process answers there and a worker that dies ends
  // its request at once.
  void Answer(const cgi::Params& params, const Sink& sink, std::initializer_list<int> sockets = {});
  // The most resident memory this process has had, in bytes.
  static size_t Resident();

 private:
  void Environ(const cgi::Params& params);
  bool AnswerStored(const cgi::Params& params, const cgi::Checked& checked, const Sink& sink);
  void Rewind();
  bool Forward(off_t from, off_t to, const Sink& sink);
  Handover* handover_;
  int out_;  // standard output: a memory file
  std::vector<char> env_[3];
};

}  // namespace fcgi
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_FCGI_RESPONDER_H_
