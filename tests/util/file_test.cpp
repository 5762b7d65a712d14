// Errors, names of formats, EA paths and the file helpers.
#include "kovathumb/file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <memory>

#include "convert_cmd/tool_files.h"
#include "front_end/pin.h"
#include "kovathumb/error.h"
#include "kovathumb/thumb_const.h"
#include "support/fake_platform.h"
#include "support/test_util.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace {

using test::LogCapture;

TEST(ErrorTest, TextKeepsCodeAndTrailingBlankAndOutlivesTheOriginal) {
  EXPECT_STREQ(Error(602).what(), "(E602) ");
  auto original = std::make_unique<Error>(601, "Can't stat /a.jpg");
  Error copy(*original);
  original.reset();
  EXPECT_EQ(copy.what() + std::string(" ") + std::to_string(copy.Code()), "(E601) Can't stat /a.jpg 601");
}

TEST(FormatsTest, ExtensionsAndSets) {
  for (auto c : {std::make_pair("/x/IMG_0001.JPG", "jpg"), {"MP4", "mp4"}, {"/a.b/c", "b/c"}, {"name.", ""}}) {
    EXPECT_EQ(file::GetFileExt(c.first), c.second) << c.first;
  }
  // Equal text, not the literal's address.
  EXPECT_TRUE(IsSupportImage("/x/a.Heic") && IsSupportImage(std::string("/x/a.") + "dng") && !IsSupportImage("/x/a.jpeg2000"));
  EXPECT_TRUE(IsSupportVideo("/x/clip.MTS") && !IsSupportVideo("/x/a.mp4.jpg"));
  // Quality mode's list: the appliance's and the new types; the appliance's stays as it was.
  for (const char* name : {"a.webp", "a.AVIF", "a.jxl", "IMG_1.CR3", "a.hif", "a.srw", "a.jpg", "a.dng", "a.heic"}) {
    EXPECT_TRUE(IsQualityImage(name)) << name;
    const std::string ext = file::GetFileExt(name);
    EXPECT_EQ(IsSupportImage(name), ext != "webp" && ext != "avif" && ext != "jxl" && ext != "cr3" && ext != "srw")
        << name;
  }
  EXPECT_FALSE(IsQualityImage("a.mp4") || IsQualityImage("a.txt") || IsQualityImage("a.webp.txt"));
}

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  void TearDown() override { fake::Reset(); }
  test::TempDir dir_;
};

TEST_F(FileTest, EAPathsAndDirectories) {
  EXPECT_EQ(file::GetEAPath(dir_ / "photo.jpg", "N.jpg"), dir_.path() + "/.kovaea/photo.jpg/N.jpg");
  const std::string tmp = file::GetEATmpPath(dir_ / "photo.jpg", "x.jpg");
  const std::string head = dir_.path() + "/.kovaea/photo.jpg/x.jpg_" + std::to_string(getpid()) + "_";
  EXPECT_EQ(tmp.compare(0, head.size(), head), 0) << tmp;
  EXPECT_EQ(file::Dirname("c.jpg") + file::Dirname("/"), "./");
  LogCapture log;
  EXPECT_EQ(file::GetEATmpPath("/dir/", "x.jpg"), "");
  EXPECT_EQ(log.Count("(GetEAPath) \"Get EA path for x.jpg failed\""), 1);
  // Made, reused without being made again, refused over a plain file.
  EXPECT_TRUE(file::MakeEADir(dir_ / "a.jpg") && S_ISDIR(test::Stat(dir_.path() + "/.kovaea/a.jpg").st_mode));
  EXPECT_TRUE(file::MakeEADir(dir_ / "a.jpg"));
  EXPECT_EQ(fake::State().eamkdir_calls, 1);
  test::WriteFile(dir_.path() + "/.kovaea/b.jpg", "not a directory");
  EXPECT_FALSE(file::MakeEADir(dir_ / "b.jpg"));
}

TEST_F(FileTest, EAWriteSupportByFileSystemTypeAndMoves) {
  LogCapture log;
  EXPECT_TRUE(file::IsDestSupportEAWrite("/no/such/dir"));
  EXPECT_EQ(log.Count("failed to statfs /no/such/dir, reason=[(2)No such file or directory]"), 1);
  EXPECT_TRUE(file::IsDestSupportEAWrite(dir_.path()));
  for (int type : {12, 5, 9}) {  // FAT, NFS (remote), squashfs (image)
    fake::State().fs_type = type;
    EXPECT_FALSE(file::IsDestSupportEAWrite(dir_.path())) << type;
  }
  test::WriteFile(dir_ / "from", "data");
  EXPECT_TRUE(file::SDKMoveFile(dir_ / "from", dir_ / "to") && test::ReadFile(dir_ / "to") == "data");
  EXPECT_FALSE(file::SDKMoveFile(dir_ / "from", dir_ / "to"));
  EXPECT_EQ(log.Count("\"KOVAFileCopy failed\""), 1);
}

// Each of our own openers, called directly, against what a user may plant
// at a name: only a regular file opens, and never through a link (the
// converter's input is a pinned path: a link there is ours).
TEST_F(FileTest, OwnOpenersOpenOnlyRegularFilesNeverThroughALink) {
  test::WriteFile(dir_ / "file", "data");
  ASSERT_TRUE(symlink("file", (dir_ / "link").c_str()) == 0 && mkfifo((dir_ / "fifo").c_str(), 0666) == 0 &&
              mkdir((dir_ / "sub").c_str(), 0777) == 0 && symlink("sub", (dir_ / "sublink").c_str()) == 0);
  const safe_fs::Fd dir = safe_fs::OpenDir(dir_.path());
  struct stat64 st;
  tool::PinnedFile pin;
  // OpenRegular, OpenRegularAt, OpenInput, PinBeneath, PinGiven, OpenDirBeneath
  for (auto [name, opens] : {std::pair("file", "11111-"), {"link", "00-00-"}, {"fifo", "00001-"},
                             {"sub", "00001-"}, {"sublink", "-----0"}, {"sub/", "-----1"}}) {
    const int input = internal::OpenInput(dir_ / name);
    const std::string got = {char('0' + safe_fs::OpenRegular(dir_ / name, &st).valid()),
                             char('0' + safe_fs::OpenRegularAt(dir.get(), name, &st).valid()), char('0' + (input >= 0)),
                             char('0' + (tool::PinBeneath(dir_.path(), name, &pin) == 0)),
                             char('0' + (tool::PinGiven(dir_ / name, &pin) == 0)),
                             char('0' + safe_fs::OpenDirBeneath(dir_.path(), dir_ / name).valid())};
    if (input >= 0) close(input);
    for (size_t i = 0; i < got.size(); ++i) EXPECT_TRUE(opens[i] == '-' || opens[i] == got[i]) << name << " " << got;
  }
  // Work files are made, never reused: a file planted at the name stays as it was.
  EXPECT_LT(internal::CreateExclusive(dir_ / "file"), 0);
  EXPECT_EQ(test::ReadFile(dir_ / "file"), "data");
  // A private work directory goes with what tools left in it.
  safe_fs::PrivateDir work;
  ASSERT_TRUE(work.Create(dir.get(), safe_fs::kPrivatePrefix));
  test::WriteFile(work.ToolPath("left"), "x");
  work.Remove();
  EXPECT_EQ(test::ListDir(dir_.path(), safe_fs::kPrivatePrefix).size(), 0u);
}

}  // namespace
}  // namespace kovathumb
