#include "kovaplatform/webfile_relay.h"

#include <stdlib.h>

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
  // Revalidation: a matching tag or date costs no body.
  struct Case {
    const char* var;
    std::string value;
    int status;
  };
  for (const Case& c : {Case{"HTTP_IF_NONE_MATCH", r.headers["etag"], 304}, Case{"HTTP_IF_NONE_MATCH", "\"other\"", 200},
                        Case{"HTTP_IF_MODIFIED_SINCE", r.headers["last-modified"], 304},
                        Case{"HTTP_IF_MODIFIED_SINCE", "Thu, 01 Jan 1970 00:00:00 GMT", 200}}) {
    setenv(c.var, c.value.c_str(), 1);
    test::Response again = Send(file_);
    EXPECT_EQ(again.status, c.status) << c.var << c.value;
    EXPECT_EQ(again.body, c.status == 304 ? "" : "JPEGDATA");
    unsetenv(c.var);
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
