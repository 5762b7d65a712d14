// Faults around a request: tools that fail, die, hang or are missing; an EA
// directory that is full or not writable; links planted in it.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "support/response.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;
constexpr int kSkip = 77;

// Runs `fn` in a child with a private mount namespace; its exit status, or
// kSkip where the machine allows no namespace.
int Isolated(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(kSkip);
    try {
      _exit(fn());
    } catch (...) {
      _exit(5);  // never back into the test runner from the child
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

void MakePhoto(const std::string& path) {
  test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " + Quote(path));
}

// 0 when a request for "big" sent nothing and left no work file.
int RequestFailsCleanly(const std::string& src) {
  Thumb thumb(src, 0, false);
  int result = 1;
  const std::string out = test::CaptureStdout([&] { result = thumb.Output("big"); });
  if (result != 0 || !out.empty()) return 1;
  const std::string left = test::Capture("find " + Quote(file::Dirname(src)) + " -path '*/.kovaea/*' -type f");
  return left.empty() ? 0 : 2;
}

class FaultsTest : public ::testing::Test {
 protected:
  void SetUp() override { MakePhoto(src_); }
  test::TempDir dir_;
  std::string src_ = dir_ / "photo.jpg";
};

TEST_F(FaultsTest, ToolsThatFailDieHangOrAreMissing) {
  struct Case {
    const char* name;
    const char* script;
    mode_t mode;
  };
  for (const Case& c : {Case{"failing", "#!/bin/sh\nexit 1\n", 0755}, Case{"killed", "#!/bin/sh\nkill -9 $$\n", 0755},
                        Case{"hanging", "#!/bin/sh\nexec sleep 1000\n", 0755}, Case{"missing", "", 0644}}) {
    const std::string tool = dir_ / c.name;
    test::WriteFile(tool, c.script);
    chmod(tool.c_str(), c.mode);
    const auto start = std::chrono::steady_clock::now();
    const int status = Isolated([&] {
      for (const char* real : {"/usr/bin/djpeg", "/usr/bin/convert", "/usr/bin/dcraw"}) {
        if (mount(tool.c_str(), real, nullptr, MS_BIND, nullptr) != 0) return kSkip;
      }
      setenv("KOVAPLATFORM_CHILD_WALL_SECONDS", "2", 1);
      return RequestFailsCleanly(src_);
    });
    if (status == kSkip) GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(status, 0) << c.name;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << c.name;
  }
}

TEST_F(FaultsTest, FullOrUnwritableEADirectory) {
  struct stat st;
  stat(src_.c_str(), &st);
  const std::string small = dir_ / "small";
  mkdir(small.c_str(), 0755);
  const int full = Isolated([&] {
    // Room for the source and hardly anything else.
    const std::string opts = "size=" + std::to_string(st.st_size + 16384);
    if (mount("tmpfs", small.c_str(), "tmpfs", 0, opts.c_str()) != 0) return kSkip;
    if (test::Sh("cp " + Quote(src_) + " " + Quote(small + "/photo.jpg")) != 0) return 3;
    return RequestFailsCleanly(small + "/photo.jpg");
  });
  if (full == kSkip) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(full, 0);

  // A user who may read the source but not write beside it gets no
  // thumbnail, cleanly.
  chmod(dir_.path().c_str(), 0755);
  const int unwritable = Isolated([&] {
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) return 4;
    return RequestFailsCleanly(src_);
  });
  EXPECT_EQ(unwritable, 0);
}

TEST_F(FaultsTest, PlantedLinksAreReplacedNeverFollowed) {
  const std::string victim = dir_ / "victim";
  test::WriteFile(victim, "victim");
  chmod(victim.c_str(), 0600);
  chown(victim.c_str(), 65534, 65534);
  const std::string ea = dir_.path() + "/.kovaea/photo.jpg";
  test::MustSh("mkdir -p " + Quote(ea));
  // One in place of the thumbnail, one in place of this process's work file.
  ASSERT_EQ(symlink(victim.c_str(), (ea + "/KOVAFILE_THUMB_B.jpg").c_str()), 0);
  ASSERT_EQ(symlink(victim.c_str(), (ea + "/KOVAFILETMP_THUMB_" + std::to_string(getpid()) + ".jpg").c_str()), 0);
  Thumb thumb(src_, 0, false);
  ASSERT_EQ(thumb.CalcOutputFile("big"), ea + "/KOVAFILE_THUMB_B.jpg");
  struct stat st;
  ASSERT_EQ(lstat((ea + "/KOVAFILE_THUMB_B.jpg").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  ASSERT_EQ(stat(victim.c_str(), &st), 0);
  EXPECT_EQ(test::ReadFile(victim), "victim");
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(st.st_uid, 65534u);
}

}  // namespace
}  // namespace kovathumb
