// kovathumb-cgi behind the real lighttpd, on a loopback port chosen now.
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Http;
using test::HttpResult;
using test::Quote;

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (test::Sh("command -v lighttpd >/dev/null") != 0) GTEST_SKIP() << "lighttpd is not installed";
    root_ = dir_ / "photos";
    test::MustSh("mkdir -p " + Quote(root_ + "/album") + " " + Quote(dir_ / "private"));
    test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " +
                 Quote(root_ + "/album/p 1.jpg"));
    test::SetExif(root_ + "/album/p 1.jpg", "Exif.Image.Orientation", "6");
    test::WriteFile(dir_ / "private/secret.jpg", "secret");
    ASSERT_EQ(symlink((dir_ / "private/secret.jpg").c_str(), (root_ + "/leak.jpg").c_str()), 0);
    test::WriteFile(root_ + "/notes.txt", "text");
    const std::string url = test::Capture(Env() + " " + KOVATHUMB_SOURCE_DIR "/scripts/serve.sh start " +
                                          Quote(root_) + " 0");
    port_ = std::atoi(url.c_str() + url.rfind(':') + 1);
    ASSERT_GT(port_, 0) << url;
  }
  void TearDown() override {
    if (port_ > 0) test::Sh(Env() + " " + KOVATHUMB_SOURCE_DIR "/scripts/serve.sh stop");
  }
  std::string Env() const {
    return "SERVE_DIR=" + Quote(dir_ / "server") + " KOVATHUMB_CGI=" + Quote(KOVATHUMB_CGI_BIN);
  }
  test::TempDir dir_;
  std::string root_;
  int port_ = 0;
};

TEST_F(ServerTest, AnswersThumbnailsAndRefusesWhatItMust) {
  HttpResult ok = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small");
  ASSERT_EQ(ok.status, 200) << ok.raw.substr(0, 300);
  EXPECT_EQ(ok.headers["cache-control"], "max-age=300, must-revalidate");
  EXPECT_EQ(ok.headers["content-type"], "image/jpeg");
  test::WriteFile(dir_ / "small.jpg", ok.body);
  EXPECT_EQ(test::ImageSize(dir_ / "small.jpg"), std::make_pair(90u, 120u));  // upright, in 120x120

  HttpResult box = Http(port_, "GET", "/thumb?path=album/p%201.jpg&w=200&h=100");
  test::WriteFile(dir_ / "box.jpg", box.body);
  EXPECT_EQ(test::ImageSize(dir_ / "box.jpg"), std::make_pair(75u, 100u));

  // A cached answer revalidates without a body.
  HttpResult again = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small",
                          "If-None-Match: " + ok.headers["etag"] + "\r\n");
  EXPECT_EQ(again.status, 304);
  EXPECT_EQ(again.body, "");
  HttpResult head = Http(port_, "HEAD", "/thumb?path=album/p%201.jpg&size=small");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.body, "");

  EXPECT_EQ(Http(port_, "GET", "/thumb?path=../private/secret.jpg&size=small").status, 403);
  EXPECT_EQ(Http(port_, "GET", "/thumb?path=%2e%2e/private/secret.jpg&size=small").status, 403);
  EXPECT_EQ(Http(port_, "GET", "/thumb?path=leak.jpg&size=small").status, 403);
  EXPECT_EQ(Http(port_, "GET", "/thumb?path=album/none.jpg&size=small").status, 404);
  EXPECT_EQ(Http(port_, "GET", "/thumb?path=notes.txt&size=small").status, 400);
  EXPECT_EQ(Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=huge").status, 400);
  EXPECT_EQ(Http(port_, "GET", "/thumb?path=%2Fetc%2Fpasswd&size=small").status, 400);
  EXPECT_EQ(Http(port_, "POST", "/thumb?path=album/p%201.jpg&size=small", "Content-Length: 0\r\n").status, 405);

  // Hard-to-parse and oversized queries never reach the library.
  for (const char* q : {"path=album/p%201.jpg%00.png&size=small", "path=album%2F..%2F..%2Fprivate%2Fsecret.jpg&size=small",
                        "path=album/p%201.jpg&size=small&size=big", "path=album/p%201.jpg&size=small&x=%ZZ",
                        "path=album//..//..//private/secret.jpg&size=small", "path=./album/../../private/secret.jpg&edge=9"}) {
    const int status = Http(port_, "GET", std::string("/thumb?") + q).status;
    EXPECT_TRUE(status == 400 || status == 403) << q << ": " << status;
  }
  const int huge = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small&pad=" + std::string(100000, 'a')).status;
  EXPECT_GE(huge, 400) << huge;
  EXPECT_LT(huge, 500) << huge;

  HttpResult list = Http(port_, "GET", "/thumb?list=1");
  EXPECT_EQ(list.status, 200);
  EXPECT_NE(list.body.find("\"path\":\"album/p 1.jpg\""), std::string::npos);
  EXPECT_EQ(list.body.find("secret"), std::string::npos);
  EXPECT_EQ(Http(port_, "GET", "/").status, 200);
}

}  // namespace
}  // namespace kovathumb
