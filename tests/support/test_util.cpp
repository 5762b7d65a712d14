#include "support/test_util.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>

#include <gtest/gtest.h>

#include "util/log.h"

namespace kovathumb {
namespace test {

TempDir::TempDir() {
  char tmpl[] = "/tmp/kovathumb_test_XXXXXX";
  char* p = mkdtemp(tmpl);
  if (p == nullptr) abort();
  path_ = p;
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
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

void MustSh(const std::string& command) { ASSERT_EQ(Sh(command), 0) << command; }

void MakeImage(const std::string& path, unsigned w, unsigned h, const std::string& spec) {
  MustSh("/usr/bin/convert -size " + std::to_string(w) + "x" + std::to_string(h) + " " + spec +
         " " + Quote(path));
}

void SetExif(const std::string& path, const std::string& key, const std::string& value) {
  MustSh("exiv2 -M" + Quote("set " + key + " " + value) + " " + Quote(path));
}

std::pair<unsigned, unsigned> ImageSize(const std::string& path) {
  unsigned w = 0, h = 0;
  std::string out = Capture("/usr/bin/identify -format '%w %h\\n' " + Quote(path) + " 2>/dev/null");
  std::istringstream(out) >> w >> h;
  return {w, h};
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary);
  out << data;
}

std::vector<std::string> ListDir(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n == "." || n == "..") continue;
    if (n.compare(0, prefix.size(), prefix) == 0) names.push_back(n);
  }
  closedir(d);
  return names;
}

namespace {
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

std::vector<std::string> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  return g_log_lines;
}

int LogCapture::Count(const std::string& text) const {
  int n = 0;
  for (const std::string& l : Lines()) n += l.find(text) != std::string::npos;
  return n;
}

}  // namespace test
}  // namespace kovathumb
