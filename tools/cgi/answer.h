// Answering one thumbnail request as both web endpoints do: kovathumb-cgi
// once per process, kovathumb-fcgi once per request. The request comes as
// its CGI variables, the served root as the administrator set it; the
// answer goes to standard output as the library writes it (the CGI), or as
// a value each front end sends its own way.
#ifndef KOVATHUMB_TOOLS_CGI_ANSWER_H_
#define KOVATHUMB_TOOLS_CGI_ANSWER_H_

#include <functional>
#include <map>
#include <string>

#include "cgi/request.h"
#include "front_end/pin.h"
#include "front_end/send.h"

namespace kovathumb {

class Thumb;

namespace cgi {

// A request's CGI variables by name: REQUEST_METHOD, QUERY_STRING and the
// validators (HTTP_IF_NONE_MATCH, HTTP_IF_MODIFIED_SINCE). Missing ones are
// absent. Never the root: a request does not choose what is served.
using Params = std::map<std::string, std::string>;

// The variables above as this process's environment has them.
Params ParamsFromEnvironment();
bool IsHead(const Params& params);
// The method and validators as the relay takes them; valid while `params` is.
tool::Validators ValidatorsOf(const Params& params);

// A request that passed the checks needing no library work.
struct Checked {
  Request request;
  std::string root;         // the served root, resolved
  tool::PinnedFile pinned;  // the source, unless request.list
};

// Checks the method, the root (`root`, the administrator's), the query and
// the source's path. False, with `refusal` holding the answer, for what
// fails; true leaves `checked` holding a list or a thumbnail to serve.
bool Check(const Params& params, const std::string& root, Checked* checked, std::string* refusal);

// What a request asks the library for.
tool::Wanted WantedOf(const Request& req);

// Sends the output `thumb` chose; false when nothing could be sent.
using SendChosen = std::function<bool(Thumb& thumb)>;

// Answers a checked request: the list, or the thumbnail with whatever the
// library must do for it (conversions too). With `sink` and `send`, the
// answer goes there; without, to standard output as the library writes it.
// `looked`, where given, is the Thumb that already looked in the store for
// this request: what its probe found is used, not probed again.
// Unbounded: run it in a bounded child.
int Serve(const Params& params, const Checked& checked, const tool::Sink& sink = nullptr,
          const SendChosen& send = nullptr, const Thumb* looked = nullptr);

// A short text answer with `status`.
std::string TextAnswer(const Params& params, int status, const std::string& text, const char* extra = "");

// What a request gets when its bounded child ran out of time, or died.
std::string BusyAnswer(const Params& params);
std::string FailedAnswer(const Params& params);

}  // namespace cgi
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_CGI_ANSWER_H_
