// Both thumbnail endpoints behind the real lighttpd, on a loopback port
// chosen now; the request parser's own refusals are pinned by its tests.
#include <signal.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <thread>

#include "support/attacker.h"

namespace kovathumb {
namespace {

using namespace test;

// The processes whose parent is `pid`, and a process's resident KiB.
std::vector<int> Children(int pid) {
  std::istringstream in(test::Capture("pgrep -P " + std::to_string(pid)));
  std::vector<int> out;
  for (int p; in >> p;) out.push_back(p);
  return out;
}
long ResidentKiB(int pid) { return std::atol(test::Capture("ps -o rss= -p " + std::to_string(pid)).c_str()); }

class ServerTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (test::Sh("command -v lighttpd >/dev/null") != 0) GTEST_SKIP() << "lighttpd is not installed";
    test::MustSh("mkdir -p " + Quote(root_ + "/album"));
    test::MakePhoto(root_ + "/album/p 1.jpg", 1600, 1200, 6);
    const std::string url = test::Capture(Env() + " " KOVATHUMB_SOURCE_DIR "/scripts/serve.sh start " + Quote(root_) + " 0");
    port_ = std::atoi(url.c_str() + url.rfind(':') + 1);
    ASSERT_GT(port_, 0) << url;
  }
  void TearDown() override {
    if (port_ > 0) test::Sh(Env() + " " KOVATHUMB_SOURCE_DIR "/scripts/serve.sh stop");
  }
  std::string Env() const {
    return "SERVE_DIR=" + Quote(dir_ / "server") + " KOVATHUMB_CGI=" + Quote(KOVATHUMB_CGI_BIN) +
           " KOVATHUMB_FCGI=" + Quote(KOVATHUMB_FCGI_BIN) + " KOVATHUMB_FCGI_WORKERS=2 KOVATHUMB_ENDPOINT=" + GetParam();
  }
  // kovathumb-fcgi's workers, under its supervisor under lighttpd.
  std::vector<int> Workers() const {
    const std::vector<int> top = Children(std::atoi(test::ReadFile(dir_ / "server/lighttpd.pid").c_str()));
    return top.size() == 1 ? Children(top[0]) : std::vector<int>();
  }
  test::TempDir dir_;
  std::string root_ = dir_ / "photos";
  int port_ = 0;
};

TEST_P(ServerTest, AnswersThumbnailsAndRefusesWhatItMust) {
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
  EXPECT_TRUE(again.status == (geteuid() == 0 ? 304 : 200) && again.body.empty() == (geteuid() == 0)) << again.status;
  // Nor does that validator stay for the next requests a FastCGI worker answers.
  for (const char* method : {"HEAD", "GET", "GET"}) {
    test::Response r = Http(port_, method, "/thumb?path=album/p%201.jpg&size=small");
    EXPECT_TRUE(r.status == 200 && r.body.empty() == (method[0] == 'H')) << method;
  }
  // A stored thumbnail, sent again as it was stored (by the FastCGI
  // endpoint, through X-Sendfile, which the client never sees).
  test::Response made = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=medium&quality=0");
  test::Response stored = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=medium&quality=0");
  EXPECT_TRUE(stored.status == 200 && stored.body == made.body && stored.headers["etag"] == made.headers["etag"]);
  EXPECT_EQ(stored.headers.count("x-sendfile"), 0u);
  EXPECT_EQ(test::ListDir(dir_ / "server/sendfile").size(), GetParam() == std::string("fcgi") ? 2u : 0u);  // small, medium
  test::Response post = Http(port_, "POST", "/thumb?path=album/p%201.jpg&size=small", "Content-Length: 0\r\n");
  EXPECT_EQ(std::to_string(post.status) + " " + post.headers["allow"], "405 GET, HEAD");
  // Which paths are refused is the endpoints' own (ProgramAttackRootTest).
  const int huge = Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small&pad=" + std::string(100000, 'a')).status;
  EXPECT_TRUE(huge >= 400 && huge < 500) << huge;
  test::Response list = Http(port_, "GET", "/thumb?list=1");
  EXPECT_EQ(list.status, 200);
  EXPECT_NE(list.body.find("\"path\":\"album/p 1.jpg\""), std::string::npos);
  EXPECT_EQ(Http(port_, "GET", "/").status, 200);
  // A source that fails its probe is probed once a request: by the
  // FastCGI worker's look in the store and the conversion after it together.
  test::WriteFile(root_ + "/album/tiny.jpg", "garbage");
  const std::string log = test::Capture("REQUEST_METHOD=GET KOVATHUMB_LOG_STDERR=1 KOVATHUMB_ROOT=" + Quote(root_) +
                                        " QUERY_STRING='path=album/tiny.jpg&size=small' " +
                                        (GetParam() == std::string("fcgi") ? KOVATHUMB_FCGI_BIN : KOVATHUMB_CGI_BIN) + " 2>&1 >/dev/null");
  size_t probes = 0;
  for (size_t at = log.find("Exiv2 exception"); at != std::string::npos; at = log.find("Exiv2 exception", at + 1)) ++probes;
  EXPECT_EQ(probes, 1u) << log;
}

