#include "support/http.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "support/test_util.h"

namespace kovathumb {
namespace test {

Response ParseResponse(const std::string& raw) {
  Response r;
  r.raw = raw;
  const size_t end = raw.find("\r\n\r\n");
  r.complete = end != std::string::npos;
  const std::string head = raw.substr(0, end);
  r.body = r.complete ? raw.substr(end + 4) : std::string();
  r.firstLine = head.substr(0, head.find("\r\n"));
  r.status = r.firstLine.compare(0, 5, "HTTP/") == 0 || r.firstLine.compare(0, 7, "Status:") == 0
                 ? std::atoi(r.firstLine.c_str() + r.firstLine.find(' ') + 1)
                 : 200;
  for (size_t at = 0; at < head.size();) {
    size_t eol = head.find("\r\n", at);
    if (eol == std::string::npos) eol = head.size();
    const std::string line = head.substr(at, eol - at);
    const size_t colon = line.find(": ");
    if (colon != std::string::npos) {
      std::string name = line.substr(0, colon);
      for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      r.headers[name] = line.substr(colon + 2);
    }
    at = eol + 2;
  }
  return r;
}

std::string CaptureStdout(const std::function<void()>& fn) {
  TempDir dir;
  fflush(stdout);
  const int saved = dup(1);
  const int fd = open((dir / "stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(fd, 1);
  close(fd);
  fn();
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  return ReadFile(dir / "stdout");
}

Response Http(int port, const std::string& method, const std::string& target, const std::string& extra) {
  std::string raw;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
    const std::string req =
        method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + extra + "\r\n";
    (void)!write(fd, req.data(), req.size());
    char buf[65536];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) raw.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return ParseResponse(raw);
}

}  // namespace test
}  // namespace kovathumb
