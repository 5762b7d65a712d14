// Argument vectors and scale decisions, composed without running a tool.
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kovathumb/convert_cmd.h"
#include "support/fake_platform.h"
#include "support/test_util.h"
#include "support/thumb_info_access.h"

namespace kovathumb {
namespace {

using Args = std::vector<std::string>;
using Size = std::pair<unsigned, unsigned>;

ThumbInfo Jpeg(unsigned w, unsigned h, int rotate, ThumbDimension box, int userRotate = 0) {
  ThumbInfo info = ThumbInfoTestAccess::Make("image/jpeg", w, h, rotate, "__CUSTOM_SIZE__", box);
  info.SetUserRotate(userRotate);
  return info;
}

TEST(ConvertArgvTest, ThumbnailMirrorAndRotations) {
  ConvertCmd plain(Jpeg(4000, 3000, 0, {640, 640}), "/p/a b.jpg", "/o/t.jpg");
  EXPECT_EQ(plain.GetArgv(), (Args{"/usr/bin/convert", "-strip", "-colorspace", "sRGB", "jpeg:/p/a b.jpg[0]",
                                   "-thumbnail", "640x640", "-rotate", "0", "-rotate", "0", "/o/t.jpg"}));
  ThumbInfo mirrored = Jpeg(4000, 3000, 1, {320, 240}, 2);
  ThumbInfoTestAccess::SetFlop(&mirrored, true);
  ConvertCmd flop(mirrored, "/p/x.jpg[0]", "/o/t.jpg");  // a selector already there gets another
  EXPECT_EQ(flop.GetArgv(), (Args{"/usr/bin/convert", "-strip", "-colorspace", "sRGB", "jpeg:/p/x.jpg[0][0]",
                                  "-thumbnail", "240x320", "-rotate", "90", "-flop", "-rotate", "180",
                                  "/o/t.jpg"}));
}

TEST(ConvertArgvTest, CropOffsets) {
  // An odd user rotation swaps the box before the offsets; narrower than
  // the box, the unsigned difference wraps and is halved.
  for (auto c : {std::make_pair(Jpeg(600, 240, 0, {320, 240}), "320x240+140+0"),
                 {Jpeg(600, 400, 0, {320, 240}, 1), "240x320+180+40"},
                 {Jpeg(100, 240, 0, {320, 240}), "100x240+2147483538+0"}}) {
    c.first.SetCropMode(true);
    const Args argv = ConvertCmd(c.first, "/s.jpg", "/d.jpg").GetArgv();
    EXPECT_EQ(argv[5], "-crop");
    EXPECT_EQ(argv[6], c.second);
  }
}

TEST(DJpegArgvTest, ScalesOfTheWorkedExamples) {
  const std::string src = "/s.jpg";  // borrowed by the vector: must outlive the command
  DJpegCmd big(Jpeg(4000, 3000, 0, {320, 320}), src, "/d.bmp");
  EXPECT_EQ(big.GetConvertBytes(), 562554u);
  EXPECT_EQ(big.GetArgv(), (Args{"/usr/bin/djpeg", "-scale", "1/8", "-dct", "fast", "-fast", "-onepass",
                                 "-bmp", "-outfile", "/d.bmp", "/s.jpg"}));
  // 76800 <= 76800; 0x0 clamped from -1; one side unknown: the loop runs on
  // the other (3), the zero area lowers it.
  for (auto c : {std::make_pair(Size{4000, 3000}, 3), {{640, 480}, 0}, {{300, 200}, 0}, {{0, 0}, 0}, {{4000, 0}, 2}}) {
    EXPECT_EQ(DJpegCmd(Jpeg(c.first.first, c.first.second, 0, {320, 320}), "/s", "/d").GetScale(), c.second)
        << c.first.first << "x" << c.first.second;
  }
}

TEST(DJpegArgvTest, IntermediateNameOnlyWhenTurningOrMirroring) {
  const std::string stamp = "/d.jpg_" + std::to_string(static_cast<long>(time(nullptr)));
  EXPECT_EQ(DJpegCmd(Jpeg(800, 600, 2, {320, 320}, 2), "/s", "/d.jpg").GetArgv()[9], "/d.jpg");
  EXPECT_EQ(DJpegCmd(Jpeg(800, 600, 0, {320, 320}, -4), "/s", "/d.jpg").GetArgv()[9], "/d.jpg");
  const std::string turned = DJpegCmd(Jpeg(800, 600, 0, {320, 320}, -1), "/s", "/d.jpg").GetArgv()[9];
  EXPECT_EQ(turned.compare(0, 7, "/d.jpg_"), 0);
  EXPECT_LE(turned.size(), stamp.size());
  ThumbInfo mirrored = Jpeg(800, 600, 0, {320, 320});
  ThumbInfoTestAccess::SetFlop(&mirrored, true);
  EXPECT_NE(DJpegCmd(mirrored, "/s", "/d.jpg").GetArgv()[9], "/d.jpg");
}

TEST(DJpegArgvTest, NeedDeleteComparesEstimateWithFileSize) {
  test::TempDir dir;
  for (long size : {1086841L, 1086842L}) {
    const std::string path = dir / ("s" + std::to_string(size) + ".jpg");
    test::WriteFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
    ThumbInfo info = ThumbInfoTestAccess::Make("image/jpeg", 4000, 3000, 0, "__CUSTOM_SIZE__",
                                               {320, 320}, path);
    EXPECT_EQ(DJpegCmd(info, path, "/d").IsNeedDelete(), size < 1086842L) << size;
  }
}

TEST(JpegTranArgvTest, AnglesAndOutputs) {
  ThumbInfo info = Jpeg(100, 100, 1, {1, 1}, 0);
  EXPECT_EQ(JpegTranCmd(info, "/s.jpg", "/d.jpg", false).GetArgv(),
            (Args{"/usr/bin/jpegtran", "-trim", "-rotate", "90", "-outfile", "/d.jpg", "/s.jpg"}));
  EXPECT_EQ(JpegTranCmd(info, "/s.jpg", "", true).GetArgv(),
            (Args{"/usr/bin/jpegtran", "-trim", "-rotate", "0", "/s.jpg"}));
  info.SetUserRotate(-2);
  EXPECT_EQ(JpegTranCmd(info, "/s", "", false).GetArgv()[3], "-90");
  EXPECT_EQ(JpegTranCmd(info, "/s", "", true).GetArgv()[3], "-180");
  info.SetUserRotate(3);  // 1 + 3: a whole turn
  EXPECT_EQ(JpegTranCmd(info, "/s", "", false).GetArgv()[3], "0");
  info.SetUserRotate(4);
  EXPECT_EQ(JpegTranCmd(info, "/s", "", false).GetArgv()[3], "90");
}

TEST(GifArgvTest, CoalesceThenThumbnailWithoutMirror) {
  fake::Reset();
  fake::State().exec_result = 0;
  ThumbInfo info = ThumbInfoTestAccess::Make("image/gif", 400, 300, 1, "big", {640, 640});
  ThumbInfoTestAccess::SetFlop(&info, true);
  info.SetUserRotate(1);
  GIFConvertCmd cmd(info, "/p/anim.gif", "/o/t.gif");
  ASSERT_EQ(fake::State().exec_calls.size(), 1u);
  const Args coalesce = fake::State().exec_calls[0];
  ASSERT_EQ(coalesce.size(), 5u);
  EXPECT_EQ(coalesce[2], "gif:/p/anim.gif");  // read as GIF, whatever the content
  EXPECT_EQ(coalesce[3], "-coalesce");
  const std::string tmp = "gif:/var/tmp/convert_thumbnail__" + std::to_string(static_cast<long>(time(nullptr)));
  EXPECT_EQ(coalesce[4].compare(0, 32, tmp.substr(0, 32)), 0) << coalesce[4];
  EXPECT_EQ(coalesce[4].substr(coalesce[4].size() - 8), "anim.gif");
  EXPECT_TRUE(cmd.exec());
  EXPECT_EQ(cmd.GetArgv(), (Args{"/usr/bin/convert", "-strip", "-colorspace", "sRGB", "-thumbnail",
                                 "400x300", "-rotate", "90", "-layers", "optimize", coalesce[4],
                                 "-rotate", "90", "/o/t.gif"}));
  fake::Reset();
}

TEST(DcrawArgvTest, ExtractionCommandLine) {
  fake::Reset();
  test::TempDir dir;
  const std::string src = dir / "-raw file.dng";
  test::WriteFile(src, "");
  ThumbInfo info = ThumbInfoTestAccess::Make("image/tiff", 0, 0, 0, "big", {640, 640}, src);
  DcrawCmd cmd(info, src, dir / "no/out.jpg");  // no room beside dst: extraction fails at once
  EXPECT_TRUE(fake::State().exec_calls.empty());
  EXPECT_EQ(cmd.GetArgv(), (Args{"/usr/bin/dcraw", "-6", "-w", "-c", "-e", src}));
  EXPECT_FALSE(cmd.exec());
}

}  // namespace
}  // namespace kovathumb
