// Probing and converting real files made with the system's image tools.
#include <libheif/heif.h>

#include <cstring>
#include <map>

#include <gtest/gtest.h>

#include "kovathumb/convert_cmd.h"
#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "support/attacker.h"
#include "support/dng.h"
#include "support/fake_platform.h"

namespace kovathumb {
namespace {

using namespace test;
using Size = std::pair<unsigned, unsigned>;

ThumbInfo Probe(const std::string& path, bool preview = false, const std::string& size = "big",
                ThumbDimension box = {640, 640}, bool quality = false, bool gif = false) {
  ThumbInfo info(path, size, box);
  info.SetQuality(quality);
  info.SetEnableGIF(gif);
  info.ExtractImgInfo(preview);
  return info;
}

int ExtractCode(const std::string& path, bool quality = false) {
  try {
    Probe(path, false, "big", {640, 640}, quality);
    return 0;
  } catch (const Error& e) {
    return e.Code();
  }
}

void HeifEnc(const std::string& from, const std::string& to) {
  test::MustSh("heif-enc -q 40 " + Quote(from) + " -o " + Quote(to) + " >/dev/null");
}

// A HEIC whose primary image carries an XMP block, then an Exif one.
void WriteHeicXmpFirst(const std::string& path) {
  heif_context* ctx = heif_context_alloc();
  heif_encoder* enc = nullptr;
  heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &enc);
  heif_image* img = nullptr;
  heif_image_create(64, 48, heif_colorspace_YCbCr, heif_chroma_420, &img);
  for (heif_channel ch : {heif_channel_Y, heif_channel_Cb, heif_channel_Cr}) {
    const int w = ch == heif_channel_Y ? 64 : 32, h = ch == heif_channel_Y ? 48 : 24;
    heif_image_add_plane(img, ch, w, h, 8);
    int stride = 0;
    memset(heif_image_get_plane(img, ch, &stride), 128, static_cast<size_t>(stride * h));
  }
  heif_image_handle* handle = nullptr;
  heif_context_encode_image(ctx, img, enc, nullptr, &handle);
  const char xmp[] = "<x:xmpmeta xmlns:x='adobe:ns:meta/'/>";
  const unsigned char exif[] = {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  heif_context_add_XMP_metadata(ctx, handle, xmp, sizeof xmp - 1);
  heif_context_add_exif_metadata(ctx, handle, exif, sizeof exif);
  heif_context_write_to_file(ctx, path.c_str());
  heif_image_handle_release(handle);
  heif_image_release(img);
  heif_encoder_release(enc);
  heif_context_free(ctx);
}

class ExtractTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  void TearDown() override { fake::Reset(); }
  test::TempDir dir_;
};

TEST_F(ExtractTest, EightOrientationsAndMakerNoteRotation) {
  test::MakeImage(dir_ / "o.jpg", 64, 48);
  const int rotate[] = {0, 0, 2, 2, 1, 1, 3, 3}, flop[] = {0, 1, 0, 1, 1, 0, 1, 0};
  for (int o = 1; o <= 8; ++o) {
    test::SetExif(dir_ / "o.jpg", "Exif.Image.Orientation", std::to_string(o));
    ThumbInfo info = Probe(dir_ / "o.jpg");
    EXPECT_TRUE(info.IsGood() && info.GetMimeType() == "image/jpeg" && info.GetWidth() == 64u) << o;
    EXPECT_EQ(std::make_pair(info.GetRotate(), info.GetFlop()), std::make_pair(rotate[o - 1], flop[o - 1] != 0)) << o;
  }
  const std::string pana = dir_ / "o.jpg";
  test::MustSh("exiv2 -M'set Exif.Image.Orientation 1' -M'set Exif.Image.Make Panasonic' "
               "-M'set Exif.Panasonic.Rotation 8' " + Quote(pana));
  EXPECT_EQ(Probe(pana).GetRotate(), 3);
  test::MustSh("exiv2 -M'del Exif.Image.Orientation' " + Quote(pana));
  EXPECT_EQ(Probe(pana).GetRotate(), 0);  // maker notes only behind orientation 1
}

TEST_F(ExtractTest, ErrorCodesFromRealFilesAndVideosUnread) {
  test::WriteFile(dir_ / "clip.mp4", "not really a video");
  ThumbInfo video = Probe(dir_ / "clip.mp4", true);
  EXPECT_TRUE(!video.IsGood() && video.GetWidth() == 0u);
  test::WriteFile(dir_ / "garbage.jpg", std::string(5000, '\x5a'));
  EXPECT_EQ(ExtractCode(dir_ / "garbage.jpg"), 602);
  {
    LogCapture log;
    test::WriteFile(dir_ / "tiny.jpg", "garbage");  // too short to be typed
    EXPECT_EQ(ExtractCode(dir_ / "tiny.jpg"), 601);
    EXPECT_EQ(log.Count("(ExtractImgInfo) \"Exiv2 exception: E"), 1);
  }
  EXPECT_EQ(ExtractCode("/no/such.jpg"), 601);  // the constructor's stat
  // A preview whose strip would end past 4 GiB: Exiv2 throws a standard
  // overflow error, not one of its own; the image's facts stand, previewless.
  std::string dng = test::MakeDng(256, 192, "", 0, 0);
  const size_t strip = dng.find(std::string("\x17\x01\x04\x00\x01\x00\x00\x00", 8));
  ASSERT_NE(strip, std::string::npos);
  dng.replace(strip + 8, 4, "\xff\xff\xff\xff");
  test::WriteFile(dir_ / "overflow.dng", dng);
  for (bool preview : {false, true}) {
    ThumbInfo info = Probe(dir_ / "overflow.dng", preview);
    EXPECT_TRUE(info.IsGood() && info.GetWidth() == 256u && info.GetEXIFPreviewTmpPath().empty()) << preview;
  }
  if (geteuid() != 0) return;  // readable by stat but not by open: 603
  test::MakeImage(dir_ / "locked.jpg", 8, 8);
  chmod((dir_ / "locked.jpg").c_str(), 0600);
  chmod(dir_.path().c_str(), 0755);
  EXPECT_TRUE(test::AsAttacker([&] { return ExtractCode(dir_ / "locked.jpg") == 603; }));
}

TEST_F(ExtractTest, HeicAcceptedOnlyWithExifFirst) {
  test::MakeImage(dir_ / "src.jpg", 96, 64);
  test::SetExif(dir_ / "src.jpg", "Exif.Image.Orientation", "6");
  HeifEnc(dir_ / "src.jpg", dir_ / "photo.HEIC");
  ThumbInfo info = Probe(dir_ / "photo.HEIC", true);
  EXPECT_TRUE(info.IsHeic() && info.IsGood() && info.IsNeedConvert());
  EXPECT_EQ(Size(info.GetWidth(), info.GetHeight()), Size(96, 64));
  EXPECT_EQ(info.GetRotate(), 0);  // the probe never turns
  EXPECT_EQ(info.GetMimeType() + "|" + info.GetOutputExtension(), "|.jpg");
  // Without metadata: refused, and read in quality mode when named as cameras name it.
  test::MakeImage(dir_ / "plain.png", 64, 48);
  HeifEnc(dir_ / "plain.png", dir_ / "plain.heic");
  EXPECT_EQ(ExtractCode(dir_ / "plain.heic"), 602);
  test::MustSh("cp " + Quote(dir_ / "plain.heic") + " " + Quote(dir_ / "a.hif"));
  EXPECT_EQ(ExtractCode(dir_ / "a.hif") + ExtractCode(dir_ / "a.hif", true), 602);  // 602, then read
  EXPECT_EQ(Probe(dir_ / "a.hif", false, "big", {640, 640}, true).GetWidth(), 64u);
  WriteHeicXmpFirst(dir_ / "xmpfirst.heif");
  EXPECT_EQ(ExtractCode(dir_ / "xmpfirst.heif"), 602);
  LogCapture log;
  test::WriteFile(dir_ / "junk.heic", std::string(5000, '\x11'));
  EXPECT_EQ(ExtractCode(dir_ / "junk.heic"), 602);
  EXPECT_EQ(log.Count("(CheckAndGetHeif) \"" + dir_.path() + "/junk.heic, heif error: code = "), 1);
  // Named otherwise than HEIF, it never reaches the probe.
  for (auto [name, code] : {std::pair("photo.heif", 0), {"photo.jpg", 602}}) {
    test::MustSh("cp " + Quote(dir_ / "photo.HEIC") + " " + Quote(dir_ / name));
    EXPECT_EQ(ExtractCode(dir_ / name), code) << name;
  }
}

// Raw files laid out as cameras lay them out: a small thumbnail first, the
// raw image in a SubIFD.
TEST_F(ExtractTest, CameraDngProbesTheRawAndStoredThumbnailsFitTheirBoxes) {
  test::MakeImage(dir_ / "preview.jpg", 640, 480);
  const std::string preview = test::ReadFile(dir_ / "preview.jpg");
  const std::map<char, unsigned> boxes = {{'S', 120}, {'M', 360}, {'B', 640}, {'X', 1280}};
  for (auto [name, jpeg, orientation] : {std::tuple("bare.dng", std::string(), 1), {"preview.dng", preview, 1},
                                         {"turned.dng", preview, 6}}) {
    SCOPED_TRACE(name);
    test::WriteFile(dir_ / name, test::MakeDng(1280, 960, jpeg, 640, 480, orientation));
    ThumbInfo info = Probe(dir_ / name, false, "small", {120, 120});
    EXPECT_EQ(info.GetMimeType() + " " + std::to_string(info.GetWidth()) + "x" + std::to_string(info.GetHeight()), "image/tiff 1280x960");
    EXPECT_EQ(info.GetRotate(), orientation == 6 ? 1 : 0);
    EXPECT_TRUE(Thumb(dir_ / name, 0, false).ConvertAll());
    const std::string ea = dir_.path() + "/.kovaea/" + name;
    EXPECT_EQ(test::ListDir(ea, "KOVAFILE_THUMB_").size(), 4u);
    for (const std::string& thumb : test::ListDir(ea, "KOVAFILE_THUMB_")) {
      const auto size = test::ImageSize(ea + "/" + thumb);
      EXPECT_TRUE(size.first <= boxes.at(thumb[15]) && size.second <= boxes.at(thumb[15])) << thumb;
    }
  }
}

double Mean(const std::string& image, const std::string& area) {
  return std::stod(test::Capture("/usr/bin/convert " + Quote(image) + " -crop " + area + " -format '%[fx:mean]' info:"));
}

// The commands running the real tools.
using ToolsTest = ExtractTest;

TEST_F(ToolsTest, DJpegTurnsOnlyWhenItMust) {
  const std::string src = dir_ / "big photo.jpg", dst = dir_ / "thumb.jpg";
  test::MakeImage(src, 4000, 3000, "gradient:white-black");
  test::SetExif(src, "Exif.Image.Orientation", "6");
  ASSERT_TRUE(DJpegCmd(Probe(src, false, "big", {640, 640}), src, dst).exec());
  EXPECT_EQ(test::ImageSize(dst), Size(480, 640));
  // Upright: the source's top (white) is now the right-hand side.
  EXPECT_TRUE(Mean(dst, "10x10+5+315") < 0.2 && Mean(dst, "10x10+465+315") > 0.8);
  EXPECT_EQ(test::ListDir(dir_.path()), std::vector<std::string>({"big photo.jpg", "thumb.jpg"}));
  test::MakeImage(dir_ / "flat.jpg", 1600, 1200);
  ASSERT_TRUE(DJpegCmd(Probe(dir_ / "flat.jpg", false, "big", {640, 640}), dir_ / "flat.jpg", dir_ / "out.bmp").exec());
  EXPECT_EQ(test::ImageSize(dir_ / "out.bmp"), Size(800, 600));  // 1/2 scale, no second stage
}

TEST_F(ToolsTest, ConvertCropsHardNamesAndFailsCleanly) {
  const std::string src = dir_ / "it's $(touch pwned) `x`.png";
  test::MakeImage(src, 600, 400);
  ThumbInfo info = Probe(src, false, "__CUSTOM_SIZE__", {200, 200});
  info.SetCropMode(true);
  ASSERT_TRUE(ConvertCmd(info, src, dir_ / "-crop.png").exec());
  EXPECT_EQ(test::ImageSize(dir_ / "-crop.png"), Size(200, 200));
  EXPECT_FALSE(test::Exists(dir_ / "pwned"));
  // A converter failure, or a launcher's, removes the partial output.
  test::WriteFile(dir_ / "corrupt.png", std::string("\x89PNG\r\n\x1a\n", 8) + std::string(100, 'x'));
  test::WriteFile(dir_ / "partial.png", "stale");
  EXPECT_FALSE(ConvertCmd(info, dir_ / "corrupt.png", dir_ / "partial.png").exec() || test::Exists(dir_ / "partial.png"));
  fake::State().exec_result = 1;
  test::WriteFile(dir_ / "d.jpg", "partial");
  EXPECT_FALSE(ConvertCmd(info, src, dir_ / "d.jpg").exec() || test::Exists(dir_ / "d.jpg"));
  EXPECT_FALSE(DJpegCmd(info, src, dir_ / "e.jpg").exec());
}

TEST_F(ToolsTest, AnimatedGifKeepsItsFrames) {
  const std::string name = "kovatest_anim" + std::to_string(getpid()) + ".gif", src = dir_ / name;
  test::MustSh("/usr/bin/convert -size 300x200 -delay 20 xc:red xc:green xc:blue -loop 0 " + Quote(src));
  const std::string coalesced = "ls /var/tmp/*" + name + " 2>/dev/null";
  ASSERT_TRUE(GIFConvertCmd(Probe(src, false, "small", {120, 120}, false, true), src, dir_ / "thumb.gif").exec());
  EXPECT_EQ(test::Capture("/usr/bin/identify -format '%w %h\\n' " + Quote(dir_ / "thumb.gif")),
            "120 80\n120 80\n120 80\n");
  EXPECT_EQ(test::Capture(coalesced), "");
  // A failing second run leaves the coalesced file and no output.
  EXPECT_FALSE(GIFConvertCmd(Probe(src, false, "small", {120, 120}, false, true), src, dir_ / "no/such/dir/t.gif").exec());
  EXPECT_NE(test::Capture(coalesced), "");
  test::Sh("rm -f /var/tmp/*" + name);
}

TEST_F(ToolsTest, RawPreviewExtractedByDcraw) {
  test::MakeImage(dir_ / "preview.jpg", 1024, 768, "plasma:");
  const std::string raw = dir_ / "IMG 0001.dng", dst = dir_ / "thumb.jpg";
  test::WriteFile(raw, test::MakeDng(256, 192, test::ReadFile(dir_ / "preview.jpg"), 1024, 768));
  ThumbInfo info = Probe(raw, false, "big", {640, 640});
  EXPECT_FALSE(info.IsWebAcceptable());
  DcrawCmd cmd(info, raw, dst);
  EXPECT_EQ(test::ListDir(dir_.path(), "thumb.jpg_").size(), 1u);  // the extracted preview, beside dst
  ASSERT_TRUE(cmd.exec());
  EXPECT_EQ(test::ImageSize(dst), Size(1024, 768));  // the preview as it is
  EXPECT_TRUE(test::ListDir(dir_.path(), "thumb.jpg_").empty());
  // Nothing to extract from a file that is no raw: no work file either.
  test::WriteFile(dir_ / "bare.dng", std::string(4096, 'x'));
  EXPECT_FALSE(DcrawCmd(info, dir_ / "bare.dng", dir_ / "none.jpg").exec());
  EXPECT_TRUE(test::ListDir(dir_.path(), "none.jpg").empty());
}

}  // namespace
}  // namespace kovathumb
