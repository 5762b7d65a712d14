// Helpers for tests: temporary trees, fixture images made with the system's
// image tools, captured log lines.
#ifndef KOVATHUMB_TESTS_TEST_UTIL_H_
#define KOVATHUMB_TESTS_TEST_UTIL_H_

#include <string>
#include <vector>

namespace kovathumb {
namespace test {

// A fresh directory under /tmp, removed with everything in it.
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

// Quotes `s` for the shell (fixture commands only).
std::string Quote(const std::string& s);
// Runs a shell command for fixture making; returns its exit status.
int Sh(const std::string& command);
// Runs a command and returns its standard output.
std::string Capture(const std::string& command);
// Runs `command` and fails the current test when it does not exit 0.
void MustSh(const std::string& command);

// Writes an image with ImageMagick: `spec` is its source ("xc:red",
// "plasma:", "gradient:") at `w` x `h`.
void MakeImage(const std::string& path, unsigned w, unsigned h,
               const std::string& spec = "gradient:red-blue");
// Sets EXIF "key" to `value` with exiv2.
void SetExif(const std::string& path, const std::string& key, const std::string& value);
// Width and height of an image file, read by ImageMagick's identify.
std::pair<unsigned, unsigned> ImageSize(const std::string& path);

bool Exists(const std::string& path);
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& data);
// Names in `dir` that start with `prefix`.
std::vector<std::string> ListDir(const std::string& dir, const std::string& prefix = "");

// Captures the library's log lines while alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> Lines() const;
  // Lines that contain `text`.
  int Count(const std::string& text) const;
};

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_TEST_UTIL_H_
