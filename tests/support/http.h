// A minimal HTTP/1.1 client for talking to the test web server on loopback.
#ifndef KOVATHUMB_TESTS_HTTP_H_
#define KOVATHUMB_TESTS_HTTP_H_

#include <map>
#include <string>

namespace kovathumb {
namespace test {

struct HttpResult {
  int status = 0;
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string body;
  std::string raw;
};

// Sends `method target` to 127.0.0.1:`port` with "Connection: close" and
// reads the whole answer. `extra` is added to the request's header lines.
HttpResult Http(int port, const std::string& method, const std::string& target,
                const std::string& extra = "");

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_HTTP_H_
