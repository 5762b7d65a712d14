// Probing real files made with the system's image tools.
#include <libheif/heif.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <cstring>

#include <gtest/gtest.h>

#include "kovathumb/error.h"
#include "kovathumb/thumb_info.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::LogCapture;
using test::Quote;

int ExtractCode(const std::string& path) {
  try {
    ThumbInfo info(path, "big", {640, 640});
    info.ExtractImgInfo(false);
    return 0;
  } catch (const Error& e) {
    return e.Code();
  }
}

// A HEIC whose primary image carries the given metadata blocks, in order.
void WriteHeic(const std::string& path, bool xmp, bool exif) {
  heif_context* ctx = heif_context_alloc();
  heif_encoder* enc = nullptr;
  ASSERT_EQ(heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &enc).code, heif_error_Ok);
  heif_image* img = nullptr;
  heif_image_create(64, 48, heif_colorspace_YCbCr, heif_chroma_420, &img);
  for (heif_channel ch : {heif_channel_Y, heif_channel_Cb, heif_channel_Cr}) {
    const int w = ch == heif_channel_Y ? 64 : 32, h = ch == heif_channel_Y ? 48 : 24;
    heif_image_add_plane(img, ch, w, h, 8);
    int stride = 0;
    uint8_t* p = heif_image_get_plane(img, ch, &stride);
    for (int y = 0; y < h; ++y) memset(p + y * stride, 128, static_cast<size_t>(w));
  }
  heif_image_handle* handle = nullptr;
  ASSERT_EQ(heif_context_encode_image(ctx, img, enc, nullptr, &handle).code, heif_error_Ok);
  const char xmpData[] = "<x:xmpmeta xmlns:x='adobe:ns:meta/'/>";
  const unsigned char exifData[] = {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  if (xmp) heif_context_add_XMP_metadata(ctx, handle, xmpData, sizeof xmpData - 1);
  if (exif) heif_context_add_exif_metadata(ctx, handle, exifData, sizeof exifData);
  ASSERT_EQ(heif_context_write_to_file(ctx, path.c_str()).code, heif_error_Ok);
  heif_image_handle_release(handle);
  heif_image_release(img);
  heif_encoder_release(enc);
  heif_context_free(ctx);
}

class ExtractTest : public ::testing::Test {
 protected:
  test::TempDir dir_;
};

TEST_F(ExtractTest, EightOrientationsGiveRotationAndMirror) {
  const std::string base = dir_ / "base.jpg";
  test::MakeImage(base, 64, 48);
  const int rotate[] = {0, 0, 2, 2, 1, 1, 3, 3};
  const bool flop[] = {false, true, false, true, true, false, true, false};
  for (int o = 1; o <= 8; ++o) {
    const std::string path = dir_ / ("o" + std::to_string(o) + ".jpg");
    test::MustSh("cp " + Quote(base) + " " + Quote(path));
    test::SetExif(path, "Exif.Image.Orientation", std::to_string(o));
    ThumbInfo info(path, "big", {640, 640});
    info.ExtractImgInfo(false);
    EXPECT_TRUE(info.IsGood());
    EXPECT_EQ(info.GetMimeType(), "image/jpeg");
    EXPECT_EQ(info.GetWidth(), 64u);
    EXPECT_EQ(info.GetRotate(), rotate[o - 1]) << o;
    EXPECT_EQ(info.GetFlop(), flop[o - 1]) << o;
  }
}

TEST_F(ExtractTest, MakerNoteRotationOnlyBehindOrientationOne) {
  const std::string path = dir_ / "pana.jpg";
  test::MakeImage(path, 64, 48);
  test::MustSh("exiv2 -M'set Exif.Image.Make Panasonic' -M'set Exif.Image.Orientation 1' "
               "-M'set Exif.Panasonic.Rotation 8' " + Quote(path));
  ThumbInfo info(path, "big", {640, 640});
  info.ExtractImgInfo(false);
  EXPECT_EQ(info.GetRotate(), 3);

  test::MustSh("exiv2 -M'del Exif.Image.Orientation' -M'set Exif.Panasonic.Rotation 6' " + Quote(path));
  ThumbInfo absent(path, "big", {640, 640});
  absent.ExtractImgInfo(false);
  EXPECT_EQ(absent.GetRotate(), 0);
}

TEST_F(ExtractTest, VideoIsSkippedUnread) {
  const std::string clip = dir_ / "clip.mp4";
  test::WriteFile(clip, "not really a video");
  ThumbInfo info(clip, "big", {640, 640});
  info.ExtractImgInfo(true);
  EXPECT_FALSE(info.IsGood());
  EXPECT_EQ(info.GetMimeType(), "");
  EXPECT_EQ(info.GetWidth(), 0u);
}

