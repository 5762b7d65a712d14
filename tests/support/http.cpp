#include "support/http.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <sstream>

#include "support/test_util.h"

namespace kovathumb {
namespace test {

Response ParseResponse(const std::string& raw) {
  Response r;
  r.raw = raw;
  const size_t end = raw.find("\r\n\r\n");
  r.complete = end != std::string::npos;
  r.body = r.complete ? raw.substr(end + 4) : std::string();
  std::istringstream head(raw.substr(0, end));
  std::getline(head, r.firstLine);
  head.seekg(0);
  for (std::string line; std::getline(head, line);) {
    line = line.substr(0, line.find('\r'));
    const size_t colon = line.find(": ");
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (colon != std::string::npos) r.headers[name] = line.substr(colon + 2);
  }
  r.firstLine = r.firstLine.substr(0, r.firstLine.find('\r'));
  const bool hasStatus = r.firstLine.rfind("HTTP/", 0) == 0 || r.firstLine.rfind("Status:", 0) == 0;
  r.status = hasStatus ? std::atoi(r.firstLine.c_str() + r.firstLine.find(' ') + 1) : 200;
  return r;
}

std::string CaptureStdout(const std::function<void()>& fn) {
  TempDir dir;
  fflush(stdout);
  const int saved = dup(1), fd = open((dir / "stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
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
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
    const std::string req = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + extra + "\r\n";
    (void)!write(fd, req.data(), req.size());
    char buf[65536];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) raw.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return ParseResponse(raw);
}

}  // namespace test
}  // namespace kovathumb
