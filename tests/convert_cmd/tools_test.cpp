// The commands running the real tools on images made at test time.
#include <gtest/gtest.h>

#include "kovathumb/convert_cmd.h"
#include "support/dng.h"
#include "support/fake_platform.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::ImageSize;
using test::Quote;
using Size = std::pair<unsigned, unsigned>;

ThumbInfo Probe(const std::string& path, const std::string& size, ThumbDimension box, bool gif = false) {
  ThumbInfo info(path, size, box);
  info.SetEnableGIF(gif);
  info.ExtractImgInfo(false);
  return info;
}

double Mean(const std::string& image, const std::string& area) {
  return std::stod(test::Capture("/usr/bin/convert " + Quote(image) + " -crop " + area + " -format '%[fx:mean]' info:"));
}

class ToolsTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  void TearDown() override { fake::Reset(); }
  test::TempDir dir_;
};

TEST_F(ToolsTest, DJpegTurnsOnlyWhenItMust) {
  const std::string src = dir_ / "big photo.jpg", dst = dir_ / "thumb.jpg";
  test::MakeImage(src, 4000, 3000, "gradient:white-black");
  test::SetExif(src, "Exif.Image.Orientation", "6");
  ASSERT_TRUE(DJpegCmd(Probe(src, "big", {640, 640}), src, dst).exec());
  EXPECT_EQ(ImageSize(dst), Size(480, 640));
  // Upright: the source's top (white) is now the right-hand side.
  EXPECT_LT(Mean(dst, "10x10+5+315"), 0.2);
  EXPECT_GT(Mean(dst, "10x10+465+315"), 0.8);
  EXPECT_EQ(test::ListDir(dir_.path()), std::vector<std::string>({"big photo.jpg", "thumb.jpg"}));
  test::MakeImage(dir_ / "flat.jpg", 1600, 1200);
  ASSERT_TRUE(DJpegCmd(Probe(dir_ / "flat.jpg", "big", {640, 640}), dir_ / "flat.jpg", dir_ / "out.bmp").exec());
  EXPECT_EQ(ImageSize(dir_ / "out.bmp"), Size(800, 600));  // 1/2 scale, no second stage
}

TEST_F(ToolsTest, ConvertCropsHardNamesAndFailsCleanly) {
  const std::string src = dir_ / "it's $(touch pwned) `x`.png";
  test::MakeImage(src, 600, 400);
  ThumbInfo info = Probe(src, "__CUSTOM_SIZE__", {200, 200});
  info.SetCropMode(true);
  ASSERT_TRUE(ConvertCmd(info, src, dir_ / "-crop.png").exec());
  EXPECT_EQ(ImageSize(dir_ / "-crop.png"), Size(200, 200));
  EXPECT_FALSE(test::Exists(dir_ / "pwned"));
  // A converter failure, or a launcher's, removes the partial output.
  test::WriteFile(dir_ / "corrupt.png", std::string("\x89PNG\r\n\x1a\n", 8) + std::string(100, 'x'));
  test::WriteFile(dir_ / "partial.png", "stale");
  EXPECT_FALSE(ConvertCmd(info, dir_ / "corrupt.png", dir_ / "partial.png").exec());
  EXPECT_FALSE(test::Exists(dir_ / "partial.png"));
  fake::State().exec_result = 1;
  test::WriteFile(dir_ / "d.jpg", "partial");
  EXPECT_FALSE(ConvertCmd(info, src, dir_ / "d.jpg").exec());
  EXPECT_FALSE(test::Exists(dir_ / "d.jpg"));
  EXPECT_FALSE(DJpegCmd(info, src, dir_ / "e.jpg").exec());
}

TEST_F(ToolsTest, AnimatedGifKeepsItsFrames) {
  const std::string name = "kovatest_anim" + std::to_string(getpid()) + ".gif", src = dir_ / name;
  test::MustSh("/usr/bin/convert -size 300x200 -delay 20 xc:red xc:green xc:blue -loop 0 " + Quote(src));
  const std::string coalesced = "ls /var/tmp/*" + name + " 2>/dev/null";
  ASSERT_TRUE(GIFConvertCmd(Probe(src, "small", {120, 120}, true), src, dir_ / "thumb.gif").exec());
  EXPECT_EQ(test::Capture("/usr/bin/identify -format '%w %h\\n' " + Quote(dir_ / "thumb.gif")),
            "120 80\n120 80\n120 80\n");
  EXPECT_EQ(test::Capture(coalesced), "");
  // A failing second run leaves the coalesced file and no output.
  EXPECT_FALSE(GIFConvertCmd(Probe(src, "small", {120, 120}, true), src, dir_ / "no/such/dir/t.gif").exec());
  EXPECT_NE(test::Capture(coalesced), "");
  test::Sh("rm -f /var/tmp/*" + name);
}

TEST_F(ToolsTest, RawPreviewExtractedByDcraw) {
  test::MakeImage(dir_ / "preview.jpg", 1024, 768, "plasma:");
  const std::string raw = dir_ / "IMG 0001.dng", dst = dir_ / "thumb.jpg";
  test::WriteFile(raw, test::MakeDng(256, 192, test::ReadFile(dir_ / "preview.jpg"), 1024, 768));
  ThumbInfo info = Probe(raw, "big", {640, 640});
  EXPECT_FALSE(info.IsWebAcceptable());
  DcrawCmd cmd(info, raw, dst);
  EXPECT_EQ(test::ListDir(dir_.path(), "thumb.jpg_").size(), 1u);  // the extracted preview, beside dst
  ASSERT_TRUE(cmd.exec());
  EXPECT_EQ(ImageSize(dst), Size(1024, 768));  // the preview as it is
  EXPECT_TRUE(test::ListDir(dir_.path(), "thumb.jpg_").empty());
  // Nothing to extract from a file that is no raw: no work file either.
  test::WriteFile(dir_ / "bare.dng", std::string(4096, 'x'));
  EXPECT_FALSE(DcrawCmd(info, dir_ / "bare.dng", dir_ / "none.jpg").exec());
  EXPECT_TRUE(test::ListDir(dir_.path(), "none.jpg").empty());
}

}  // namespace
}  // namespace kovathumb