INSTANTIATE_TEST_SUITE_P(Endpoints, ServerTest, ::testing::Values("cgi", "fcgi"));

using FcgiTest = ServerTest;

TEST_P(FcgiTest, WorkersCrashingMidRequestAnswer503AreReplacedAndMemoryStaysFlat) {
  const std::vector<int> first = Workers();
  ASSERT_EQ(first.size(), 2u);
  int cut = 0;
  std::thread slow([&] { cut = Http(port_, "GET", "/thumb?path=album/p%201.jpg&w=1000&h=999").status; });
  // Mid-request: a worker has started the request's own process.
  EXPECT_TRUE(test::WaitFor([&] {
    return std::any_of(first.begin(), first.end(), [](int pid) {
      return !test::ReadFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children").empty();
    });
  }, 30));
  for (int pid : first) kill(pid, SIGSEGV);
  slow.join();
  EXPECT_TRUE(cut == 503 || cut == 200) << cut;  // the worker's last word or, had it finished first, the thumbnail
  // Gone and replaced: a worker the signal has not reached yet may still
  // take a connection and die with it.
  EXPECT_TRUE(test::WaitFor([&] {
    const std::vector<int> now = Workers();
    return now.size() == 2 && std::none_of(now.begin(), now.end(), [&](int pid) { return std::count(first.begin(), first.end(), pid) > 0; });
  }, 30));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Http(port_, "GET", "/thumb?path=album/p%201.jpg&size=small").status, 200);

  // 10,000 requests over four connections at a time: stored thumbnails,
  // revalidations and refusals. No worker grows.
  const std::string stored = "/thumb?path=album/p%201.jpg&size=small&quality=0";
  const std::string etag = Http(port_, "GET", stored).headers["etag"];
  const std::pair<std::string, int> kinds[] = {
      {stored, 200}, {stored, 304}, {"/thumb?path=album/none.jpg&size=small", 404}, {"/thumb?path=album/p%201.jpg&size=huge", 400}};
  auto load = [&](int count) {  // one kind of request a connection
    std::vector<std::thread> clients;
    for (const auto& k : kinds) {
      clients.emplace_back([&, k] {
        const std::string extra = k.second == 304 ? "If-None-Match: " + etag + "\r\n" : "";
        for (int i = 0; i < count / 4; ++i) ASSERT_EQ(Http(port_, "GET", k.first, extra).status, k.second) << k.first;
      });
    }
    for (std::thread& t : clients) t.join();
  };
  load(1000);
  std::map<int, long> before;
  for (int pid : Workers()) before[pid] = ResidentKiB(pid);
  load(9000);
  for (const auto& w : before) {
    const long after = ResidentKiB(w.first);
    EXPECT_LE(after, w.second + 512) << "worker " << w.first;
    EXPECT_LT(after, 16 * 1024) << "worker " << w.first;
  }
  EXPECT_EQ(test::ListDir(dir_ / "server/sendfile").size(), 1u);  // every worker hands the file over under one name
}

