// One FastCGI worker's answering: the shared checks, then a stored
// thumbnail straight from this process, anything else (conversions, lists)
// in a bounded child, as kovathumb-cgi answers. The worker's own part (the
// checks, the library's probe of the source for a stored answer) runs under
// the tools' address space limit and an alarm far shorter than a child's
// wall time: a crash or hang there ends the worker and its one request, and
// the supervisor starts another. A request never takes that step again in
// a child: the child goes on with the worker's Thumb, probe and all, so no
// slow step runs twice for it.
//
// A request the worker cannot answer from the store is handed to a process
// of its own, which waits its turn for a conversion slot (Slots) and
// answers it, while the worker goes on: a stored thumbnail or an error is
// answered at once however many conversions are asked for. Conversions run
// a few at a time, and only so many wait; one asked beyond that is told to
// come back (503).
//
// Answers are the library's values (the file as a descriptor, its type and
// validators): sent straight to the request's stream, or handed to the web
// server with X-Sendfile. The web server reopens that file by name, and
// every name above an EA directory is in folders users write into: a path
// into the tree, checked now, can be renamed to lead elsewhere before the
// server opens it. So the web server is never given a path in the tree: the
// bytes of the stored file the library checked, read through the descriptor
// it checked, are copied into a private directory no one else may write,
// and that copy's name is handed over. Everything else, the sources
// themselves and what a child made included, is streamed through the socket.
#ifndef KOVATHUMB_TOOLS_FCGI_RESPONDER_H_
#define KOVATHUMB_TOOLS_FCGI_RESPONDER_H_

#include <sys/types.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

#include "cgi/answer.h"

namespace kovathumb {

struct ThumbAnswer;

namespace fcgi {

using tool::Sink;

// The private directory copies are handed over from, shared by the
// workers. A copy is named after the file it was made from (device, inode,
// size, modification and change times, taken before it was read and the
// same after), so every worker hands the same file over under the same
// name and the web server sees few names come and go. Copies nobody handed
// over for a while are removed by Sweep, the oldest when the copies would
// take more than Bound() bytes. A copy removed too early costs its request
// an error, never another file.
class Handover {
 public:
  // Opens `dir`, which must be ours and writable by nobody else. False, with `error` set, if it
  // cannot be used.
  bool Open(const std::string& dir, std::string* error);
  bool IsOpen() const { return fd_ >= 0; }
  // The path of a copy of `answer`'s stored thumbnail; "" where none can be
  // had (the file changed while it was read, or it is no thumbnail).
  std::string Copy(const ThumbAnswer& answer);
  // Removes the copies not handed over for `seconds`.
  void Sweep(int seconds);
  // The bytes all copies may take together.
  static long long Bound();

  // A copy handed over stays at least this long, unless room is needed.
  static constexpr int kKeptSeconds = 120;

 private:
  void MakeRoom(long long size);
  std::string dir_;
  int fd_ = -1;
};

// The conversions run at once, and the requests waiting for one: a record
// lock a place, each the process's own and gone with it.
class Slots {
 public:
  bool Open(int running, int waiting);
  // A place to wait, taken without waiting; true without slots at all.
  bool Queue();
  // A conversion's slot, waited for until a signal interrupts.
  bool Take();

 private:
  bool Lock(int at, bool wait);
  int fd_ = -1, running_ = 0, waiting_ = 0;
};

class Responder {
 public:
  // Serves `root` (the administrator's, never a request's).
  Responder(const std::string& root, Handover* handover, Slots* slots);
  // Answers one request to `sink`, with a complete response. `sockets` are
  // the listening socket and the request's connection: a process that
  // takes the request over closes the first, its bounded child both, so
  // that only one process answers there. With `finish`, a request that
  // needs a conversion or a list is taken over by a process of its own,
  // which answers, calls `finish` and ends: true then, and the caller lets
  // the request go. Without, it is answered here.
  bool Answer(const cgi::Params& params, const Sink& sink, std::initializer_list<int> sockets = {},
              const std::function<void()>& finish = nullptr);
  // The memory this process holds now, in bytes.
  static size_t Resident();
  // The seconds the worker's own part of a request may take.
  static int OwnSeconds();

 private:
  // Leaves in `thumb` the Thumb that looked, for a conversion to go on with.
  bool AnswerStored(const cgi::Params& params, const cgi::Checked& checked, const Sink& sink,
                    std::unique_ptr<Thumb>* thumb);
  // Waits for a slot and answers in a bounded child, with `thumb` where
  // the worker looked in the store.
  void Convert(const cgi::Params& params, const cgi::Checked& checked, const Sink& sink,
               std::initializer_list<int> sockets, std::unique_ptr<Thumb>* thumb);
  // Sends the output `thumb` chose; with `handOver`, a stored thumbnail
  // by X-Sendfile where a hand-over directory is open.
  bool Send(Thumb& thumb, const cgi::Params& params, const Sink& sink, bool handOver);
  std::string root_;
  Handover* handover_;
  Slots* slots_;
};

}  // namespace fcgi
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_FCGI_RESPONDER_H_
