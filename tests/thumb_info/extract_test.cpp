// Probing real files made with the system's image tools.
#include <libheif/heif.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstring>
#include <map>

#include <gtest/gtest.h>

#include "kovathumb/error.h"
#include "kovathumb/thumb_info.h"
#include "kovathumb/thumb.h"
#include "support/attacker.h"
#include "support/dng.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::LogCapture;
using test::Quote;

ThumbInfo Probe(const std::string& path, bool preview = false, const std::string& size = "big",
                ThumbDimension box = {640, 640}) {
  ThumbInfo info(path, size, box);
  info.ExtractImgInfo(preview);
  return info;
}

int ExtractCode(const std::string& path) {
  try {
    Probe(path);
    return 0;
  } catch (const Error& e) {
    return e.Code();
  }
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
  test::TempDir dir_;
};

TEST_F(ExtractTest, EightOrientationsAndMakerNoteRotation) {
  test::MakeImage(dir_ / "base.jpg", 64, 48);
  const int rotate[] = {0, 0, 2, 2, 1, 1, 3, 3};
  const bool flop[] = {false, true, false, true, true, false, true, false};
  for (int o = 1; o <= 8; ++o) {
    const std::string path = dir_ / ("o" + std::to_string(o) + ".jpg");
    test::MustSh("cp " + Quote(dir_ / "base.jpg") + " " + Quote(path));
    test::SetExif(path, "Exif.Image.Orientation", std::to_string(o));
    ThumbInfo info = Probe(path);
    EXPECT_TRUE(info.IsGood());
    EXPECT_EQ(info.GetMimeType(), "image/jpeg");
    EXPECT_EQ(info.GetWidth(), 64u);
    EXPECT_EQ(info.GetRotate(), rotate[o - 1]) << o;
    EXPECT_EQ(info.GetFlop(), flop[o - 1]) << o;
  }
  const std::string pana = dir_ / "o1.jpg";
  test::MustSh("exiv2 -M'set Exif.Image.Make Panasonic' -M'set Exif.Panasonic.Rotation 8' " + Quote(pana));
  EXPECT_EQ(Probe(pana).GetRotate(), 3);
  test::MustSh("exiv2 -M'del Exif.Image.Orientation' " + Quote(pana));
  EXPECT_EQ(Probe(pana).GetRotate(), 0);  // maker notes only behind orientation 1
}

TEST_F(ExtractTest, ErrorCodesFromRealFilesAndVideosUnread) {
  test::WriteFile(dir_ / "clip.mp4", "not really a video");
  ThumbInfo video = Probe(dir_ / "clip.mp4", true);
  EXPECT_FALSE(video.IsGood());
  EXPECT_EQ(video.GetWidth(), 0u);
  test::WriteFile(dir_ / "garbage.jpg", std::string(5000, '\x5a'));
  EXPECT_EQ(ExtractCode(dir_ / "garbage.jpg"), 602);
  {
    LogCapture log;
    test::WriteFile(dir_ / "tiny.jpg", "garbage");  // too short to be typed
    EXPECT_EQ(ExtractCode(dir_ / "tiny.jpg"), 601);
    EXPECT_EQ(log.Count("(ExtractImgInfo) \"Exiv2 exception: E"), 1);
  }
  EXPECT_EQ(ExtractCode("/no/such.jpg"), 601);  // the constructor's stat
  // Readable by stat but not by open: 603.
  if (geteuid() != 0) return;
  test::MakeImage(dir_ / "locked.jpg", 8, 8);
  chmod((dir_ / "locked.jpg").c_str(), 0600);
  chmod(dir_.path().c_str(), 0755);
  EXPECT_TRUE(test::AsAttacker([&] { return ExtractCode(dir_ / "locked.jpg") == 603; }));
}

TEST_F(ExtractTest, HeicAcceptedOnlyWithExifFirst) {
  test::MakeImage(dir_ / "src.jpg", 96, 64);
  test::SetExif(dir_ / "src.jpg", "Exif.Image.Orientation", "6");
  const std::string heic = dir_ / "photo.HEIC";
  test::MustSh("heif-enc -q 40 " + Quote(dir_ / "src.jpg") + " -o " + Quote(heic) + " >/dev/null");
  ThumbInfo info = Probe(heic, true);
  EXPECT_TRUE(info.IsHeic());
  EXPECT_TRUE(info.IsGood());
  EXPECT_EQ(info.GetWidth(), 96u);
  EXPECT_EQ(info.GetHeight(), 64u);
  EXPECT_EQ(info.GetRotate(), 0);  // the probe never turns
  EXPECT_EQ(info.GetMimeType(), "");
  EXPECT_TRUE(info.IsNeedConvert());
  EXPECT_EQ(info.GetOutputExtension(), ".jpg");
  test::MakeImage(dir_ / "plain.png", 64, 48);
  test::MustSh("heif-enc -q 40 " + Quote(dir_ / "plain.png") + " -o " + Quote(dir_ / "plain.heic") + " >/dev/null");
  EXPECT_EQ(ExtractCode(dir_ / "plain.heic"), 602);
  WriteHeicXmpFirst(dir_ / "xmpfirst.heif");
  EXPECT_EQ(ExtractCode(dir_ / "xmpfirst.heif"), 602);
  LogCapture log;
  test::WriteFile(dir_ / "junk.heic", std::string(5000, '\x11'));
  EXPECT_EQ(ExtractCode(dir_ / "junk.heic"), 602);
  EXPECT_EQ(log.Count("(CheckAndGetHeif) \"" + dir_.path() + "/junk.heic, heif error: code = "), 1);
  test::MustSh("cp " + Quote(heic) + " " + Quote(dir_ / "photo.jpg"));
  EXPECT_EQ(ExtractCode(dir_ / "photo.jpg"), 602);  // named otherwise, never reaches the probe
}

