// Responses as a CGI program writes them or a web server sends them.
#ifndef KOVATHUMB_TESTS_HTTP_H_
#define KOVATHUMB_TESTS_HTTP_H_

#include <functional>
#include <map>
#include <string>

namespace kovathumb {
namespace test {

struct Response {
  std::string raw, firstLine, body;
  int status = 0;  // of "HTTP/1.1 N" or "Status: N"; 200 for a CGI without one
  std::map<std::string, std::string> headers;  // names lower-cased
  bool complete = false;  // the header block ended with an empty line
};

Response ParseResponse(const std::string& raw);
// What `fn` writes to standard output (descriptor 1 and the stdio buffer).
std::string CaptureStdout(const std::function<void()>& fn);
// Sends `method target` to 127.0.0.1:`port` with "Connection: close" and
// reads the whole answer; `extra` is added to the request's header lines.
Response Http(int port, const std::string& method, const std::string& target, const std::string& extra = "");

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_HTTP_H_
