// The record's questions and names, on records filled by hand.
#include "kovathumb/thumb_info.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "kovathumb/error.h"
#include "support/test_util.h"
#include "support/thumb_info_access.h"

namespace kovathumb {
namespace {

ThumbInfo Jpeg(const std::string& size, ThumbDimension box = {640, 640}) {
  return ThumbInfoTestAccess::Make("image/jpeg", 4000, 3000, 1, size, box);
}
ThumbInfo Png(const std::string& size, ThumbDimension box = {640, 640}) {
  return ThumbInfoTestAccess::Make("image/png", 500, 500, 0, size, box);
}

TEST(ThumbInfoTest, MissingSourceThrows601) {
  try {
    ThumbInfo info("/no/such/file", "big", {640, 640});
    FAIL() << "no exception";
  } catch (const Error& e) {
    EXPECT_EQ(e.Code(), 601);
    EXPECT_STREQ(e.what(), "(E601) Can't stat /no/such/file");
  }
}

TEST(ThumbInfoTest, TargetBoxTurnsWithOddRotationAndIsCapped) {
  auto info = ThumbInfoTestAccess::Make("image/jpeg", 4000, 3000, 0, "__CUSTOM_SIZE__", {800, 600});
  EXPECT_EQ(info.GetTargetDimension().width, 800u);
  info.SetUserRotate(1);
  EXPECT_EQ(info.GetTargetDimension().width, 600u);
  EXPECT_EQ(info.GetTargetDimension().height, 800u);
  info.SetUserRotate(-1);  // negative odd sums turn too
  EXPECT_EQ(info.GetTargetDimension().width, 600u);

  auto small = ThumbInfoTestAccess::Make("image/jpeg", 500, 400, 0, "big", {800, 600});
  EXPECT_EQ(small.GetTargetDimension().width, 500u);
  EXPECT_EQ(small.GetTargetDimension().height, 400u);

  auto unknown = ThumbInfoTestAccess::Make("", 0, 0, 1, "big", {320, 240});
  EXPECT_EQ(unknown.GetTargetDimension().width, 240u);
  EXPECT_EQ(unknown.GetXString(), "240x320");
}

TEST(ThumbInfoTest, NeedConvert) {
  auto turned = ThumbInfoTestAccess::Make("image/jpeg", 4000, 3000, 1, "small", {320, 240});
  EXPECT_EQ(turned.GetTargetDimension().width, 240u);
  EXPECT_TRUE(turned.IsNeedConvert());
  turned.SetUserRotate(-1);  // cancels out: no forced conversion, box not swapped
  EXPECT_EQ(turned.GetTargetDimension().width, 320u);

  auto fits = ThumbInfoTestAccess::Make("image/png", 300, 200, 0, "small", {320, 240});
  EXPECT_FALSE(fits.IsNeedConvert());
  EXPECT_EQ(fits.GetOutputMimeType(), "image/png");
  EXPECT_EQ(fits.GetOutputExtension(), ".png");
  fits.SetUserRotate(4);  // a whole turn still counts as a rotation
  EXPECT_TRUE(fits.IsNeedConvert());

  EXPECT_FALSE(ThumbInfoTestAccess::Make("image/jpeg", 1000, 1000, 0, "large", {1, 1}).IsNeedConvert());
  EXPECT_TRUE(ThumbInfoTestAccess::Make("image/jpeg", 1280, 1280, 0, "large", {1, 1}).IsNeedConvert());
  // BMP that fits is usable as it is, though its output type is JPEG.
  auto bmp = ThumbInfoTestAccess::Make("image/x-ms-bmp", 100, 100, 0, "big", {640, 640});
  EXPECT_FALSE(bmp.IsNeedConvert());
  EXPECT_EQ(bmp.GetOutputExtension(), ".jpg");
  EXPECT_TRUE(ThumbInfoTestAccess::Make("image/tiff", 10, 10, 0, "big", {640, 640}).IsNeedConvert());
}

TEST(ThumbInfoTest, GifOutputDependsOnGifAndCropFlags) {
  auto gif = ThumbInfoTestAccess::Make("image/gif", 100, 100, 0, "big", {640, 640});
  EXPECT_TRUE(gif.IsNeedConvert());
  EXPECT_EQ(gif.GetOutputExtension(), ".jpg");
  gif.SetEnableGIF(true);
  EXPECT_FALSE(gif.IsNeedConvert());
  EXPECT_EQ(gif.GetOutputMimeType(), "image/gif");
  EXPECT_EQ(gif.GetDossivaThumbEAName(), "KOVAFILE_THUMB_B.gif");
  gif.SetCropMode(true);
  EXPECT_EQ(gif.GetOutputExtension(), ".jpg");
}

TEST(ThumbInfoTest, NamesOfTheWorkedExamples) {
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(Jpeg("small").GetPictavoThumbEAName(), "KOVAPHOTO_THUMB_S.jpg");
  EXPECT_EQ(Jpeg("large").GetPictavoThumbEAName(), "KOVAPHOTO_THUMB_XL.jpg");
  EXPECT_EQ(Jpeg("xlarge").GetPictavoThumbEAName(), "KOVAPHOTO_THUMB_XL.jpg");
  EXPECT_EQ(Jpeg("medium").GetPictavoOldThumbEAName(), "KOVAPHOTO:THUMB_M.jpg");
  EXPECT_EQ(Jpeg("big").GetDossivaThumbEAName(), "KOVAFILE_THUMB_B_r1.jpg");
  EXPECT_EQ(Jpeg("__CUSTOM_SIZE__", {320, 240}).GetDossivaThumbEAName(),
            "KOVAFILE_THUMB_240x320_r1.jpg");
  EXPECT_EQ(Png("xlarge").GetDossivaThumbEAName(), "KOVAFILE_THUMB_XL.png");
  EXPECT_EQ(Jpeg("big").GetDossivaTmpThumbEAName(), "KOVAFILETMP_THUMB_r1_" + pid + ".jpg");
  EXPECT_EQ(Png("big").GetDossivaTmpThumbEAName(), "KOVAFILETMP_THUMB_" + pid + ".png");
  EXPECT_EQ(Png("__CUSTOM_SIZE__", {120, 120}).GetAvatarThumbEAName(), "KOVAAVATAR_120x120.png");
  EXPECT_EQ(Jpeg("__CUSTOM_SIZE__", {120, 120}).GetAvatarThumbEAName(), "KOVAAVATAR_120x120_r1.jpg");
  EXPECT_EQ(Png("big").GetCinevoThumbEAName(), "KOVAVIDEO_VIDEO_SCREENSHOT.jpg");
  auto r = ThumbInfoTestAccess::Make("image/jpeg", 10, 10, 3, "big", {640, 640});
  r.SetUserRotate(2);
  EXPECT_EQ(r.GetRotateSuffix(), "_r1");
  r.SetUserRotate(1);  // a whole turn: no suffix
  EXPECT_EQ(r.GetRotateSuffix(), "");
  r.SetUserRotate(-5);  // the remainder keeps the sign
  EXPECT_EQ(r.GetRotateSuffix(), "_r-2");
}

TEST(ThumbInfoTest, SizesWithoutLetterThrowMapAt) {
  for (const char* size : {"original", "__CUSTOM_SIZE__", "huge"}) {
    try {
      (void)Jpeg(size).GetPictavoThumbEAName();
      FAIL() << size;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), "map::at");
    }
  }
  EXPECT_THROW((void)Jpeg("original").GetDossivaThumbEAName(), std::out_of_range);
}

