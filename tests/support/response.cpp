#include "support/response.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "support/test_util.h"

namespace kovathumb {
namespace test {

std::string CaptureStdout(const std::function<void()>& fn) {
  TempDir dir;
  const std::string path = dir / "stdout";
  fflush(stdout);
  const int saved = dup(1);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(fd, 1);
  close(fd);
  fn();
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  return ReadFile(path);
}

Response ParseResponse(const std::string& raw) {
  Response r;
  r.raw = raw;
  const size_t end = raw.find("\r\n\r\n");
  r.complete = end != std::string::npos;
  const std::string head = raw.substr(0, end);
  r.body = r.complete ? raw.substr(end + 4) : std::string();
  size_t at = 0;
  while (at < head.size()) {
    size_t eol = head.find("\r\n", at);
    if (eol == std::string::npos) eol = head.size();
    const std::string line = head.substr(at, eol - at);
    if (r.firstLine.empty()) r.firstLine = line;
    const size_t colon = line.find(": ");
    if (colon != std::string::npos) r.headers[line.substr(0, colon)] = line.substr(colon + 2);
    at = eol + 2;
  }
  return r;
}

}  // namespace test
}  // namespace kovathumb
