// The store's and quality mode's pure decisions, row by row.
#include <fcntl.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kovathumb/thumb_const.h"
#include "libkovathumb/quality.h"
#include "libkovathumb/store_rules.h"
#include "store/image_facts.h"
#include "support/test_util.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace internal {
namespace {

TEST(StoreRulesTest, WholeImagesOfTheOutputTypeAreStorable) {
  const std::string jpeg = "\xff\xd8\xff\xe0" + std::string(8, '\0'), bmp = "BM\x10\0\0\0" + std::string(6, '\0');
  const std::string png = "\x89PNG\r\n\x1a\n" + std::string(8, '\0');
  const std::string pngEnd = std::string("\0\0\0\0IEND\xae\x42\x60\x82", 12);
  const struct { std::string head, tail; off_t size; const char* mime; bool storable; } cases[] = {
      {jpeg, "xx\xff\xd9", 100, kMimeJpeg, true},
      {jpeg, "xx\xff\xd9\0\0", 100, kMimeJpeg, true},  // padding after the end marker
      {jpeg, "xx\xff\xd8", 100, kMimeJpeg, false},      // cut short
      {jpeg, "xx\xff\xd9", 100, kMimePng, false},       // not the type the name says
      {bmp, "", 16, kMimeJpeg, true},                   // djpeg's, stored under the JPEG name
      {bmp, "", 15, kMimeJpeg, false},                  // shorter than its header says
      {png, pngEnd, 100, kMimePng, true},
      {png, "no end at all", 100, kMimePng, false},
      {"GIF89a" + std::string(6, '\0'), "x;", 100, kMimeGif, true},
      {jpeg, "xx\xff\xd9", 0, kMimeJpeg, false},
      {"<html>" + std::string(6, ' '), ">", 100, kMimeJpeg, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsStorableImage(c.head, c.tail, c.size, c.mime), c.storable) << c.head.substr(0, 3) << c.mime;
  }
  EXPECT_EQ(store::SniffType("II*" + std::string(1, '\0') + "rest"), "tiff");
  EXPECT_EQ(store::SniffType(std::string(4, '\0') + "ftypheic"), "heic");
}

TEST(QualityDecisionsTest, FitScaleAspectPreviewAndOriginal) {
  const struct { uint32_t w, h; ThumbDimension box; uint32_t fw, fh; } fits[] = {
      {4000, 3000, {640, 640}, 640, 480}, {3000, 4000, {640, 640}, 480, 640}, {500, 400, {640, 640}, 500, 400},
      {10000, 1, {120, 120}, 120, 1},     {0, 5, {120, 120}, 0, 5},          {1281, 853, {1280, 1280}, 1280, 852}};
  for (const auto& f : fits) {
    const ThumbDimension got = FitInBox(f.w, f.h, f.box);
    EXPECT_EQ(std::to_string(got.width) + "x" + std::to_string(got.height),
              std::to_string(f.fw) + "x" + std::to_string(f.fh)) << f.w << "x" << f.h;
  }
  EXPECT_EQ(DjpegEighths(4000, 3000, {640, 480}), 2);  // 1000 x 750 still covers it
  EXPECT_EQ(DjpegEighths(4000, 3000, {500, 375}), 1);
  EXPECT_EQ(DjpegEighths(700, 500, {640, 457}), 8);
  EXPECT_TRUE(SameAspect(3000, 2000, 1500, 1010));
  EXPECT_FALSE(SameAspect(3000, 2000, 1600, 1200));
  EXPECT_FALSE(SameAspect(0, 2000, 1600, 1200));

  const std::vector<PreviewProps> previews = {{kMimeJpeg, 160, 120}, {kMimeJpeg, 1616, 1080},
                                              {kMimeJpeg, 1920, 1280}, {"image/tiff", 1500, 1000}};
  EXPECT_EQ(ChooseQualityPreview(previews, 6000, 4000, {640, 640}), 1);  // the smallest that covers, of its shape
  EXPECT_EQ(ChooseQualityPreview(previews, 6000, 4000, {1700, 1700}), 2);
  EXPECT_EQ(ChooseQualityPreview(previews, 4000, 3000, {120, 120}), 0);  // 4:3 source, the 4:3 preview
  EXPECT_EQ(ChooseQualityPreview(previews, 6000, 4000, {4000, 4000}), -1);

  EXPECT_TRUE(ServesOriginal(kMimeJpeg, kMimeJpeg, 600, 400, 0, false, {640, 640}));
  EXPECT_TRUE(ServesOriginal(kMimePng, kMimePng, 600, 400, 4, false, {640, 640}));  // a whole turn
  EXPECT_FALSE(ServesOriginal(kMimeJpeg, kMimeJpeg, 600, 400, 1, false, {640, 640}));
  EXPECT_FALSE(ServesOriginal(kMimeJpeg, kMimeJpeg, 600, 400, 0, true, {640, 640}));
  EXPECT_FALSE(ServesOriginal(kMimeJpeg, kMimeJpeg, 700, 400, 0, false, {640, 640}));
  EXPECT_FALSE(ServesOriginal(kMimeBmp, kMimeJpeg, 600, 400, 0, false, {640, 640}));
  EXPECT_FALSE(ServesOriginal(kMimeGif, kMimeJpeg, 60, 40, 0, false, {640, 640}));  // animated thumbnails off
}

TEST(QualityDecisionsTest, JpegMarkersBeforeTheScan) {
  const auto segment = [](unsigned char marker, const std::string& body) {
    const size_t n = body.size() + 2;
    return std::string{'\xff', static_cast<char>(marker), static_cast<char>(n >> 8), static_cast<char>(n & 0xff)} + body;
  };
  const std::string sof = segment(0xC0, std::string("\x08\x01\xe0\x02\x80\x03", 6));  // 640 x 480, 3 components
  const std::string icc = segment(0xE2, std::string("ICC_PROFILE\0\x01\x01", 14));
  const auto scan = [](const std::string& s) {
    const JpegFacts f = ScanJpeg(reinterpret_cast<const unsigned char*>(s.data()), s.size());
    return std::to_string(f.ok) + " " + std::to_string(f.width) + "x" + std::to_string(f.height) + " " +
           std::to_string(f.components) + (f.icc ? " icc" : "");
  };
  EXPECT_EQ(scan("\xff\xd8" + icc + sof), "1 640x480 3 icc");
  EXPECT_EQ(scan("\xff\xd8\xff\xff" + sof), "1 640x480 3");  // a fill byte
  EXPECT_EQ(scan("\xff\xd8" + segment(0xC4, "xx") + sof), "1 640x480 3");  // DHT is no frame
  EXPECT_EQ(scan("\xff\xd8" + segment(0xDA, "xx") + sof), "0 0x0 0");  // the scan came first
  EXPECT_EQ(scan("\xff\xd8" + sof.substr(0, 6)), "0 0x0 0");              // cut inside the frame header
  EXPECT_EQ(scan("\x89PNG"), "0 0x0 0");
  test::TempDir dir;  // from a file, the frame header past the first read
  test::WriteFile(dir / "big-exif.jpg", "\xff\xd8" + segment(0xE1, std::string(30000, 'e')) + sof + "scan");
  const safe_fs::Fd fd(open((dir / "big-exif.jpg").c_str(), O_RDONLY));
  const JpegFacts f = ScanJpegFd(fd.get());
  EXPECT_TRUE(f.ok && f.width == 640 && f.height == 480);
  EXPECT_EQ(store::ReadImageFacts(fd.get()).mime + " " + std::to_string(store::ReadImageFacts(fd.get()).width), "image/jpeg 640");
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb
