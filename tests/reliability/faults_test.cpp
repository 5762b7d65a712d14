// Faults around a request: tools that fail, die, hang or are missing; an EA
// directory that is full or not writable; eight processes asking for the
// same thumbnail, not yet made, at once.
#include <sys/mount.h>

#include <gtest/gtest.h>

#include <chrono>

#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "support/attacker.h"
#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

// 0 when a request for "big" sent nothing and left no file in EA directories.
int RequestFailsCleanly(const std::string& src) {
  Thumb thumb(src, 0, false);
  int result = 1;
  const std::string out = test::CaptureStdout([&] { result = thumb.Output("big"); });
  if (result != 0 || !out.empty()) return 1;
  return test::Capture("find " + Quote(file::Dirname(src)) + " -path '*/.kovaea/*' -type f").empty() ? 0 : 2;
}

class FaultsRootTest : public ::testing::Test {
 protected:
  void SetUp() override { test::MakePhoto(src_); }
  test::TempDir dir_;
  std::string src_ = dir_ / "photo.jpg";
};

TEST_F(FaultsRootTest, ToolsThatFailDieHangOrAreMissing) {
  setenv("KOVAPLATFORM_CHILD_WALL_SECONDS", "2", 1);
  for (const char* script : {"exit 1\n", "kill -9 $$\n", "exec sleep 1000\n", "exec /no/such/tool\n"}) {
    const auto start = std::chrono::steady_clock::now();
    const int status = test::WithStandIns(
        {{"/usr/bin/djpeg", script}, {"/usr/bin/convert", script}, {"/usr/bin/dcraw", script}},
        [&] { return RequestFailsCleanly(src_); });
    if (status == test::kNoNamespace) GTEST_SKIP() << "needs root for a private mount namespace";
    EXPECT_EQ(status, 0) << script;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << script;
  }
  unsetenv("KOVAPLATFORM_CHILD_WALL_SECONDS");
}

TEST_F(FaultsRootTest, FullOrUnwritableEADirectory) {
  KT_SKIP_UNLESS_ROOT();
  const std::string small = dir_ / "small";
  mkdir(small.c_str(), 0755);
  EXPECT_EQ(test::WithStandIns({}, [&] {
    // Room for the source and hardly anything else.
    const std::string opts = "size=" + std::to_string(test::Stat(src_).st_size + 16384);
    if (mount("tmpfs", small.c_str(), "tmpfs", 0, opts.c_str()) != 0) return 3;
    if (test::Sh("cp " + Quote(src_) + " " + Quote(small + "/photo.jpg")) != 0) return 4;
    return RequestFailsCleanly(small + "/photo.jpg");
  }), 0);
  // A user who may read the source but not write beside it gets no thumbnail, cleanly.
  chmod(dir_.path().c_str(), 0755);
  EXPECT_TRUE(test::AsAttacker([&] { return RequestFailsCleanly(src_) == 0; }));
}

TEST(StressTest, ConcurrentRequestsForTheSameThumbnail) {
  const char* env = std::getenv("KOVATHUMB_STRESS_ROUNDS");
  const int rounds = env != nullptr ? std::atoi(env) : 30, clients = 8;
  test::TempDir dir;
  const std::string src = dir / "photo.jpg";
  test::MakePhoto(src, 1200, 900, 6);
  int bad = 0;
  for (int round = 0; round < rounds; ++round) {
    test::MustSh("rm -rf " + test::Quote(dir.path() + "/.kovaea"));
    std::vector<pid_t> pids;
    for (int c = 0; c < clients; ++c) pids.push_back(test::StartCli("get --dossiva medium " + test::Quote(src), dir / std::to_string(c)));
    for (int c = 0; c < clients; ++c) {
      const int status = test::WaitExit(pids[c]);
      test::Response r = test::ParseResponse(test::ReadFile(dir / std::to_string(c)));
      // A whole JPEG: its length as announced, its end marker last.
      const bool ok = status == 0 && r.headers["content-length"] == std::to_string(r.body.size()) && r.body.size() > 4 &&
                      r.body.compare(0, 2, "\xFF\xD8") == 0 && r.body.compare(r.body.size() - 2, 2, "\xFF\xD9") == 0;
      if (!ok && ++bad < 5) ADD_FAILURE() << "round " << round << " client " << c;
    }
  }
  EXPECT_EQ(bad, 0);
  EXPECT_EQ(test::ImageSize(dir.path() + "/.kovaea/photo.jpg/KOVAFILE_THUMB_M_r1.jpg"), std::make_pair(270u, 360u));
  EXPECT_EQ(test::Capture("find " + test::Quote(dir.path()) + " -name 'KOVAFILETMP*' -o -name '*.jpg_*'"), "");
}

}  // namespace
}  // namespace kovathumb