INSTANTIATE_TEST_SUITE_P(Endpoint, FcgiTest, ::testing::Values("fcgi"));

// The attacker owns a folder of the served tree (alice) and asks for what
// is in it.
class FcgiAttackRootTest : public ServerTest {
 protected:
  void SetUp() override {
    KT_SKIP_UNLESS_ROOT();
    ServerTest::SetUp();
    chmod(dir_.path().c_str(), 0755);
    test::MustSh("mkdir -m 0755 " + Quote(mine_) + " && chown 65534:65534 " + Quote(mine_));
  }
  // The bytes of the files in `dir`.
  static long long Bytes(const std::string& dir) {
    long long bytes = 0;
    for (const std::string& name : test::ListDir(dir)) bytes += test::Stat(dir + "/" + name).st_size;
    return bytes;
  }
  std::string mine_ = root_ + "/alice";
};

TEST_P(FcgiAttackRootTest, StoredFilesLargerThanAThumbnailAreNeitherSentNorCopiedNorHeld) {
  // Four photos of the attacker's, each with a sparse 96 MiB file (16 KiB
  // of the user's quota) under its stored thumbnail's name, asked for twice.
  const std::string m = mine_;
  for (int i = 0; i < 4; ++i) test::MakePhoto(m + "/a" + std::to_string(i) + ".jpg", 800, 600);
  test::MustSh("chown 65534:65534 " + Quote(m) + "/*.jpg");
  ASSERT_TRUE(test::ShAsAttacker("cd " + Quote(m) + " && for i in 0 1 2 3; do mkdir -p .kovaea/a$i.jpg && truncate -s 96M "
                                 ".kovaea/a$i.jpg/KOVAFILE_THUMB_S.jpg; done"));
  std::string thumb;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 4; ++i) {
      const test::Response r = Http(port_, "GET", "/thumb?path=alice/a" + std::to_string(i) + ".jpg&size=small&quality=0");
      EXPECT_TRUE(r.status == 200 && r.body.size() < (1u << 20) && test::BodySize(r.body).first > 0) << r.status << " " << r.raw.size();
      thumb = r.body;
    }
  }
  EXPECT_LT(Bytes(dir_ / "server/sendfile"), 1 << 20);
  for (int pid : Workers()) EXPECT_LT(ResidentKiB(pid), 16 * 1024) << "worker " << pid;
  // The copies handed over take at most four thumbnails' bound together,
  // the oldest going first: eight stored files of 12 KiB, thumbnails
  // bounded at 16 KiB.
  const std::string handover = dir_ / "handover";
  ASSERT_EQ(mkdir(handover.c_str(), 0700), 0);
  ASSERT_TRUE(test::ShAsAttacker("cd " + Quote(m) + " && for i in 0 1 2 3; do for s in M B; do head -c 12288 /dev/urandom > "
                                 ".kovaea/a$i.jpg/KOVAFILE_THUMB_$s.jpg; done; done"));
  for (int i = 0; i < 8; ++i) {
    const std::string name = "a" + std::to_string(i / 2) + ".jpg";
    test::Response r = test::ParseResponse(test::Capture(
        "REQUEST_METHOD=GET KOVATHUMB_ROOT=" + Quote(root_) + " QUERY_STRING=" + Quote("path=alice/" + name + "&quality=0&size=" +
        (i % 2 ? "big" : "medium")) + " KOVATHUMB_SENDFILE_DIR=" + Quote(handover) + " KOVATHUMB_MAX_THUMB_BYTES=16384 " KOVATHUMB_FCGI_BIN));
    EXPECT_TRUE(test::ReadFile(r.headers["x-sendfile"]) ==
                test::ReadFile(m + "/.kovaea/" + name + "/KOVAFILE_THUMB_" + (i % 2 ? "B" : "M") + ".jpg")) << i;
    EXPECT_LE(Bytes(handover), 4 * 16384) << i;
  }
  EXPECT_EQ(test::ListDir(handover).size(), 5u);
  // A stored thumbnail rewritten in place is handed over as it is now, not
  // as a copy of what it was.
  const std::string stored = m + "/.kovaea/a0.jpg/KOVAFILE_THUMB_S.jpg";
  test::WriteFile(dir_ / "thumb.jpg", thumb);
  const std::string copy = dir_ / "thumb.jpg";
  for (const char* change : {"cp %s %s", "printf changed | dd of=%2$s bs=1 seek=200 conv=notrunc status=none"}) {
    char command[1024];
    snprintf(command, sizeof command, change, Quote(copy).c_str(), Quote(stored).c_str());
    ASSERT_TRUE(test::ShAsAttacker(command));
    EXPECT_TRUE(Http(port_, "GET", "/thumb?path=alice/a0.jpg&size=small&quality=0").body == test::ReadFile(stored)) << change;
  }
}