TEST_F(ExtractTest, ErrorCodesFromRealFiles) {
  test::WriteFile(dir_ / "garbage.jpg", std::string(5000, '\x5a'));
  EXPECT_EQ(ExtractCode(dir_ / "garbage.jpg"), 602);
  {
    LogCapture log;
    test::WriteFile(dir_ / "tiny.jpg", "garbage");  // too short to be typed
    EXPECT_EQ(ExtractCode(dir_ / "tiny.jpg"), 601);
    EXPECT_EQ(log.Count("(ExtractImgInfo) \"Exiv2 exception: E"), 1);
  }
  EXPECT_EQ(ExtractCode("/no/such.jpg"), 601);  // the constructor's stat

  // Readable by stat but not by open: 603. Root reads everything, so the
  // check runs in a child that drops to nobody.
  const std::string locked = dir_ / "locked.jpg";
  test::MakeImage(locked, 8, 8);
  chmod(locked.c_str(), 0600);
  chmod(dir_.path().c_str(), 0755);
  pid_t pid = fork();
  if (pid == 0) {
    if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(90);
    _exit(ExtractCode(locked) == 603 ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(ExtractTest, HeicAcceptedOnlyWithExifFirst) {
  const std::string jpeg = dir_ / "src.jpg";
  test::MakeImage(jpeg, 96, 64);
  test::SetExif(jpeg, "Exif.Image.Orientation", "6");
  const std::string heic = dir_ / "photo.HEIC";
  test::MustSh("heif-enc -q 40 " + Quote(jpeg) + " -o " + Quote(heic) + " >/dev/null");
  ThumbInfo info(heic, "big", {640, 640});
  info.ExtractImgInfo(true);
  EXPECT_TRUE(info.IsHeic());
  EXPECT_TRUE(info.IsGood());
  EXPECT_EQ(info.GetWidth(), 96u);
  EXPECT_EQ(info.GetHeight(), 64u);
  EXPECT_EQ(info.GetRotate(), 0);  // the probe never turns
  EXPECT_FALSE(info.GetFlop());
  EXPECT_EQ(info.GetMimeType(), "");
  EXPECT_TRUE(info.IsNeedConvert());
  EXPECT_EQ(info.GetOutputExtension(), ".jpg");

  WriteHeic(dir_ / "plain.heic", false, false);
  EXPECT_EQ(ExtractCode(dir_ / "plain.heic"), 602);
  WriteHeic(dir_ / "xmpfirst.heif", true, true);
  EXPECT_EQ(ExtractCode(dir_ / "xmpfirst.heif"), 602);
  WriteHeic(dir_ / "exif.HEIF", false, true);
  EXPECT_EQ(ExtractCode(dir_ / "exif.HEIF"), 0);

  LogCapture log;
  test::WriteFile(dir_ / "junk.heic", std::string(5000, '\x11'));
  EXPECT_EQ(ExtractCode(dir_ / "junk.heic"), 602);
  EXPECT_EQ(log.Count("(CheckAndGetHeif) \"" + dir_.path() + "/junk.heic, heif error: code = "), 1);
  // Named otherwise, the same bytes never reach the probe.
  test::MustSh("cp " + Quote(heic) + " " + Quote(dir_ / "photo.jpg"));
  EXPECT_EQ(ExtractCode(dir_ / "photo.jpg"), 602);
}

TEST_F(ExtractTest, EmbeddedPreviewWrittenWhenItFitsTheBox) {
  const std::string path = dir_ / "cam.jpg";
  test::MakeImage(path, 1600, 1200, "plasma:");
  test::MakeImage(dir_ / "cam-thumb.jpg", 160, 120, "xc:blue");
  test::MustSh("exiv2 -it " + Quote(path));
  struct utimbuf t = {12345, 67890};
  utime(path.c_str(), &t);

  ThumbInfo small(path, "small", {120, 120});
  small.ExtractImgInfo(true);
  const std::string preview = small.GetEXIFPreviewTmpPath();
  const std::string head = "/tmp/thumb." + std::to_string(getpid()) + ".";
  ASSERT_EQ(preview.compare(0, head.size(), head), 0) << preview;
  EXPECT_EQ(preview.substr(preview.size() - 4), ".jpg");
  EXPECT_EQ(test::ImageSize(preview), std::make_pair(160u, 120u));
  struct stat st;
  ASSERT_EQ(stat(preview.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 67890);
  unlink(preview.c_str());

  ThumbInfo big(path, "big", {640, 640});  // 160x120 is too small for 640x640
  big.ExtractImgInfo(true);
  EXPECT_EQ(big.GetEXIFPreviewTmpPath(), "");
  ThumbInfo without(path, "small", {120, 120});
  without.ExtractImgInfo(false);
  EXPECT_EQ(without.GetEXIFPreviewTmpPath(), "");
}

}  // namespace
}  // namespace kovathumb
