// Quality mode end to end: real fixtures, real tools, the real EA directory.
#include <gtest/gtest.h>

#include "kovathumb/thumb.h"
#include "support/fake_platform.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Capture;
using test::Quote;

const std::string kIM = "/usr/bin/convert ";

// "jpeg", "png", "gif" or "" by the file's first bytes.
std::string ContentType(const std::string& path) {
  const std::string head = test::ReadFile(path).substr(0, 4);
  return head.compare(0, 3, "\xFF\xD8\xFF") == 0 ? "jpeg" : head == "\x89PNG" ? "png" : head == "GIF8" ? "gif" : "";
}

// Whether the point at fractions (fx, fy) of the size is near red (200, 40, 40)
// or, with `blue`, near blue.
bool Near(const std::string& path, double fx, double fy, bool blue = false) {
  std::string channels;
  for (const char* c : {".r", ".g", ".b"}) {
    channels += std::string(" %[fx:int(255*p{") + std::to_string(fx) + "*w," + std::to_string(fy) + "*h}" + c + ")]";
  }
  int r = -99, g = -99, b = -99;
  sscanf(Capture(kIM + Quote(path + "[0]") + " -format '" + channels + "' info:").c_str(), "%d %d %d", &r, &g, &b);
  return blue ? r < 24 && g < 24 && b > 231 : abs(r - 200) < 24 && abs(g - 40) < 24 && abs(b - 40) < 24;
}

struct Case {
  const char* name;
  const char* make;  // ImageMagick arguments writing the source (@ = its path)
  int orientation, userRotate, options;
  const char* size;
  const char* type;  // expected content, "original" for the source itself
  unsigned w, h;     // expected size
  double fx, fy;     // where red is expected
};

// An upright 400 x 300 picture: a red top-left quadrant on blue, stored
// turned so that orientation N shows it upright.
#define PHOTO "-size 400x300 xc:blue -fill 'rgb(200,40,40)' -draw 'rectangle 0,0 199,149' "
const Case kCases[] = {
    {"o1", PHOTO "-quality 95 @", 1, 0, 0, "medium", "jpeg", 360, 270, 0.25, 0.25},
    {"o2", PHOTO "-flop @", 2, 0, 0, "medium", "jpeg", 360, 270, 0.25, 0.25},
    {"o3", PHOTO "-rotate 180 @", 3, 0, 0, "medium", "jpeg", 360, 270, 0.25, 0.25},
    {"o4", PHOTO "-flip @", 4, 0, 0, "medium", "jpeg", 360, 270, 0.25, 0.25},
    {"o5", PHOTO "-transpose @", 5, 0, 0, "medium", "jpeg", 360, 270, 0.25, 0.25},
    {"o6+user", PHOTO "-rotate 270 @", 6, 1, 0, "medium", "jpeg", 270, 360, 0.75, 0.25},
    {"o7", PHOTO "-transverse @", 7, 0, 0, "medium", "jpeg", 360, 270, 0.25, 0.25},
    {"o8+user", PHOTO "-rotate 90 @", 8, 2, 0, "medium", "jpeg", 360, 270, 0.75, 0.75},
    {"cmyk", PHOTO "-colorspace CMYK @", 0, 0, 0, "small", "jpeg", 120, 90, 0.25, 0.25},
    {"adobe+o2", PHOTO "-flop -profile /usr/share/color/icc/colord/sRGB.icc -profile /usr/share/color/icc/colord/AdobeRGB1998.icc @",
     2, 0, 0, "small", "jpeg", 120, 90, 0.25, 0.25},
    {"png", PHOTO "-resize 800x600 png:@", 0, 0, 0, "medium", "png", 360, 270, 0.25, 0.25},
    {"png+alpha+o6", PHOTO "-rotate 270 -alpha set -channel A -evaluate set 50% +channel png:@", 6, 0, 0, "small", "png",
     120, 90, 0.25, 0.25},
    // ImageMagick's way: turned and converted to sRGB by its arguments.
    {"prophoto+o2", PHOTO "-flop -profile /usr/share/color/icc/colord/sRGB.icc -profile /usr/share/color/icc/colord/ProPhotoRGB.icc tiff:@",
     2, 0, 0, "small", "jpeg", 120, 90, 0.25, 0.25},
    {"gif", "-size 200x150 xc:blue -fill 'rgb(200,40,40)' -draw 'rectangle 0,0 99,74' "
            "\\( +clone -fill white -draw 'point 199,149' \\) -loop 0 gif:@",
     0, 0, kThumbOptEnableGIF, "small", "gif", 120, 90, 0.25, 0.25},
    {"fits", "-size 100x80 xc:'rgb(200,40,40)' @", 1, 0, 0, "medium", "original", 100, 80, 0.5, 0.5},
};

class QualityTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  void TearDown() override { fake::Reset(); }
  std::string Make(const std::string& name, std::string make, int orientation) {
    const std::string path = dir_ / name;
    make.replace(make.find('@'), 1, Quote(path));
    test::MustSh(kIM + make);
    if (orientation != 0) test::SetExif(path, "Exif.Image.Orientation", std::to_string(orientation));
    return path;
  }
  test::TempDir dir_;
};

TEST_F(QualityTest, ThumbnailsAreTheirTypeFitTheBoxUprightAndSrgb) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string type = c.type, make = c.make;
    const std::string ext = make.find("png:@") != std::string::npos    ? ".png"
                            : make.find("gif:@") != std::string::npos  ? ".gif"
                            : make.find("tiff:@") != std::string::npos ? ".tif"
                                                                       : ".jpg";
    const std::string src = Make(c.name + ext, make, c.orientation);
    fake::Reset();
    Thumb thumb(src, kThumbOptQuality | c.options, false);
    thumb.Rotate(c.userRotate);
    const std::string out = thumb.CalcOutputFile(c.size);
    ASSERT_FALSE(out.empty());
    // JPEGs (profiled and CMYK ones too) and PNGs are made in our own child; TIFFs and GIFs by the tools.
    const bool inProcess = (type == "jpeg" && ext == ".jpg") || type == "png";
    EXPECT_EQ(fake::State().exec_calls.empty(), inProcess || type == "original");
    EXPECT_EQ(thumb.GetOutputType(), type == "original" ? "Original" : "Dossiva");
    if (type == "original") {
      EXPECT_EQ(out, src);
      continue;
    }
    EXPECT_EQ(ContentType(out), type);
    // Asked again, the stored file is the answer: nothing is run or made.
    const ino_t made = test::Stat(out).st_ino;
    fake::Reset();
    thumb.SetOption(kThumbOptQuality | kThumbOptDossivaEA | c.options);
    EXPECT_TRUE(thumb.CalcOutputFile(c.size) == out && test::Stat(out).st_ino == made && fake::State().exec_calls.empty());
    // Still animated; no orientation tag left to turn it again.
    EXPECT_EQ(Capture("/usr/bin/identify -format '%w %h %[colorspace] %[orientation]\\n' " + Quote(out) + " | head -1"),
              std::to_string(c.w) + " " + std::to_string(c.h) + " sRGB Undefined\n");
    EXPECT_EQ(Capture("/usr/bin/identify " + Quote(out) + " | wc -l"), type == "gif" ? "2\n" : "1\n");
    EXPECT_TRUE(Near(out, c.fx, c.fy));
    EXPECT_TRUE(Near(out, 1 - c.fx, 1 - c.fy, true));
  }
}

TEST_F(QualityTest, PreviewsOfAnotherShapeAreNotUsedAndFiveSizesNeedNoTool) {
  // A 3:2 photo whose embedded preview is 4:3 and green: its bars or its
  // picture would show.
  const std::string src = Make("barred.jpg", PHOTO "-resize 1500x1000! -quality 95 @", 0);
  test::MustSh(kIM + "-size 160x120 xc:green " + Quote(dir_ / "barred-thumb.jpg") + " && exiv2 -it " + Quote(src));
  {
    Thumb thumb(src, kThumbOptQuality, false);
    const std::string out = thumb.CalcOutputFile("small");
    EXPECT_EQ(test::ImageSize(out), std::make_pair(120u, 80u));
    EXPECT_TRUE(Near(out, 0.25, 0.25));
  }
  test::MustSh("rm -rf " + Quote(dir_ / ".kovaea"));
  fake::Reset();
  ASSERT_TRUE(Thumb(src, kThumbOptQuality, false).ConvertAll());
  // Decoded, scaled and encoded in one child of ours: no tool at all.
  EXPECT_TRUE(fake::State().exec_calls.empty());
  const std::string ea = dir_.path() + "/.kovaea/barred.jpg/";
  const auto stored = test::ListDir(ea, "KOVAFILE_THUMB_");
  ASSERT_EQ(stored.size(), 4u);  // S, M, B and XL ("large" and "xlarge" share one)
  for (const std::string& name : stored) {
    EXPECT_EQ(ContentType(ea + name), "jpeg") << name;
    EXPECT_TRUE(Near(ea + name, 0.25, 0.25)) << name;
  }
  EXPECT_EQ(test::ImageSize(ea + "KOVAFILE_THUMB_XL.jpg"), std::make_pair(1280u, 853u));
  Thumb sizeBySize(src, kThumbOptQuality, false);  // one call a size, as make does
  ASSERT_EQ(sizeBySize.Convert({std::string("large")}), 1);
  const ino_t large = test::Stat(ea + "KOVAFILE_THUMB_XL.jpg").st_ino;
  EXPECT_EQ(sizeBySize.Convert({std::string("xlarge")}), 1);
  EXPECT_EQ(test::Stat(ea + "KOVAFILE_THUMB_XL.jpg").st_ino, large) << "encoded twice";
}

}  // namespace
}  // namespace kovathumb
