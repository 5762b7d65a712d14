#include "support/test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>

#include <gtest/gtest.h>

#include "util/log.h"

namespace kovathumb {
namespace test {

TempDir::TempDir() {
  std::string tmpl = std::string(getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp") + "/kovathumb_test_XXXXXX";
  if (mkdtemp(&tmpl[0]) == nullptr) abort();
  path_ = tmpl;
}

TempDir::~TempDir() { Sh("rm -rf " + Quote(path_)); }

std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

int Sh(const std::string& command) {
  int status = system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Capture(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  char buf[4096];
  for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  if (p != nullptr) pclose(p);
  return out;
}

void MustSh(const std::string& command) { ASSERT_EQ(Sh(command), 0) << command; }

pid_t StartCli(const std::string& args, const std::string& out, const std::string& err) {
  const pid_t pid = fork();
  if (pid == 0) {
    const std::string cmd = std::string("exec ") + KOVATHUMB_CLI + " " + args + " >" + Quote(out) + " 2>" + Quote(err);
    execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

int WaitExit(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

bool WaitFor(const std::function<bool()>& done, int seconds) {
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds); !done(); usleep(50000)) {
    if (std::chrono::steady_clock::now() > end) return false;
  }
  return true;
}

void MakeImage(const std::string& path, unsigned w, unsigned h, const std::string& spec) {
  MustSh("/usr/bin/convert -size " + std::to_string(w) + "x" + std::to_string(h) + " " + spec + " " + Quote(path));
}

void MakePhoto(const std::string& path, unsigned w, unsigned h, int orientation) {
  MakeImage(path, w, h, "xc:gray +noise Random -quality 95");
  if (orientation != 0) SetExif(path, "Exif.Image.Orientation", std::to_string(orientation));
}

void SetExif(const std::string& path, const std::string& key, const std::string& value) {
  MustSh("exiv2 -M" + Quote("set " + key + " " + value) + " " + Quote(path));
}

std::pair<unsigned, unsigned> ImageSize(const std::string& path) {
  unsigned w = 0, h = 0;
  std::istringstream(Capture("/usr/bin/identify -format '%w %h\\n' " + Quote(path) + " 2>/dev/null")) >> w >> h;
  return {w, h};
}

std::pair<unsigned, unsigned> BodySize(const std::string& imageBytes) {
  TempDir dir;
  WriteFile(dir / "image", imageBytes);
  return ImageSize(dir / "image");
}

struct stat Stat(const std::string& path) {
  struct stat st = {};
  if (lstat(path.c_str(), &st) != 0) st = {};
  return st;
}

bool Exists(const std::string& path) { return Stat(path).st_nlink > 0; }

std::string ReadFile(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

void WriteFile(const std::string& path, const std::string& data, unsigned mode) {
  std::ofstream(path, std::ios::binary) << data;
  chmod(path.c_str(), mode);
}

std::vector<std::string> ListDir(const std::string& dir, const std::string& prefix) {
  std::istringstream in(Capture("ls -A " + Quote(dir) + " 2>/dev/null"));
  std::vector<std::string> names;
  for (std::string n; std::getline(in, n);) {
    if (n.compare(0, prefix.size(), prefix) == 0) names.push_back(n);
  }
  return names;
}

std::string EALeftovers(const std::string& tree) {
  return Capture("find " + Quote(tree) + " -path '*/.kovaea/*' \\( -name 'KOVAFILETMP*' -o -name '*_[0-9]*_[0-9]*' \\)");
}

int WithStandIns(const std::map<std::string, std::string>& standIns, const std::function<int()>& fn) {
  TempDir dir;
  pid_t pid = fork();
  if (pid == 0) {
    alarm(30);
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(kNoNamespace);
    // The real tools where a sandboxed stand-in still sees them: under /usr.
    const std::string reals = "/usr/local/src";
    if (!standIns.empty() && mount("none", reals.c_str(), "tmpfs", 0, "mode=0755") != 0) _exit(kNoNamespace);
    int n = 0;
    for (const auto& tool : standIns) {
      const std::string real = reals + "/real" + std::to_string(n), script = dir / ("stand-in" + std::to_string(n++));
      if (Sh("cp " + Quote(tool.first) + " " + Quote(real)) != 0) _exit(kNoNamespace);
      WriteFile(script, "#!/bin/sh\nREAL=" + Quote(real) + "\n" + tool.second, 0755);
      if (mount(script.c_str(), tool.first.c_str(), nullptr, MS_BIND, nullptr) != 0) _exit(kNoNamespace);
    }
    try {  // never back into the test runner from the child
      _exit(fn());
    } catch (...) { _exit(5); }
  }
  return WaitExit(pid);
}

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

namespace {
// Each test program gets a TMPDIR of its own, so what one test looks for
// there is never another's.
struct PrivateTmpDir {
  PrivateTmpDir() {
    char tmpl[] = "/tmp/kovathumb_tests_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    chmod(tmpl, 01777);  // attackers write there too
    setenv("TMPDIR", (dir = tmpl).c_str(), 1);
  }
  ~PrivateTmpDir() {
    if (!dir.empty()) Sh("rm -rf " + Quote(dir));
  }
  std::string dir;
} g_private_tmpdir;

std::mutex g_log_mutex;
std::vector<std::string> g_log_lines;
void Sink(int, const char* line) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_log_lines.emplace_back(line);
}
}  // namespace

LogCapture::LogCapture() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_log_lines.clear();
  internal::SetLogSink(&Sink);
}

LogCapture::~LogCapture() { internal::SetLogSink(nullptr); }

int LogCapture::Count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  int n = 0;
  for (const std::string& l : g_log_lines) n += l.find(text) != std::string::npos;
  return n;
}

}  // namespace test
}  // namespace kovathumb
