// HEIF sources in quality mode: every file libheif reads, turned once.
#include <gtest/gtest.h>

#include "kovathumb/error.h"
#include "kovathumb/thumb_info.h"
#include "support/test_util.h"
#include "thumb_info/decisions.h"

namespace kovathumb {
namespace {

TEST(HeifQualityTest, ExifOrientationCountsOnlyWhereLibheifTurnedNothing) {
  const struct {
    int exif;
    uint32_t w, h, ispeW, ispeH;
    int index;
  } cases[] = {
      {6, 4032, 3024, 4032, 3024, 5},  // no irot: the Exif turn is ours to make
      {6, 3024, 4032, 4032, 3024, 0},  // libheif turned it already
      {8, 4032, 3024, 4032, 3024, 7},  {3, 4032, 3024, 4032, 3024, 0},
      {6, 100, 100, 100, 100, 0},      {0, 4032, 3024, 4032, 3024, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(internal::HeifOrientationIndex(c.exif, c.w, c.h, c.ispeW, c.ispeH), c.index) << c.exif;
  }
}

// A HEIF without metadata, named as cameras name them: 602 in the
// appliance behaviour, read in quality mode.
TEST(HeifQualityTest, HifWithoutExifIsReadInQualityModeOnly) {
  test::TempDir dir;
  test::MakeImage(dir / "a.png", 64, 48);
  test::MustSh("heif-enc -q 50 " + test::Quote(dir / "a.png") + " -o " + test::Quote(dir / "a.hif") +
               " >/dev/null");
  for (const bool quality : {false, true}) {
    ThumbInfo info(dir / "a.hif", "small", {120, 120});
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

}  // namespace
}  // namespace kovathumb
