// Probing real files made with the system's image tools.
#include <libheif/heif.h>

#include <cstring>
#include <map>

#include <gtest/gtest.h>

#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "support/attacker.h"
#include "support/dng.h"

namespace kovathumb {
namespace {

using test::LogCapture;
using test::Quote;

ThumbInfo Probe(const std::string& path, bool preview = false, const std::string& size = "big",
                ThumbDimension box = {640, 640}, bool quality = false) {
  ThumbInfo info(path, size, box);
  info.SetQuality(quality);
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
  test::TempDir dir_;
};

TEST_F(ExtractTest, EightOrientationsAndMakerNoteRotation) {
  test::MakeImage(dir_ / "o.jpg", 64, 48);
  const int rotate[] = {0, 0, 2, 2, 1, 1, 3, 3}, flop[] = {0, 1, 0, 1, 1, 0, 1, 0};
  for (int o = 1; o <= 8; ++o) {
    test::SetExif(dir_ / "o.jpg", "Exif.Image.Orientation", std::to_string(o));
    ThumbInfo info = Probe(dir_ / "o.jpg");
    EXPECT_TRUE(info.IsGood() && info.GetMimeType() == "image/jpeg" && info.GetWidth() == 64u) << o;
    EXPECT_EQ(info.GetRotate(), rotate[o - 1]) << o;
    EXPECT_EQ(info.GetFlop(), flop[o - 1] != 0) << o;
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
  EXPECT_EQ(info.GetWidth(), 96u);
  EXPECT_EQ(info.GetHeight(), 64u);
  EXPECT_EQ(info.GetRotate(), 0);  // the probe never turns
  EXPECT_EQ(info.GetMimeType(), "");
  EXPECT_EQ(info.GetOutputExtension(), ".jpg");
  // Without metadata: refused, and read in quality mode when named as cameras name it.
  test::MakeImage(dir_ / "plain.png", 64, 48);
  HeifEnc(dir_ / "plain.png", dir_ / "plain.heic");
  EXPECT_EQ(ExtractCode(dir_ / "plain.heic"), 602);
  test::MustSh("cp " + Quote(dir_ / "plain.heic") + " " + Quote(dir_ / "a.hif"));
  EXPECT_EQ(ExtractCode(dir_ / "a.hif"), 602);
  EXPECT_EQ(ExtractCode(dir_ / "a.hif", true), 0);
  EXPECT_EQ(Probe(dir_ / "a.hif", false, "big", {640, 640}, true).GetWidth(), 64u);
  WriteHeicXmpFirst(dir_ / "xmpfirst.heif");
  EXPECT_EQ(ExtractCode(dir_ / "xmpfirst.heif"), 602);
  LogCapture log;
  test::WriteFile(dir_ / "junk.heic", std::string(5000, '\x11'));
  EXPECT_EQ(ExtractCode(dir_ / "junk.heic"), 602);
  EXPECT_EQ(log.Count("(CheckAndGetHeif) \"" + dir_.path() + "/junk.heic, heif error: code = "), 1);
  test::MustSh("cp " + Quote(dir_ / "photo.HEIC") + " " + Quote(dir_ / "photo.jpg"));
  EXPECT_EQ(ExtractCode(dir_ / "photo.jpg"), 602);  // named otherwise, never reaches the probe
}

TEST_F(ExtractTest, EmbeddedPreviewWrittenWhenItFitsTheBox) {
  const std::string path = dir_ / "cam.jpg";
  test::MakeImage(path, 1600, 1200, "plasma:");
  test::MakeImage(dir_ / "cam-thumb.jpg", 160, 120, "xc:blue");
  test::MustSh("exiv2 -it " + Quote(path) + " && touch -m -d @67890 " + Quote(path));
  const std::string preview = Probe(path, true, "small", {120, 120}).GetEXIFPreviewTmpPath();
  EXPECT_EQ(preview.substr(preview.size() - 4), ".jpg");
  EXPECT_EQ(test::ImageSize(preview), std::make_pair(160u, 120u));
  EXPECT_EQ(test::Stat(preview).st_mtime, 67890);  // the source's time
  unlink(preview.c_str());
  EXPECT_EQ(Probe(path, true).GetEXIFPreviewTmpPath(), "");  // 160x120 is too small for 640x640
  EXPECT_EQ(Probe(path, false, "small", {120, 120}).GetEXIFPreviewTmpPath(), "");
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
    EXPECT_EQ(info.GetMimeType(), "image/tiff");
    EXPECT_EQ(info.GetWidth(), 1280u);
    EXPECT_EQ(info.GetHeight(), 960u);
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

}  // namespace
}  // namespace kovathumb
