// The platform library: EA paths, copies, and the children it runs.
#include "kovaplatform/kovaplatform.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace {

using kovathumb::test::Exists;
using kovathumb::test::ReadFile;
using kovathumb::test::TempDir;
using kovathumb::test::WriteFile;

TEST(PlatformEATest, PathsAndRefusals) {
  char buf[4096];
  for (auto [src, path] : {std::pair("/dir/photo.jpg", "/dir/.kovaea/photo.jpg/NAME"), {"photo.jpg", ".kovaea/photo.jpg/NAME"}}) {
    ASSERT_GE(KOVAEAPath(0, src, "NAME", buf, sizeof buf, 0), 0);
    EXPECT_STREQ(buf, path);
  }
  ASSERT_EQ(KOVAEADirPath(0, "/dir/photo.jpg", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "/dir/.kovaea/photo.jpg");
  for (auto c : {std::make_pair("/dir/", "NAME"), {"", "NAME"}, {"/d/a.jpg", "../../etc/passwd"}, {"/d/a.jpg", ".."},
                 {"/d/a.jpg", ""}}) {
    EXPECT_LT(KOVAEAPath(0, c.first, c.second, buf, sizeof buf, 0), 0) << c.first << " " << c.second;
  }
  EXPECT_LT(KOVAEAPath(0, "/dir/a.jpg", "NAME", buf, 10, 0), 0);
  EXPECT_NE(KOVAEADirPath(0, "/dir/..", buf, sizeof buf), 0);
  TempDir dir;
  const std::string ea = dir.path() + "/.kovaea/a.jpg";
  EXPECT_NE(KOVAEAMKDir(0, ea.c_str()), 0);  // without flag 1 the parent must exist
  EXPECT_EQ(KOVAEAMKDir(1, ea.c_str()), 0);
  EXPECT_EQ(KOVAEAMKDir(1, ea.c_str()), 0);
  WriteFile(dir.path() + "/.kovaea/b.jpg", "x");
  EXPECT_NE(KOVAEAMKDir(1, (dir.path() + "/.kovaea/b.jpg").c_str()), 0);
  EXPECT_EQ(KOVAGetFSType("/dev/shm", 0), KOVA_FS_TMPFS);
  EXPECT_EQ(KOVAGetFSType("/no/such/path", 0), -1);
}

TEST(PlatformCopyTest, CopyMoveAcrossFileSystemsAndNoTemporaryLeft) {
  TempDir dir;
  KOVA_FILE_COPY_OPT copy = {}, move = {};
  move.move = 1;
  WriteFile(dir / "a", "alpha", 0640);
  ASSERT_EQ(KOVAFileCopy((dir / "a").c_str(), (dir / "b").c_str(), &copy), 0);
  EXPECT_EQ(ReadFile(dir / "b"), "alpha");
  EXPECT_TRUE(Exists(dir / "a"));
  EXPECT_EQ(kovathumb::test::Stat(dir / "b").st_mode & 0777, 0640u);
  ASSERT_EQ(KOVAFileCopy((dir / "a").c_str(), (dir / "c").c_str(), &move), 0);
  EXPECT_FALSE(Exists(dir / "a"));
  // /dev/shm is a tmpfs, a file system of its own: rename fails with EXDEV.
  const std::string shm = "/dev/shm/kovathumb_test_" + std::to_string(getpid());
  ASSERT_EQ(KOVAFileCopy((dir / "c").c_str(), shm.c_str(), &move), 0);
  EXPECT_FALSE(Exists(dir / "c"));
  EXPECT_EQ(ReadFile(shm), "alpha");
  EXPECT_NE(KOVAFileCopy((dir / "missing").c_str(), (dir / "d").c_str(), &copy), 0);
  EXPECT_NE(KOVAFileCopy(dir.path().c_str(), (dir / "d").c_str(), &copy), 0);  // a directory
  // The temporary copy is made, then cannot take the place of a directory.
  kovathumb::test::MustSh("mkdir -p " + kovathumb::test::Quote(dir / "full/x"));
  EXPECT_NE(KOVAFileCopy(shm.c_str(), (dir / "full").c_str(), &move), 0);
  EXPECT_TRUE(Exists(shm));
  unlink(shm.c_str());
  EXPECT_EQ(kovathumb::test::ListDir(dir.path(), ".kovacopy").size(), 0u);
}

// A shell script's output through KLIBCPopenv, then its KLIBCPclose result.
std::string Popen(const char* script) {
  const char* argv[] = {"sh", "-c", script, nullptr};
  FILE* f = KLIBCPopenv("/bin/sh", "r", argv);
  std::string out;
  char buf[4096];
  for (size_t n; f != nullptr && (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
  return f == nullptr ? "<failed>" : out + std::to_string(KLIBCPclose(f));
}

bool NoChildren() {
  errno = 0;
  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

TEST(ExecTest, ResultsOfExitsSignalsAndMissingPrograms) {
  const char* t[] = {"true", nullptr};
  const char* f[] = {"false", nullptr};
  const char* killed[] = {"sh", "-c", "kill -9 $$", nullptr};
  EXPECT_EQ(KLIBCExecv("/bin/true", t, 1), 0);
  EXPECT_EQ(KLIBCExecv("/bin/false", f, 1), 1);
  EXPECT_EQ(KLIBCExecv("/bin/sh", killed, 1), 1);
  EXPECT_EQ(KLIBCExecv("/no/such/tool", t, 1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KLIBCExecl("/bin/sh", 0, "sh", "-c", "test \"$0\" = 'a b'", "a b", nullptr), 0);
  EXPECT_EQ(KLIBCExecv("/bin/true", t, 0), 0);  // detached
  usleep(100000);
  EXPECT_TRUE(NoChildren());
}

TEST(ExecTest, ChildSeesNullInputNoDescriptorsOfOursLimitsAndNoStdout) {
  int leaked = open("/dev/null", O_RDONLY);  // not close-on-exec
  EXPECT_EQ(Popen("readlink /proc/self/fd/0"), "/dev/null\n0");
  EXPECT_EQ(Popen("ls /proc/$$/fd"), "0\n1\n2\n0");
  close(leaked);
  EXPECT_EQ(Popen("ulimit -t"), std::to_string(KOVA_CHILD_CPU_SECONDS) + "\n0");
  EXPECT_EQ(Popen("ulimit -v"), std::to_string(KOVA_CHILD_ADDRESS_SPACE / 1024) + "\n0");
  // A tool's output goes to our standard error, never into a response.
  kovathumb::test::TempDir dir;
  if (fork() == 0) {
    dup2(open((dir / "out").c_str(), O_WRONLY | O_CREAT, 0600), 1);
    dup2(open((dir / "err").c_str(), O_WRONLY | O_CREAT, 0600), 2);
    const char* echo[] = {"echo", "tool output", nullptr};
    _exit(KLIBCExecv("/bin/echo", echo, 1));
  }
  wait(nullptr);
  EXPECT_EQ(kovathumb::test::ReadFile(dir / "out") + "|" + kovathumb::test::ReadFile(dir / "err"), "|tool output\n");
}

TEST(ExecTest, PopenStatusAndUnknownStreams) {
  EXPECT_EQ(Popen("echo hi; exit 3"), "hi\n1");
  const char* argv[] = {"sh", nullptr};
  EXPECT_EQ(KLIBCPopenv("/no/such/tool", "r", argv), nullptr);
  EXPECT_EQ(KLIBCPopenv("/bin/sh", "w", argv), nullptr);
  EXPECT_EQ(KLIBCPclose(stdin), -1);
  // Closing before the child finished writing still reaps it.
  const char* yes[] = {"yes", nullptr};
  FILE* y = KLIBCPopenv("/usr/bin/yes", "r", yes);
  ASSERT_NE(y, nullptr);
  char c;
  EXPECT_EQ(fread(&c, 1, 1, y), 1u);
  EXPECT_EQ(KLIBCPclose(y), 1);
  EXPECT_TRUE(NoChildren());
}

}  // namespace
