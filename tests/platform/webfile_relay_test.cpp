#include "kovaplatform/webfile_relay.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* v : {"REQUEST_METHOD", "HTTP_IF_NONE_MATCH", "HTTP_IF_MODIFIED_SINCE"}) unsetenv(v);
    test::WriteFile(file_, "JPEGDATA");
  }
  test::Response Send(const std::string& path) {
    return test::ParseResponse(test::CaptureStdout([&] { result_ = WebFileRelay().Output(path.c_str(), "image/jpeg"); }));
  }
  test::Response Send(FILE* f) {
    return test::ParseResponse(test::CaptureStdout([&] { result_ = WebFileRelay().Output(f, "r.jpg", "image/jpeg"); }));
  }
  test::TempDir dir_;
  std::string file_ = dir_ / "a \"quoted\" name.jpg";
  int result_ = -1;
};

TEST_F(RelayTest, FileWithHeadersValidatorsAndBody) {
  test::Response r = Send(file_);
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(r.firstLine, "Content-Type: image/jpeg");
  EXPECT_EQ(r.headers["content-length"], "8");
  EXPECT_EQ(r.headers["content-disposition"],
            "inline; filename=\"a _quoted_ name.jpg\"; filename*=UTF-8''a%20%22quoted%22%20name.jpg");
  EXPECT_EQ(r.body, "JPEGDATA");
  // A matching tag or date costs no body: only `*` alone or our exact tag
  // (weak or not) matches; a date in the future is no date.
  const std::string etag = r.headers["etag"], match = "HTTP_IF_NONE_MATCH", since = "HTTP_IF_MODIFIED_SINCE";
  for (auto [var, value, status] : {std::tuple(match, etag, 304), {match, "\"other\"", 200}, {match, "*", 304},
                                    {match, "\"x\", W/" + etag, 304}, {match, "\"abc*def\"", 200},
                                    {match, "\"x" + etag.substr(1), 200}, {since, r.headers["last-modified"], 304},
                                    {since, "Thu, 01 Jan 1970 00:00:00 GMT", 200},
                                    {since, "Fri, 01 Jan 2100 00:00:00 GMT", 200}}) {
    setenv(var.c_str(), value.c_str(), 1);
    test::Response again = Send(file_);
    EXPECT_EQ(again.status, status) << var << value;
    EXPECT_EQ(again.body, status == 304 ? "" : "JPEGDATA");
    unsetenv(var.c_str());
  }
  setenv("REQUEST_METHOD", "HEAD", 1);
  test::Response head = Send(file_);
  EXPECT_EQ(head.headers["content-length"], "8");
  EXPECT_EQ(head.body, "");
}

TEST_F(RelayTest, FailuresEndTheHeaderBlockWithAStatusAndStreamsHaveNoLength) {
  test::Response missing = Send(dir_ / "missing.jpg");
  EXPECT_NE(result_, 0);
  EXPECT_TRUE(missing.complete);
  EXPECT_EQ(missing.firstLine, "Status: 404 Not Found");
  EXPECT_EQ(Send(dir_.path()).status, 500);  // a directory
  EXPECT_NE(result_, 0);
  // Never through a link, never a FIFO (which would block); a file we hold
  // open goes out under its own name.
  ASSERT_EQ(symlink(file_.c_str(), (dir_ / "link.jpg").c_str()), 0);
  EXPECT_EQ(Send(dir_ / "link.jpg").status, 404);
  ASSERT_EQ(mkfifo((dir_ / "fifo.jpg").c_str(), 0666), 0);
  EXPECT_EQ(Send(dir_ / "fifo.jpg").status, 500);
  const int fd = open(file_.c_str(), O_RDONLY);
  test::Response held = Send("/proc/self/fd/" + std::to_string(fd));
  close(fd);
  EXPECT_EQ(held.body, "JPEGDATA");
  EXPECT_EQ(held.headers["content-disposition"].find("filename=\"a _quoted_ name.jpg\""), 8u);
  test::Response null = Send(static_cast<FILE*>(nullptr));
  EXPECT_NE(result_, 0);
  EXPECT_EQ(null.firstLine, "Status: 500 Internal Server Error");
  EXPECT_TRUE(null.complete);
  test::Response stream = Send(fopen(file_.c_str(), "r"));
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(stream.headers.count("content-length"), 0u);
  EXPECT_EQ(stream.body, "JPEGDATA");
  EXPECT_EQ(Send(fopen("/dev/null", "r")).status, 500);
}

}  // namespace
}  // namespace kovathumb