TEST_P(FcgiAttackRootTest, ConversionsLeaveAWorkerForStoredAnswersAndErrors) {
  const std::string stored = "/thumb?path=album/p%201.jpg&size=medium&quality=0";
  const test::Response before = Http(port_, "GET", stored);  // made now, stored from here on
  ASSERT_EQ(before.status, 200);
  test::Sh(Env() + " " KOVATHUMB_SOURCE_DIR "/scripts/serve.sh stop");
  port_ = 0;
  // Conversions wait at a gate the test opens once the other answers came;
  // sandboxed, they see the stand-ins' folder only, and write nowhere of ours.
  const std::string gate = "/usr/local/src/gate";
  const std::string held = "while [ ! -e " + gate + " ]; do sleep 0.05; done; exec \"$REAL\" \"$@\"\n";
  const auto entered = [] { return system("pgrep -f '^/bin/sh /usr/bin/(djpeg|convert)' >/dev/null") == 0; };
  const std::string env = Env(), photo = root_;
  const int failed = test::WithStandIns({{"/usr/bin/djpeg", held}, {"/usr/bin/convert", held}}, [&] {
    const std::string url = test::Capture(env + " " KOVATHUMB_SOURCE_DIR "/scripts/serve.sh start " + Quote(photo) + " 0");
    const int port = std::atoi(url.c_str() + url.rfind(':') + 1);
    int failures = 0;
    {
      // Twice the workers' conversions at once, again and again.
      test::AttackerLoop attacker([port] {
        std::vector<std::thread> clients;
        for (int i = 0; i < 4; ++i) {
          clients.emplace_back([port, i] { Http(port, "GET", "/thumb?path=album/p%201.jpg&quality=0&w=" + std::to_string(300 + i) + "&h=299"); });
        }
        for (std::thread& t : clients) t.join();
      });
      if (!test::WaitFor(entered, 20)) failures |= 1;
      const test::Response again = Http(port, "GET", stored);
      const test::Response missing = Http(port, "GET", "/thumb?path=album/none.jpg&size=small");
      // Answered while the conversions still wait at the gate.
      if (again.status != 200 || again.body != before.body || missing.status != 404 || attacker.Rounds() != 0) failures |= 2;
      test::WriteFile(gate, "");
      if (!test::WaitFor([&] { return attacker.Rounds() > 0; }, 20)) failures |= 4;
    }
    test::Sh(env + " " KOVATHUMB_SOURCE_DIR "/scripts/serve.sh stop");
    return failures;
  });
  EXPECT_EQ(failed, 0);
}

INSTANTIATE_TEST_SUITE_P(Endpoint, FcgiAttackRootTest, ::testing::Values("fcgi"));

}  // namespace
}  // namespace kovathumb
