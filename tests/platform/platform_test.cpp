#include "kovaplatform/kovaplatform.h"

#include <errno.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace {

using kovathumb::test::Exists;
using kovathumb::test::ReadFile;
using kovathumb::test::TempDir;
using kovathumb::test::WriteFile;

TEST(PlatformEATest, PathsAndRefusals) {
  char buf[4096];
  ASSERT_GE(KOVAEAPath(0, "/dir/photo.jpg", "NAME", buf, sizeof buf, 0), 0);
  EXPECT_STREQ(buf, "/dir/.kovaea/photo.jpg/NAME");
  ASSERT_GE(KOVAEAPath(0, "photo.jpg", "NAME", buf, sizeof buf, 0), 0);
  EXPECT_STREQ(buf, ".kovaea/photo.jpg/NAME");
  ASSERT_EQ(KOVAEADirPath(0, "/dir/photo.jpg", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "/dir/.kovaea/photo.jpg");

  EXPECT_LT(KOVAEAPath(0, "/dir/", "NAME", buf, sizeof buf, 0), 0);
  EXPECT_LT(KOVAEAPath(0, "", "NAME", buf, sizeof buf, 0), 0);
  EXPECT_LT(KOVAEAPath(0, "/dir/a.jpg", "../../etc/passwd", buf, sizeof buf, 0), 0);
  EXPECT_LT(KOVAEAPath(0, "/dir/a.jpg", "..", buf, sizeof buf, 0), 0);
  EXPECT_LT(KOVAEAPath(0, "/dir/a.jpg", "", buf, sizeof buf, 0), 0);
  EXPECT_LT(KOVAEAPath(0, "/dir/a.jpg", "NAME", buf, 10, 0), 0);
  EXPECT_NE(KOVAEADirPath(0, "/dir/..", buf, sizeof buf), 0);
}

TEST(PlatformEATest, MkdirMakesParentAndRefusesAFile) {
  TempDir dir;
  const std::string ea = dir.path() + "/.kovaea/a.jpg";
  EXPECT_NE(KOVAEAMKDir(0, ea.c_str()), 0);  // without flag 1 the parent must exist
  EXPECT_EQ(KOVAEAMKDir(1, ea.c_str()), 0);
  EXPECT_EQ(KOVAEAMKDir(1, ea.c_str()), 0);  // existing is fine
  WriteFile(dir.path() + "/.kovaea/b.jpg", "x");
  EXPECT_NE(KOVAEAMKDir(1, (dir.path() + "/.kovaea/b.jpg").c_str()), 0);
}

TEST(PlatformFSTest, TypesOfKnownFileSystems) {
  EXPECT_EQ(KOVAGetFSType("/dev/shm", 0), KOVA_FS_TMPFS);
  EXPECT_EQ(KOVAGetFSType("/no/such/path", 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(KOVAFSIsRemoteFS(KOVA_FS_NFS));
  EXPECT_TRUE(KOVAFSIsRemoteFS(KOVA_FS_SMB));
  EXPECT_TRUE(KOVAFSIsRemoteFS(KOVA_FS_NETFUSE));
  EXPECT_FALSE(KOVAFSIsRemoteFS(KOVA_FS_FUSEBLK));
  EXPECT_FALSE(KOVAFSIsRemoteFS(KOVA_FS_FAT));
  EXPECT_TRUE(KOVAFSIsImageFS(KOVA_FS_SQUASHFS));
  EXPECT_TRUE(KOVAFSIsImageFS(KOVA_FS_ISO9660));
  EXPECT_TRUE(KOVAFSIsImageFS(KOVA_FS_UDF));
  EXPECT_FALSE(KOVAFSIsImageFS(KOVA_FS_EXT));
  EXPECT_EQ(KOVA_FS_FAT, 12);
}

TEST(PlatformCopyTest, CopyMoveAndMoveAcrossFileSystems) {
  TempDir dir;
  KOVA_FILE_COPY_OPT copy = {};
  KOVA_FILE_COPY_OPT move = {};
  move.move = 1;
  WriteFile(dir / "a", "alpha");
  chmod((dir / "a").c_str(), 0640);
  ASSERT_EQ(KOVAFileCopy((dir / "a").c_str(), (dir / "b").c_str(), &copy), 0);
  EXPECT_EQ(ReadFile(dir / "b"), "alpha");
  EXPECT_TRUE(Exists(dir / "a"));
  struct stat st;
  ASSERT_EQ(stat((dir / "b").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  ASSERT_EQ(KOVAFileCopy((dir / "a").c_str(), (dir / "c").c_str(), &move), 0);
  EXPECT_FALSE(Exists(dir / "a"));

  // /dev/shm is a tmpfs, a file system of its own: rename fails with EXDEV.
  const std::string shm = "/dev/shm/kovathumb_test_" + std::to_string(getpid());
  ASSERT_EQ(KOVAFileCopy((dir / "c").c_str(), shm.c_str(), &move), 0);
  EXPECT_FALSE(Exists(dir / "c"));
  EXPECT_EQ(ReadFile(shm), "alpha");
  unlink(shm.c_str());

  EXPECT_NE(KOVAFileCopy((dir / "missing").c_str(), (dir / "d").c_str(), &copy), 0);
  EXPECT_NE(KOVAFileCopy(dir.path().c_str(), (dir / "d").c_str(), &copy), 0);  // a directory
  EXPECT_EQ(kovathumb::test::ListDir(dir.path(), ".kovacopy").size(), 0u);
}

}  // namespace
