// Helpers for tests: temporary trees, fixture images made with the system's
// image tools, captured log lines, tools swapped for stand-ins.
#ifndef KOVATHUMB_TESTS_TEST_UTIL_H_
#define KOVATHUMB_TESTS_TEST_UTIL_H_

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#define KT_SKIP_UNLESS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root: attacks run as an ordinary user against root"

namespace kovathumb {
namespace test {

// A fresh directory under $TMPDIR, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Shell commands for fixtures: `s` quoted; the exit status; the standard
// output; a failure of the current test unless the command exits 0.
std::string Quote(const std::string& s);
int Sh(const std::string& command);
std::string Capture(const std::string& command);
void MustSh(const std::string& command);
// Starts `kovathumb ARGS` (shell words) with its standard output and error in files.
pid_t StartCli(const std::string& args, const std::string& out, const std::string& err = "/dev/null");
// Waits for `pid`: its exit status, or 100 + the signal that killed it.
int WaitExit(pid_t pid);
// Polls `done` until it holds or `seconds` pass; whether it held.
bool WaitFor(const std::function<bool()>& done, int seconds);

// Writes an image with ImageMagick from `spec` ("xc:red", "plasma:") at `w` x `h`.
void MakeImage(const std::string& path, unsigned w, unsigned h, const std::string& spec = "gradient:red-blue");
// A noisy JPEG that outweighs its decoded estimate at every size, so that
// requests convert it; turned by EXIF `orientation` unless 0.
void MakePhoto(const std::string& path, unsigned w = 1600, unsigned h = 1200, int orientation = 0);
void SetExif(const std::string& path, const std::string& key, const std::string& value);
// Width and height of an image file, or of image bytes.
std::pair<unsigned, unsigned> ImageSize(const std::string& path);
std::pair<unsigned, unsigned> BodySize(const std::string& imageBytes);

bool Exists(const std::string& path);
// The file's status, all zero when there is none (links not followed).
struct stat Stat(const std::string& path);
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& data, unsigned mode = 0644);
// Names in `dir` that start with `prefix`.
std::vector<std::string> ListDir(const std::string& dir, const std::string& prefix = "");
// Work files left in EA directories under `tree`.
std::string EALeftovers(const std::string& tree);

// Runs `fn` in a child with a private mount namespace, where each tool of
// `standIns` (a path such as /usr/bin/djpeg) is replaced by a shell script,
// "$REAL" in it naming a copy of the real tool. The child's exit status; 77
// where no namespace can be had; killed after 30 s, so a hang fails.
int WithStandIns(const std::map<std::string, std::string>& standIns, const std::function<int()>& fn);
constexpr int kNoNamespace = 77;

// Responses as a CGI program writes them or a web server sends them.
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

// Captures the library's log lines while alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  // Lines that contain `text`.
  int Count(const std::string& text) const;
};

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_TEST_UTIL_H_