TEST(ThumbInfoTest, UpToDateByWholeSecondsAndTimesCopied) {
  test::TempDir dir;
  const std::string src = dir / "src.jpg", thumb = dir / "thumb.jpg";
  test::WriteFile(src, "s");
  test::WriteFile(thumb, "t");
  struct utimbuf t = {1000, 2000};
  utime(src.c_str(), &t);
  ThumbInfo info(src, "big", {640, 640});
  EXPECT_FALSE(info.IsThumbUptoDate(dir / "missing"));
  t.modtime = 1999;
  utime(thumb.c_str(), &t);
  EXPECT_FALSE(info.IsThumbUptoDate(thumb));
  ASSERT_EQ(info.UpdateAMTime(thumb), 0);  // equal seconds count as current
  EXPECT_TRUE(info.IsThumbUptoDate(thumb));
  struct stat st;
  stat(thumb.c_str(), &st);
  EXPECT_EQ(st.st_atime, 1000);
  EXPECT_EQ(info.UpdateAMTime(dir / "missing"), -1);
}

TEST(ThumbInfoTest, FileSizeKeepsLow32Bits) {
  test::TempDir dir;
  const std::string big = dir / "huge.jpg";
  const long long size = (5LL << 30) + 123;  // sparse: takes no disk
  test::WriteFile(big, "");
  ASSERT_EQ(truncate(big.c_str(), size), 0);
  ThumbInfo info(big, "big", {640, 640});
  EXPECT_EQ(info.GetFileSize(), static_cast<unsigned>(size & 0xFFFFFFFFLL));
}

}  // namespace
}  // namespace kovathumb
