// Argument vectors and scale decisions, composed without running a tool.
#include <sys/mount.h>

#include <gtest/gtest.h>

#include "kovathumb/convert_cmd.h"
#include "support/fake_platform.h"
#include "support/test_util.h"
#include "support/thumb_info_access.h"

namespace kovathumb {
namespace {

using Args = std::vector<std::string>;

ThumbInfo Jpeg(unsigned w, unsigned h, int rotate, ThumbDimension box, int userRotate = 0, bool flop = false) {
  ThumbInfo info = ThumbInfoTestAccess::Make("image/jpeg", w, h, rotate, "__CUSTOM_SIZE__", box);
  info.SetUserRotate(userRotate);
  ThumbInfoTestAccess::SetFlop(&info, flop);
  return info;
}

TEST(ConvertArgvTest, ThumbnailMirrorRotationsAndCrops) {
  EXPECT_EQ(ConvertCmd(Jpeg(4000, 3000, 0, {640, 640}), "/p/a b.jpg", "/o/t.jpg").GetArgv(),
            (Args{"/usr/bin/convert", "-strip", "-colorspace", "sRGB", "jpeg:/p/a b.jpg[0]", "-thumbnail", "640x640",
                  "-rotate", "0", "-rotate", "0", "/o/t.jpg"}));
  // A selector already there gets another.
  const Args flop = ConvertCmd(Jpeg(4000, 3000, 1, {320, 240}, 2, true), "/p/x.jpg[0]", "/o/t.jpg").GetArgv();
  EXPECT_EQ(Args(flop.begin() + 4, flop.end() - 1),
            (Args{"jpeg:/p/x.jpg[0][0]", "-thumbnail", "240x320", "-rotate", "90", "-flop", "-rotate", "180"}));
  // An odd user rotation swaps the box before the offsets; narrower than
  // the box, the unsigned difference wraps and is halved.
  for (auto c : {std::make_pair(Jpeg(600, 240, 0, {320, 240}), "320x240+140+0"),
                 {Jpeg(600, 400, 0, {320, 240}, 1), "240x320+180+40"},
                 {Jpeg(100, 240, 0, {320, 240}), "100x240+2147483538+0"}}) {
    c.first.SetCropMode(true);
    const Args argv = ConvertCmd(c.first, "/s.jpg", "/d.jpg").GetArgv();
    EXPECT_EQ(argv[5] + " " + argv[6], std::string("-crop ") + c.second);
  }
}

TEST(DJpegArgvTest, ScalesIntermediatesAndNeedDelete) {
  const std::string src = "/s.jpg";  // borrowed by the vector: must outlive the command
  DJpegCmd big(Jpeg(4000, 3000, 0, {320, 320}), src, "/d.bmp");
  EXPECT_EQ(big.GetConvertBytes(), 562554u);
  EXPECT_EQ(big.GetArgv(), (Args{"/usr/bin/djpeg", "-scale", "1/8", "-dct", "fast", "-fast", "-onepass", "-bmp",
                                 "-outfile", "/d.bmp", "/s.jpg"}));
  // 76800 <= 76800; 0x0 clamped from -1; one side unknown: the loop runs on
  // the other (3), the zero area lowers it.
  for (auto [w, h, scale] : {std::tuple(4000u, 3000u, 3), {640u, 480u, 0}, {300u, 200u, 0}, {0u, 0u, 0}, {4000u, 0u, 2}}) {
    EXPECT_EQ(DJpegCmd(Jpeg(w, h, 0, {320, 320}), "/s", "/d").GetScale(), scale) << w << "x" << h;
  }
  // A work file only when turning or mirroring.
  EXPECT_EQ(DJpegCmd(Jpeg(800, 600, 2, {320, 320}, 2), "/s", "/d.jpg").GetArgv()[9] + " " +
                DJpegCmd(Jpeg(800, 600, 0, {320, 320}, -4), "/s", "/d.jpg").GetArgv()[9], "/d.jpg /d.jpg");
  const std::string stamp = "/d.jpg_" + std::to_string(static_cast<long>(time(nullptr)));
  const std::string turned = DJpegCmd(Jpeg(800, 600, 0, {320, 320}, -1), "/s", "/d.jpg").GetArgv()[9];
  EXPECT_TRUE(turned.compare(0, 7, "/d.jpg_") == 0 && turned.size() <= stamp.size()) << turned;
  EXPECT_NE(DJpegCmd(Jpeg(800, 600, 0, {320, 320}, 0, true), "/s", "/d.jpg").GetArgv()[9], "/d.jpg");
  test::TempDir dir;
  for (long size : {1086841L, 1086842L}) {
    const std::string path = dir / std::to_string(size);
    test::WriteFile(path, std::string(static_cast<size_t>(size), 'x'));
    ThumbInfo info = ThumbInfoTestAccess::Make("image/jpeg", 4000, 3000, 0, "__CUSTOM_SIZE__", {320, 320}, path);
    EXPECT_EQ(DJpegCmd(info, path, "/d").IsNeedDelete(), size < 1086842L) << size;
  }
}

TEST(JpegTranArgvTest, AnglesAndOutputs) {
  ThumbInfo info = Jpeg(100, 100, 1, {1, 1});
  EXPECT_EQ(JpegTranCmd(info, "/s.jpg", "/d.jpg", false).GetArgv(),
            (Args{"/usr/bin/jpegtran", "-trim", "-rotate", "90", "-outfile", "/d.jpg", "/s.jpg"}));
  EXPECT_EQ(JpegTranCmd(info, "/s.jpg", "", true).GetArgv(), (Args{"/usr/bin/jpegtran", "-trim", "-rotate", "0", "/s.jpg"}));
  // The stream turns by the user's rotation alone; a whole turn is none.
  for (auto [user, file, stream] : {std::tuple(-2, "-90", "-180"), {3, "0", "270"}, {4, "90", "0"}}) {
    info.SetUserRotate(user);
    EXPECT_EQ(JpegTranCmd(info, "/s", "", false).GetArgv()[3] + " " + JpegTranCmd(info, "/s", "", true).GetArgv()[3],
              std::string(file) + " " + stream) << user;
  }
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

// The media add-on's converter is switched by a file read on every call; a
// tmpfs over /var in a private mount namespace keeps the file from other processes.
TEST(MedextraRootTest, SwitchIsReadOnEveryCall) {
  const int status = test::WithStandIns({}, [] {
    if (mount("tmpfs", "/var", "tmpfs", 0, "size=1m") != 0) return test::kNoNamespace;
    fake::Reset();
    fake::State().exec_result = 0;
    ConvertCmd cmd(ThumbInfoTestAccess::Make("image/jpeg", 100, 100, 0, "big", {640, 640}), "/s.jpg", "/d.jpg");
    if (cmd.IsMedextraEnabled() || cmd.getConvertPath() != "/usr/bin/convert") return 1;
    if (test::Sh("mkdir -p /var/packages/Medextra && touch /var/packages/Medextra/enabled") != 0) return 5;
    if (!cmd.exec()) return 2;
    const auto& call = fake::State().exec_calls.back();
    if (call[0] != "/var/packages/Medextra/target/usr/bin/convert" || call[1] != "/usr/bin/convert") return 3;
    unlink("/var/packages/Medextra/enabled");
    return cmd.getConvertPath() != "/usr/bin/convert" ? 4 : 0;
  });
  if (status == test::kNoNamespace) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace kovathumb
