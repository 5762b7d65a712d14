#include "kovaplatform/kovaplatform.h"

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

}  // namespace
