#include "support/http.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>

namespace kovathumb {
namespace test {

HttpResult Http(int port, const std::string& method, const std::string& target, const std::string& extra) {
  HttpResult r;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return r;
  }
  const std::string req = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" +
                          extra + "\r\n";
  (void)!write(fd, req.data(), req.size());
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) r.raw.append(buf, static_cast<size_t>(n));
  close(fd);
  const size_t end = r.raw.find("\r\n\r\n");
  if (end == std::string::npos) return r;
  r.status = std::atoi(r.raw.c_str() + r.raw.find(' ') + 1);
  size_t at = r.raw.find("\r\n") + 2;
  while (at < end) {
    const size_t eol = r.raw.find("\r\n", at);
    const std::string line = r.raw.substr(at, eol - at);
    const size_t colon = line.find(':');
    if (colon != std::string::npos) {
      std::string name = line.substr(0, colon);
      for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      r.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
    }
    at = eol + 2;
  }
  r.body = r.raw.substr(end + 4);
  return r;
}

}  // namespace test
}  // namespace kovathumb
