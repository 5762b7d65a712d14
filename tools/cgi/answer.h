// Answering one thumbnail request as both web endpoints do: kovathumb-cgi
// once per process, kovathumb-fcgi once per request. The request comes as
// its CGI variables; the answer goes to standard output, where the library
// writes its part of it too.
#ifndef KOVATHUMB_TOOLS_CGI_ANSWER_H_
#define KOVATHUMB_TOOLS_CGI_ANSWER_H_

#include <map>
#include <string>

#include "cgi/request.h"
#include "front_end/pin.h"

namespace kovathumb {
namespace cgi {

// A request's CGI variables by name: REQUEST_METHOD, QUERY_STRING,
// KOVATHUMB_ROOT and the validators (HTTP_IF_NONE_MATCH,
// HTTP_IF_MODIFIED_SINCE). Missing ones are absent.
using Params = std::map<std::string, std::string>;

// The variables above as this process's environment has them.
Params ParamsFromEnvironment();
bool IsHead(const Params& params);

// A request that passed the checks needing no library work.
struct Checked {
  Request request;
  std::string root;         // the served root, resolved
  tool::PinnedFile pinned;  // the source, unless request.list
};

// Checks the method, the root, the query and the source's path. An answer
// for what fails is written and false returned; true leaves `checked`
// holding a list or a thumbnail to serve.
bool Check(const Params& params, Checked* checked);

// Answers a checked request: the list, or the thumbnail with whatever the
// library must do for it (conversions too). Unbounded: run it in a bounded
// child.
int Serve(const Params& params, const Checked& checked);

// Writes a short text answer with `status`.
int AnswerText(const Params& params, int status, const std::string& text, const char* extra = "");

// What a request gets when its bounded child ran out of time, or died.
std::string BusyAnswer(const Params& params);
std::string FailedAnswer(const Params& params);

}  // namespace cgi
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_CGI_ANSWER_H_
