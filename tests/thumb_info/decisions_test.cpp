#include "thumb_info/decisions.h"

#include <gtest/gtest.h>

#include <string>

namespace kovathumb {
namespace internal {
namespace {

TEST(OrientationIndexTest, StandardTagThenMakerNotes) {
  const std::string one = "1", six = "6", eight = "8", zero = "0", nine = "9", junk = "x", spaced = " 3 (rotate)";
  EXPECT_EQ(OrientationIndex(nullptr, &eight), 0);  // no standard tag: maker notes unread
  EXPECT_EQ(OrientationIndex(&six, &eight), 5);     // standard tag other than 1 wins
  EXPECT_EQ(OrientationIndex(&one, &eight), 7);     // 1 defers to the maker note
  using Tags = std::pair<const std::string*, const std::string*>;
  for (Tags c : {Tags{&one, nullptr}, Tags{&zero, nullptr}, Tags{&nine, nullptr}, Tags{&one, &nine}}) {
    EXPECT_EQ(OrientationIndex(c.first, c.second), 0) << *c.first;
  }
  EXPECT_EQ(OrientationIndex(&spaced, nullptr), 2);
  const std::string huge = "99999999999";
  for (const std::string* bad : {&junk, &huge}) {  // no number: no orientation, no exception
    EXPECT_EQ(OrientationIndex(bad, nullptr), 0);
    EXPECT_EQ(OrientationIndex(&one, bad), 0);
  }
  EXPECT_EQ(TurnSum(2147483647, 1), -2147483647 - 1);  // wraps instead of overflowing
}

TEST(ChoosePreviewTest, BoxRules) {
  using P = std::vector<PreviewProps>;
  const ThumbDimension box{320, 240}, unlimited{2147483647, 2147483647};
  struct Case {
    P previews;
    const char* mime;
    ThumbDimension box;
    int chosen;
  };
  const Case cases[] = {
      // 1920x1080 exceeds twice the box on both axes; 640x480 does not (not greater).
      {P{{"image/jpeg", 160, 120}, {"image/jpeg", 640, 480}, {"image/jpeg", 1920, 1080}}, "image/jpeg", box, 1},
      {P{{"image/jpeg", 160, 120}}, "image/jpeg", box, -1},  // below 0.75 of the box's area
      {P{{"image/jpeg", 1000, 200}}, "image/jpeg", box, 0},  // too large on one axis only
      {P{{"image/jpeg", 400, 300}, {"image/jpeg", 300, 400}}, "image/jpeg", box, 0},  // equal areas: the earlier
      {P{}, "image/jpeg", box, -1},
      {P{{"image/tiff", 640, 480}, {"image/jpeg", 320, 240}}, "image/x-canon-cr2", box, 1},  // Canon's TIFF skipped
      {P{{"image/tiff", 640, 480}}, "image/x-nikon-nef", box, 0},
      {P{{"image/jpeg", 160, 120}, {"image/jpeg", 6000, 4000}, {"image/jpeg", 1616, 1080}}, "image/jpeg", unlimited, 1},
  };
  for (const Case& c : cases) EXPECT_EQ(ChoosePreview(c.previews, c.mime, c.box), c.chosen) << &c - cases;
}

TEST(HeifOrientationIndexTest, ExifCountsOnlyWhereLibheifTurnedNothing) {
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
  for (const auto& c : cases) EXPECT_EQ(HeifOrientationIndex(c.exif, c.w, c.h, c.ispeW, c.ispeH), c.index) << c.exif;
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb
