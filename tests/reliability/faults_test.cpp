// Faults around a request: bad sources, each ending in a clear error or a
// correct thumbnail, never a crash, and leaving no temporary file; tools that
// fail, die, hang or are missing; an EA directory that is full or not
// writable; eight processes asking for the same thumbnail at once.
#include <sys/mount.h>

#include <gtest/gtest.h>

#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"
#include "support/attacker.h"
#include "support/fake_platform.h"

namespace kovathumb {
namespace {

using test::Quote;

// Our temporary files of process `pid`: in EA directories under `dir` (not
// the "<work file>_<seconds>" a failed djpeg leaves by the command's own
// rule), its preview in /tmp, ours in /var/tmp.
std::string Leftovers(const std::string& dir, pid_t pid) {
  const std::string p = std::to_string(pid);
  return test::Capture("find " + Quote(dir) + " -path '*/.kovaea/*' \\( -name 'KOVAFILETMP*' -o -name '*_[0-9]*_[0-9]*' \\)"
                       " ! -regex '.*/KOVAFILETMP_THUMB[^/]*\\.jpg_[0-9]+'; ls /tmp/thumb." + p +
                       ".* /var/tmp/kovathumb_KOVAFILETMP_THUMB*_" + p + "* 2>/dev/null");
}

// Runs `kovathumb get SIZE PATH` and expects a clear failure (exit 1 with
// no response or a complete error one) or a complete image response (exit
// 0); never a crash or a leftover. Returns the exit status.
int GetCleanly(const std::string& path, const std::string& size = "big") {
  test::TempDir out;
  const pid_t pid = test::StartCli("get " + size + " -- " + Quote(path), out / "response");
  const int code = test::WaitExit(pid);
  const std::string what = path.substr(0, 200) + " " + size;
  EXPECT_TRUE(code == 0 || code == 1) << what << ": " << code;
  EXPECT_EQ(Leftovers(file::Dirname(path), pid), "") << what;
  test::Response r = test::ParseResponse(test::ReadFile(out / "response"));
  EXPECT_TRUE(r.complete || (code == 1 && r.raw.empty())) << what;
  EXPECT_TRUE(code != 0 || !r.headers.count("content-length") || r.headers["content-length"] == std::to_string(r.body.size()))
      << what;
  return code;
}

class BadInputTest : public ::testing::Test {
 protected:
  test::TempDir dir_;
  std::string src_ = dir_ / "photo.jpg";
};

TEST_F(BadInputTest, EmptyGarbageTruncatedAndMisnamedFiles) {
  std::string garbage(8000, '\0');
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<char>((i * 2654435761u) >> 13);
  for (const std::string ext : kImageExtensions) {
    for (const std::string& data : {std::string(), garbage}) {
      test::WriteFile(dir_ / ("x." + ext), data);
      EXPECT_EQ(GetCleanly(dir_ / ("x." + ext)), 1) << ext << data.size();
    }
  }
  test::MakePhoto(dir_ / "whole.jpg", 1600, 1200, 1);
  test::MakeImage(dir_ / "whole.png", 800, 600, "plasma:");
  test::MustSh("/usr/bin/convert -size 300x200 -delay 10 xc:red xc:blue " + Quote(dir_ / "whole.gif") + " && heif-enc -q 30 " +
               Quote(dir_ / "whole.jpg") + " -o " + Quote(dir_ / "whole.heic") + " >/dev/null");
  for (const std::string ext : {"jpg", "png", "gif", "heic"}) {
    const std::string whole = test::ReadFile(dir_ / ("whole." + ext));
    test::WriteFile(dir_ / ("cut." + ext), whole.substr(0, whole.size() / 2));
    GetCleanly(dir_ / ("cut." + ext));
    GetCleanly(dir_ / ("cut." + ext), "small");
  }
  // Misnamed files are read by their content.
  test::MustSh("cp " + Quote(dir_ / "whole.png") + " " + Quote(dir_ / "png.jpg"));
  test::MustSh("cp " + Quote(dir_ / "whole.jpg") + " " + Quote(dir_ / "jpeg.png"));
  EXPECT_EQ(GetCleanly(dir_ / "png.jpg"), 0);
  EXPECT_EQ(GetCleanly(dir_ / "jpeg.png"), 0);
}

TEST_F(BadInputTest, BombsAreBoundedAndGiveNoThumbnail) {
  // A PNG that declares 50 000 x 50 000 pixels in a few hundred bytes.
  test::MakeImage(dir_ / "small.png", 8, 8);
  std::string png = test::ReadFile(dir_ / "small.png");
  const size_t ihdr = png.find("IHDR");
  for (int i = 0; i < 8; ++i) png[ihdr + 4 + i] = "\x00\x00\xC3\x50"[i % 4];
  uint32_t crc = 0xFFFFFFFFu;  // CRC-32 of type and data
  for (size_t i = ihdr; i < ihdr + 17; ++i) {
    crc ^= static_cast<unsigned char>(png[i]);
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  for (int b = 0; b < 4; ++b) png[ihdr + 17 + b] = static_cast<char>((~crc >> (24 - 8 * b)) & 0xFF);
  test::WriteFile(dir_ / "bomb.png", png);
  EXPECT_EQ(GetCleanly(dir_ / "bomb.png"), 1);  // an unbounded decode would outlast the test's own limit
}

TEST_F(BadInputTest, DirectoriesVanishingSourcesAndHardNames) {
  test::MustSh("mkdir " + Quote(dir_ / "album.jpg"));
  EXPECT_EQ(GetCleanly(dir_ / "album.jpg"), 1);
  // The source disappears (the opened file is still read whole) or is
  // overwritten by garbage (nothing is sent) after the probe and before the
  // tool runs.
  const std::string src = dir_ / "going.jpg";
  for (bool replace : {false, true}) {
    test::MakePhoto(src);
    fake::Reset();
    fake::State().before_exec = [&](const std::vector<std::string>&) {
      replace ? test::WriteFile(src, std::string(3000, 'x')) : (void)unlink(src.c_str());
    };
    {
      Thumb thumb(src, 0, false);
      EXPECT_EQ(test::CaptureStdout([&] { EXPECT_EQ(thumb.Output("big") == 0, replace); }).empty(), replace);
    }
    fake::Reset();
    EXPECT_EQ(Leftovers(dir_.path(), getpid()), "") << replace;
  }
  // Names no shell would survive, and a path of about 4 000 bytes.
  std::string deep = dir_.path();
  while (deep.size() < 3700) mkdir((deep += "/" + std::string(180, 'd')).c_str(), 0755);
  deep = deep.substr(dir_.path().size() + 1) + "/" + std::string(200, 'n') + ".jpg";
  for (const std::string name : {"a b 'c' \"d\" $(touch pwned) `x`.jpg", "-dash.jpg", "new\nline.jpg", "caf\xE9\xFF.jpg", deep.c_str()}) {
    test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 jpg:- > " + Quote(dir_ / name));
    EXPECT_TRUE(GetCleanly(dir_ / name) == 0 || name == deep) << name;
  }
  EXPECT_FALSE(test::Exists(dir_ / "pwned"));
}

// 0 when a request for "big" sent nothing and left no file in EA directories.
int RequestFailsCleanly(const std::string& src) {
  Thumb thumb(src, 0, false);
  int result = 1;
  const std::string out = test::CaptureStdout([&] { result = thumb.Output("big"); });
  if (result != 0 || !out.empty()) return 1;
  return test::Capture("find " + Quote(file::Dirname(src)) + " -path '*/.kovaea/*' -type f").empty() ? 0 : 2;
}

using FaultsRootTest = BadInputTest;

TEST_F(FaultsRootTest, ToolsThatFailDieHangOrAreMissing) {
  test::MakePhoto(src_);
  setenv("KOVAPLATFORM_CHILD_WALL_SECONDS", "2", 1);
  for (const char* script : {"exit 1\n", "kill -9 $$\n", "exec sleep 1000\n", "exec /no/such/tool\n"}) {
    // A tool that outlives its wall time is killed, or the stand-ins' own alarm fails this.
    const int status = test::WithStandIns(
        {{"/usr/bin/djpeg", script}, {"/usr/bin/convert", script}, {"/usr/bin/dcraw", script}},
        [&] { return RequestFailsCleanly(src_); });
    if (status == test::kNoNamespace) GTEST_SKIP() << "needs root for a private mount namespace";
    EXPECT_EQ(status, 0) << script;
  }
  unsetenv("KOVAPLATFORM_CHILD_WALL_SECONDS");
}

TEST_F(FaultsRootTest, FullOrUnwritableEADirectory) {
  KT_SKIP_UNLESS_ROOT();
  test::MakePhoto(src_);
  const std::string small = dir_ / "small";
  mkdir(small.c_str(), 0755);
  EXPECT_EQ(test::WithStandIns({}, [&] {
    // Room for the source and hardly anything else.
    if (mount("tmpfs", small.c_str(), "tmpfs", 0, ("size=" + std::to_string(test::Stat(src_).st_size + 16384)).c_str()) != 0) return 3;
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
    test::MustSh("rm -rf " + Quote(dir.path() + "/.kovaea"));
    std::vector<pid_t> pids;
    for (int c = 0; c < clients; ++c) pids.push_back(test::StartCli("get --dossiva medium " + Quote(src), dir / std::to_string(c)));
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
  EXPECT_EQ(test::Capture("find " + Quote(dir.path()) + " -name 'KOVAFILETMP*' -o -name '*.jpg_*'"), "");
}

}  // namespace
}  // namespace kovathumb
