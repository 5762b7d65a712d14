#include "kovaplatform/webfile_relay.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "support/response.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::CaptureStdout;
using test::ParseResponse;

class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* v : {"REQUEST_METHOD", "HTTP_IF_NONE_MATCH", "HTTP_IF_MODIFIED_SINCE"}) unsetenv(v);
    file_ = dir_ / "a \"quoted\" name.jpg";
    test::WriteFile(file_, "JPEGDATA");
  }
  test::Response Send(const std::string& path) {
    return ParseResponse(CaptureStdout([&] { result_ = WebFileRelay().Output(path.c_str(), "image/jpeg"); }));
  }
  test::TempDir dir_;
  std::string file_;
  int result_ = -1;
};

TEST_F(RelayTest, FileWithHeadersValidatorsAndBody) {
  test::Response r = Send(file_);
  EXPECT_EQ(result_, 0);
  ASSERT_TRUE(r.complete);
  EXPECT_EQ(r.firstLine, "Content-Type: image/jpeg");
  EXPECT_EQ(r.headers["Content-Length"], "8");
  EXPECT_EQ(r.headers["Content-Disposition"],
            "inline; filename=\"a _quoted_ name.jpg\"; filename*=UTF-8''a%20%22quoted%22%20name.jpg");
  EXPECT_FALSE(r.headers["ETag"].empty());
  EXPECT_FALSE(r.headers["Last-Modified"].empty());
  EXPECT_EQ(r.body, "JPEGDATA");

  // Revalidation: a matching tag or date costs no body.
  setenv("HTTP_IF_NONE_MATCH", r.headers["ETag"].c_str(), 1);
  test::Response tag = Send(file_);
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(tag.firstLine, "Status: 304 Not Modified");
  EXPECT_EQ(tag.body, "");
  setenv("HTTP_IF_NONE_MATCH", "\"other\"", 1);
  EXPECT_EQ(Send(file_).body, "JPEGDATA");
  unsetenv("HTTP_IF_NONE_MATCH");
  setenv("HTTP_IF_MODIFIED_SINCE", r.headers["Last-Modified"].c_str(), 1);
  EXPECT_EQ(Send(file_).firstLine, "Status: 304 Not Modified");
  setenv("HTTP_IF_MODIFIED_SINCE", "Thu, 01 Jan 1970 00:00:00 GMT", 1);
  EXPECT_EQ(Send(file_).body, "JPEGDATA");
  setenv("HTTP_IF_MODIFIED_SINCE", "Fri, 01 Jan 2100 00:00:00 GMT", 1);  // the future is no date
  EXPECT_EQ(Send(file_).body, "JPEGDATA");
  unsetenv("HTTP_IF_MODIFIED_SINCE");
  // Only `*` alone or our exact tag (weak or not) matches.
  const std::string etag = r.headers["ETag"];
  for (const auto& c : std::vector<std::pair<std::string, bool>>{
           {"*", true}, {"\"x\", W/" + etag, true}, {"\"abc*def\"", false}, {"\"x" + etag.substr(1), false}}) {
    setenv("HTTP_IF_NONE_MATCH", c.first.c_str(), 1);
    EXPECT_EQ(Send(file_).body.empty(), c.second) << c.first;
  }
  unsetenv("HTTP_IF_NONE_MATCH");

  setenv("REQUEST_METHOD", "HEAD", 1);
  test::Response head = Send(file_);
  EXPECT_EQ(head.headers["Content-Length"], "8");
  EXPECT_EQ(head.body, "");
}

TEST_F(RelayTest, FailuresEndTheHeaderBlockWithAStatus) {
  test::Response missing = Send(dir_ / "missing.jpg");
  EXPECT_NE(result_, 0);
  EXPECT_TRUE(missing.complete);
  EXPECT_EQ(missing.firstLine, "Status: 404 Not Found");
  EXPECT_EQ(Send(dir_.path()).firstLine, "Status: 500 Internal Server Error");  // a directory
  EXPECT_NE(result_, 0);
  // Never through a link, never a FIFO (which would block); a file we hold
  // open goes out under its own name.
  ASSERT_EQ(symlink(file_.c_str(), (dir_ / "link.jpg").c_str()), 0);
  EXPECT_EQ(Send(dir_ / "link.jpg").firstLine, "Status: 404 Not Found");
  ASSERT_EQ(mkfifo((dir_ / "fifo.jpg").c_str(), 0666), 0);
  EXPECT_EQ(Send(dir_ / "fifo.jpg").firstLine, "Status: 500 Internal Server Error");
  const int fd = open(file_.c_str(), O_RDONLY);
  test::Response held = Send("/proc/self/fd/" + std::to_string(fd));
  close(fd);
  EXPECT_EQ(held.body, "JPEGDATA");
  EXPECT_EQ(held.headers["Content-Disposition"].find("filename=\"a _quoted_ name.jpg\""), 8u);

  test::Response null = ParseResponse(
      CaptureStdout([&] { result_ = WebFileRelay().Output(static_cast<FILE*>(nullptr), "x.jpg", "image/jpeg"); }));
  EXPECT_NE(result_, 0);
  EXPECT_EQ(null.firstLine, "Status: 500 Internal Server Error");
  EXPECT_TRUE(null.complete);
}

TEST_F(RelayTest, StreamBodyWithoutLength) {
  FILE* f = fopen(file_.c_str(), "r");
  test::Response r = ParseResponse(CaptureStdout([&] { result_ = WebFileRelay().Output(f, "r.jpg", "image/jpeg"); }));
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(r.headers.count("Content-Length"), 0u);
  EXPECT_EQ(r.body, "JPEGDATA");
  FILE* empty = fopen("/dev/null", "r");
  EXPECT_EQ(ParseResponse(CaptureStdout([&] { result_ = WebFileRelay().Output(empty, "r.jpg", "image/jpeg"); }))
                .firstLine,
            "Status: 500 Internal Server Error");
}

}  // namespace
}  // namespace kovathumb
