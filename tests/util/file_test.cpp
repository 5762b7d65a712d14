#include "kovathumb/file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/fake_platform.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::LogCapture;
using test::TempDir;

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  void TearDown() override { fake::Reset(); }
  TempDir dir_;
};

TEST_F(FileTest, EAPathsLieBesideTheSource) {
  const std::string src = dir_ / "photo.jpg";
  EXPECT_EQ(file::GetEAPath(src, "KOVAPHOTO_THUMB_S.jpg"),
            dir_.path() + "/.kovaea/photo.jpg/KOVAPHOTO_THUMB_S.jpg");
  const std::string tmp = file::GetEATmpPath(src, "x.jpg");
  const std::string head = dir_.path() + "/.kovaea/photo.jpg/x.jpg_" + std::to_string(getpid()) + "_";
  EXPECT_EQ(tmp.compare(0, head.size(), head), 0) << tmp;
}

TEST_F(FileTest, UnresolvableEAPathIsEmptyAndLoggedOnce) {
  LogCapture log;
  EXPECT_EQ(file::GetEATmpPath("/dir/", "x.jpg"), "");
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_NE(log.Lines()[0].find("(GetEAPath) \"Get EA path for x.jpg failed\""), std::string::npos)
      << log.Lines()[0];
}

TEST_F(FileTest, MakeEADirCreatesReusesAndRetriesOverAPlainFile) {
  const std::string src = dir_ / "a.jpg";
  EXPECT_TRUE(file::MakeEADir(src));
  struct stat st;
  ASSERT_EQ(stat((dir_.path() + "/.kovaea/a.jpg").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(fake::State().eamkdir_calls, 1);
  EXPECT_TRUE(file::MakeEADir(src));
  EXPECT_EQ(fake::State().eamkdir_calls, 1);  // already there: not made again

  test::WriteFile(dir_.path() + "/.kovaea/b.jpg", "not a directory");
  EXPECT_FALSE(file::MakeEADir(dir_ / "b.jpg"));
  EXPECT_EQ(fake::State().eamkdir_calls, 2);
}

TEST_F(FileTest, EAWriteSupportByFileSystemType) {
  {
    LogCapture log;
    EXPECT_TRUE(file::IsDestSupportEAWrite("/no/such/dir"));
    EXPECT_EQ(log.Count("failed to statfs /no/such/dir, reason=[(2)No such file or directory]"), 1);
  }
  EXPECT_TRUE(file::IsDestSupportEAWrite(dir_.path()));
  fake::State().fs_type = 12;
  EXPECT_FALSE(file::IsDestSupportEAWrite(dir_.path()));
  fake::State().fs_type = 5;  // NFS: remote
  EXPECT_FALSE(file::IsDestSupportEAWrite(dir_.path()));
  fake::State().fs_type = 9;  // squashfs: image
  EXPECT_FALSE(file::IsDestSupportEAWrite(dir_.path()));
}

TEST_F(FileTest, NamesAndDirnames) {
  EXPECT_EQ(file::Dirname("/a/b/c.jpg"), "/a/b");
  EXPECT_EQ(file::Dirname("c.jpg"), ".");
  EXPECT_EQ(file::Dirname("/"), "/");
  EXPECT_EQ(file::Dirname(""), ".");
  const std::string head = "/var/tmp/kovathumb_x_" + std::to_string(getpid()) + "_";
  EXPECT_EQ(file::GetVarTmpPath("x").compare(0, head.size(), head), 0);
}

TEST_F(FileTest, SDKMoveFileMoves) {
  test::WriteFile(dir_ / "from", "data");
  EXPECT_TRUE(file::SDKMoveFile(dir_ / "from", dir_ / "to"));
  EXPECT_FALSE(test::Exists(dir_ / "from"));
  EXPECT_EQ(test::ReadFile(dir_ / "to"), "data");
  LogCapture log;
  EXPECT_FALSE(file::SDKMoveFile(dir_ / "from", dir_ / "to"));
  EXPECT_EQ(log.Count("\"KOVAFileCopy failed\""), 1);
}

}  // namespace
}  // namespace kovathumb
