// The commands running the real tools on images made at test time.
#include <unistd.h>

#include <gtest/gtest.h>

#include "kovathumb/convert_cmd.h"
#include "kovathumb/file.h"
#include "support/dng.h"
#include "support/fake_platform.h"
#include "support/test_util.h"
#include "kovaplatform/kovaplatform.h"

namespace kovathumb {
namespace {

using test::ImageSize;
using test::Quote;

ThumbInfo Probe(const std::string& path, const std::string& size, ThumbDimension box,
                int userRotate = 0, bool gif = false) {
  ThumbInfo info(path, size, box);
  info.SetUserRotate(userRotate);
  info.SetEnableGIF(gif);
  info.ExtractImgInfo(false);
  return info;
}

// Files of ours left in the shared temporary directories.
std::vector<std::string> Leftovers(const std::string& base) {
  std::vector<std::string> found;
  for (const char* dir : {"/tmp", "/var/tmp"}) {
    for (const std::string& n : test::ListDir(dir)) {
      if (n.find(base) != std::string::npos) found.push_back(std::string(dir) + "/" + n);
    }
  }
  return found;
}

class ToolsTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  test::TempDir dir_;
};

TEST_F(ToolsTest, RotatedJpegBecomesUprightThumbnailOfTheBox) {
  const std::string src = dir_ / "big photo.jpg";
  test::MakeImage(src, 4000, 3000, "gradient:white-black");
  test::SetExif(src, "Exif.Image.Orientation", "6");
  const std::string dst = dir_ / "thumb.jpg";
  DJpegCmd cmd(Probe(src, "big", {640, 640}), src, dst);
  EXPECT_EQ(cmd.GetScale(), 2);
  ASSERT_TRUE(cmd.exec());
  EXPECT_EQ(ImageSize(dst), std::make_pair(480u, 640u));
  // Upright: the source's top (white) is now the right-hand side.
  const std::string left = test::Capture("/usr/bin/convert " + Quote(dst) + " -crop 10x10+5+315 -format '%[fx:mean]' info:");
  const std::string right = test::Capture("/usr/bin/convert " + Quote(dst) + " -crop 10x10+465+315 -format '%[fx:mean]' info:");
  EXPECT_LT(std::stod(left), 0.2);
  EXPECT_GT(std::stod(right), 0.8);
  EXPECT_EQ(test::ListDir(dir_.path()), std::vector<std::string>({"big photo.jpg", "thumb.jpg"}));
}

TEST_F(ToolsTest, UnturnedJpegIsDecodedStraightToTheOutput) {
  const std::string src = dir_ / "flat.jpg";
  test::MakeImage(src, 1600, 1200);
  const std::string dst = dir_ / "out.bmp";
  DJpegCmd cmd(Probe(src, "big", {640, 640}), src, dst);
  ASSERT_TRUE(cmd.exec());
  EXPECT_EQ(ImageSize(dst), std::make_pair(800u, 600u));  // 1/2 scale, no second stage
}

TEST_F(ToolsTest, ConvertCropsPngAndFailsCleanly) {
  const std::string src = dir_ / "it's $(touch pwned) `x`.png";
  test::MakeImage(src, 600, 400);
  ThumbInfo info = Probe(src, "__CUSTOM_SIZE__", {200, 200});
  info.SetCropMode(true);
  const std::string dst = dir_ / "-crop.png";
  ASSERT_TRUE(ConvertCmd(info, src, dst).exec());
  EXPECT_EQ(ImageSize(dst), std::make_pair(200u, 200u));
  EXPECT_FALSE(test::Exists(dir_ / "pwned"));
  EXPECT_FALSE(test::Exists("pwned"));

  // A converter failure removes the partial output.
  const std::string corrupt = dir_ / "corrupt.png";
  test::WriteFile(corrupt, std::string("\x89PNG\r\n\x1a\n", 8) + std::string(100, 'x'));
  test::WriteFile(dir_ / "partial.png", "stale");
  EXPECT_FALSE(ConvertCmd(info, corrupt, dir_ / "partial.png").exec());
  EXPECT_FALSE(test::Exists(dir_ / "partial.png"));
}

TEST_F(ToolsTest, AnimatedGifKeepsItsFrames) {
  const std::string src = dir_ / "kovatest_anim.gif";
  test::MustSh("/usr/bin/convert -size 300x200 -delay 20 xc:red xc:green xc:blue -loop 0 " + Quote(src));
  const std::string dst = dir_ / "thumb.gif";
  GIFConvertCmd cmd(Probe(src, "small", {120, 120}, 0, true), src, dst);
  ASSERT_TRUE(cmd.exec());
  EXPECT_EQ(test::Capture("/usr/bin/identify -format '%w %h\\n' " + Quote(dst)), "120 80\n120 80\n120 80\n");
  EXPECT_TRUE(Leftovers("kovatest_anim.gif").empty());

  // A failing second run leaves the coalesced file and no output.
  GIFConvertCmd failing(Probe(src, "small", {120, 120}, 0, true), src, dir_ / "no/such/dir/t.gif");
  EXPECT_FALSE(failing.exec());
  const std::vector<std::string> left = Leftovers("kovatest_anim.gif");
  EXPECT_EQ(left.size(), 1u);
  for (const std::string& f : left) unlink(f.c_str());
}

TEST_F(ToolsTest, RawPreviewExtractedByDcraw) {
  const std::string preview = dir_ / "preview.jpg";
  test::MakeImage(preview, 1024, 768, "plasma:");
  const std::string raw = dir_ / "IMG 0001.dng";
  test::WriteFile(raw, test::MakeDng(256, 192, test::ReadFile(preview), 1024, 768));

  const std::string dst = dir_ / "thumb.jpg";
  ThumbInfo info = Probe(raw, "big", {640, 640});
  EXPECT_FALSE(info.IsWebAcceptable());
  DcrawCmd cmd(info, raw, dst);
  EXPECT_EQ(test::ListDir(dir_.path(), "thumb.jpg_").size(), 1u);  // the extracted preview, beside dst
  ASSERT_TRUE(cmd.exec());
  EXPECT_GT(ImageSize(dst).first, 0u);
  EXPECT_TRUE(test::ListDir(dir_.path(), "thumb.jpg_").empty());

  const std::string bare = dir_ / "bare.dng";
  test::WriteFile(bare, test::MakeDng(256, 192, "", 0, 0));
  DcrawCmd none(Probe(bare, "big", {640, 640}), bare, dir_ / "none.jpg");
  EXPECT_FALSE(none.exec());
  EXPECT_TRUE(test::ListDir(dir_.path(), "none.jpg").empty());
}

TEST_F(ToolsTest, JpegtranStreamsARotatedJpeg) {
  const std::string src = dir_ / "t.jpg";
  test::MakeImage(src, 64, 32);
  ThumbInfo info = Probe(src, "big", {640, 640}, 1);
  JpegTranCmd cmd(info, src, "", true);
  FILE* stream = cmd.popen();
  ASSERT_NE(stream, nullptr);
  std::string data;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, stream)) > 0) data.append(buf, n);
  EXPECT_EQ(KLIBCPclose(stream), 0);
  test::WriteFile(dir_ / "r.jpg", data);
  EXPECT_EQ(ImageSize(dir_ / "r.jpg"), std::make_pair(32u, 64u));
  EXPECT_TRUE(JpegTranCmd(info, src, dir_ / "f.jpg", false).exec());
  EXPECT_FALSE(JpegTranCmd(info, dir_ / "missing.jpg", dir_ / "g.jpg", false).exec());
}

TEST_F(ToolsTest, FailingLauncherMakesExecFalse) {
  const std::string src = dir_ / "s.jpg";
  test::MakeImage(src, 800, 600);
  ThumbInfo info = Probe(src, "small", {120, 120}, 1);
  fake::State().exec_result = 1;
  test::WriteFile(dir_ / "d.jpg", "partial");
  EXPECT_FALSE(ConvertCmd(info, src, dir_ / "d.jpg").exec());
  EXPECT_FALSE(test::Exists(dir_ / "d.jpg"));
  EXPECT_FALSE(DJpegCmd(info, src, dir_ / "e.jpg").exec());
  fake::Reset();
}

}  // namespace
}  // namespace kovathumb
