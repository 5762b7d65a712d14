// kovathumb-cgi behind the real lighttpd, on a loopback port chosen now;
// the request parser's own refusals are pinned by its tests.
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Http;
using test::Quote;

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (test::Sh("command -v lighttpd >/dev/null") != 0) GTEST_SKIP() << "lighttpd is not installed";
    // photos2 shares the root's name as a prefix, and is outside it.
    test::MustSh("mkdir -p " + Quote(root_ + "/album") + " " + Quote(root_ + "2"));
    test::MakePhoto(root_ + "/album/p 1.jpg", 1600, 1200, 6);
    test::WriteFile(root_ + "2/secret.jpg", "secret");
    ASSERT_EQ(symlink((root_ + "2/secret.jpg").c_str(), (root_ + "/leak.jpg").c_str()), 0);
    const std::string url = test::Capture(Env() + " " KOVATHUMB_SOURCE_DIR "/scripts/serve.sh start " + Quote(root_) + " 0");
    port_ = std::atoi(url.c_str() + url.rfind(':') + 1);
    ASSERT_GT(port_, 0) << url;
  }
  void TearDown() override {
    if (port_ > 0) test::Sh(Env() + " " KOVATHUMB_SOURCE_DIR "/scripts/serve.sh stop");
  }
  std::string Env() const { return "SERVE_DIR=" + Quote(dir_ / "server") + " KOVATHUMB_CGI=" + Quote(KOVATHUMB_CGI_BIN); }
  test::TempDir dir_;
  std::string root_ = dir_ / "photos";
  int port_ = 0;
};

TEST_F(ServerTest, AnswersThumbnailsAndRefusesWhatItMust) {
  test::Response ok = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small");
  ASSERT_EQ(ok.status, 200) << ok.raw.substr(0, 300);
  EXPECT_EQ(ok.headers["cache-control"], "max-age=300, must-revalidate");
  EXPECT_EQ(ok.headers["content-type"], "image/jpeg");
  EXPECT_EQ(test::BodySize(ok.body), std::make_pair(90u, 120u));  // upright, in 120x120
  EXPECT_EQ(test::BodySize(Http(port_, "GET", "/thumb?path=album/p%201.jpg&w=200&h=100").body),
            std::make_pair(75u, 100u));
  // Only as root is the stored thumbnail reused; as another user each answer is made afresh.
  test::Response again =
      Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small", "If-None-Match: " + ok.headers["etag"] + "\r\n");
  EXPECT_EQ(again.status, geteuid() == 0 ? 304 : 200);
  EXPECT_EQ(again.body.empty(), geteuid() == 0);
  test::Response head = Http(port_, "HEAD", "/thumb?path=album/p%201.jpg&size=small");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.body, "");
  test::Response post = Http(port_, "POST", "/thumb?path=album/p%201.jpg&size=small", "Content-Length: 0\r\n");
  EXPECT_EQ(post.status, 405);
  EXPECT_EQ(post.headers["allow"], "GET, HEAD");
  for (auto c : {std::make_pair("path=leak.jpg&size=small", 403), {"path=../photos2/secret.jpg&size=small", 403},
                 {"path=album/none.jpg&size=small", 404}, {"path=album/p%201.jpg&size=huge", 400}}) {
    EXPECT_EQ(Http(port_, "GET", std::string("/thumb?") + c.first).status, c.second) << c.first;
  }
  const int huge = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small&pad=" + std::string(100000, 'a')).status;
  EXPECT_TRUE(huge >= 400 && huge < 500) << huge;
  test::Response list = Http(port_, "GET", "/thumb?list=1");
  EXPECT_EQ(list.status, 200);
  EXPECT_NE(list.body.find("\"path\":\"album/p 1.jpg\""), std::string::npos);
  EXPECT_EQ(list.body.find("leak"), std::string::npos);
  EXPECT_EQ(Http(port_, "GET", "/").status, 200);
}

}  // namespace
}  // namespace kovathumb
