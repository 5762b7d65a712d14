// Faults around a request: tools that fail, die, hang or are missing; an EA
// directory that is full or not writable.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

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
  struct stat st;
  stat(src_.c_str(), &st);
  const std::string small = dir_ / "small";
  mkdir(small.c_str(), 0755);
  EXPECT_EQ(test::WithStandIns({}, [&] {
    // Room for the source and hardly anything else.
    const std::string opts = "size=" + std::to_string(st.st_size + 16384);
    if (mount("tmpfs", small.c_str(), "tmpfs", 0, opts.c_str()) != 0) return 3;
    if (test::Sh("cp " + Quote(src_) + " " + Quote(small + "/photo.jpg")) != 0) return 4;
    return RequestFailsCleanly(small + "/photo.jpg");
  }), 0);
  // A user who may read the source but not write beside it gets no thumbnail, cleanly.
  chmod(dir_.path().c_str(), 0755);
  EXPECT_TRUE(test::AsAttacker([&] { return RequestFailsCleanly(src_) == 0; }));
}

}  // namespace
}  // namespace kovathumb