TEST_F(ExtractTest, EmbeddedPreviewWrittenWhenItFitsTheBox) {
  const std::string path = dir_ / "cam.jpg";
  test::MakeImage(path, 1600, 1200, "plasma:");
  test::MakeImage(dir_ / "cam-thumb.jpg", 160, 120, "xc:blue");
  test::MustSh("exiv2 -it " + Quote(path));
  struct utimbuf t = {12345, 67890};
  utime(path.c_str(), &t);
  const std::string preview = Probe(path, true, "small", {120, 120}).GetEXIFPreviewTmpPath();
  const std::string head = "/tmp/thumb." + std::to_string(getpid()) + ".";
  ASSERT_EQ(preview.compare(0, head.size(), head), 0) << preview;
  EXPECT_EQ(preview.substr(preview.size() - 4), ".jpg");
  EXPECT_EQ(test::ImageSize(preview), std::make_pair(160u, 120u));
  struct stat st;
  ASSERT_EQ(stat(preview.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 67890);
  unlink(preview.c_str());
  EXPECT_EQ(Probe(path, true).GetEXIFPreviewTmpPath(), "");  // 160x120 is too small for 640x640
  EXPECT_EQ(Probe(path, false, "small", {120, 120}).GetEXIFPreviewTmpPath(), "");
}

// A HEIF without metadata, named as cameras name them: 602 in the
// appliance behaviour, read in quality mode.
TEST_F(ExtractTest, HifWithoutExifIsReadInQualityModeOnly) {
  test::MakeImage(dir_ / "a.png", 64, 48);
  test::MustSh("heif-enc -q 50 " + Quote(dir_ / "a.png") + " -o " + Quote(dir_ / "a.hif") + " >/dev/null");
  for (const bool quality : {false, true}) {
    ThumbInfo info(dir_ / "a.hif", "small", {120, 120});
    info.SetQuality(quality);
    try {
      info.ExtractImgInfo(false);
      EXPECT_TRUE(quality);
      EXPECT_TRUE(info.IsHeic());
      EXPECT_EQ(info.GetWidth(), 64u);
      EXPECT_EQ(info.GetHeight(), 48u);
    } catch (const Error& e) {
      EXPECT_FALSE(quality);
      EXPECT_EQ(e.Code(), 602);
    }
  }
}

// Raw files laid out as cameras lay them out: a small thumbnail first, the
// raw image in a SubIFD.
TEST_F(ExtractTest, CameraDngProbesTheRawAndStoredThumbnailsFitTheirBoxes) {
  test::MakeImage(dir_ / "preview.jpg", 640, 480);
  const std::string preview = test::ReadFile(dir_ / "preview.jpg");
  const struct {
    std::string name, jpeg;
    int orientation;
  } cases[] = {{"bare.dng", "", 1}, {"preview.dng", preview, 1}, {"turned.dng", preview, 6}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir_ / c.name;
    test::WriteFile(path, test::MakeCameraDng(1280, 960, c.jpeg, 640, 480, c.orientation));
    ThumbInfo info = Probe(path, false, "small", {120, 120});
    EXPECT_EQ(info.GetMimeType(), "image/tiff");
    EXPECT_EQ(info.GetWidth(), 1280u);
    EXPECT_EQ(info.GetHeight(), 960u);
    EXPECT_EQ(info.GetRotate(), c.orientation == 6 ? 1 : 0);
    EXPECT_TRUE(Thumb(path, 0, false).ConvertAll());
    const std::string ea = dir_.path() + "/.kovaea/" + c.name;
    const std::map<char, unsigned> boxes = {{'S', 120}, {'M', 360}, {'B', 640}, {'X', 1280}};
    EXPECT_EQ(test::ListDir(ea, "KOVAFILE_THUMB_").size(), 4u);
    for (const std::string& name : test::ListDir(ea, "KOVAFILE_THUMB_")) {
      const auto size = test::ImageSize(ea + "/" + name);
      const unsigned box = boxes.at(name[15]);
      EXPECT_TRUE(size.first <= box && size.second <= box) << name << " " << size.first << "x" << size.second;
    }
  }
}

}  // namespace
}  // namespace kovathumb
