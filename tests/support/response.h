// Captures what a piece of code writes to standard output (file descriptor
// 1 and the stdio buffer) and splits a CGI response into headers and body.
#ifndef KOVATHUMB_TESTS_RESPONSE_H_
#define KOVATHUMB_TESTS_RESPONSE_H_

#include <functional>
#include <map>
#include <string>

namespace kovathumb {
namespace test {

std::string CaptureStdout(const std::function<void()>& fn);

struct Response {
  std::string raw;
  std::string firstLine;
  std::map<std::string, std::string> headers;  // name -> value, in order of no importance
  std::string body;
  bool complete = false;  // the header block ended with an empty line
};

Response ParseResponse(const std::string& raw);

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_RESPONSE_H_
