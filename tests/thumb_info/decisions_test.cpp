#include "thumb_info/decisions.h"

#include <gtest/gtest.h>

#include <string>

namespace kovathumb {
namespace internal {
namespace {

TEST(OrientationIndexTest, StandardTagThenMakerNotes) {
  const std::string one = "1", six = "6", eight = "8", zero = "0", nine = "9", junk = "x";
  EXPECT_EQ(OrientationIndex(nullptr, &eight), 0);  // no standard tag: maker notes unread
  EXPECT_EQ(OrientationIndex(&six, &eight), 5);     // standard tag other than 1 wins
  EXPECT_EQ(OrientationIndex(&one, &eight), 7);     // 1 defers to the maker note
  EXPECT_EQ(OrientationIndex(&one, nullptr), 0);
  EXPECT_EQ(OrientationIndex(&zero, nullptr), 0);
  EXPECT_EQ(OrientationIndex(&nine, nullptr), 0);
  EXPECT_EQ(OrientationIndex(&one, &nine), 0);
  const std::string spaced = " 3 (rotate)";
  EXPECT_EQ(OrientationIndex(&spaced, nullptr), 2);
  const std::string huge = "99999999999";
  for (const std::string* bad : {&junk, &huge}) {  // no number: no orientation, no exception
    EXPECT_EQ(OrientationIndex(bad, nullptr), 0);
    EXPECT_EQ(OrientationIndex(&one, bad), 0);
  }
}

TEST(ChoosePreviewTest, BoxRules) {
  const ThumbDimension box{320, 240};
  // 1920x1080 exceeds twice the box on both axes; 640x480 does not (not greater).
  EXPECT_EQ(ChoosePreview({{"image/jpeg", 160, 120}, {"image/jpeg", 640, 480},
                           {"image/jpeg", 1920, 1080}},
                          "image/jpeg", box),
            1);
  // Alone, 160x120 (19200) is below 0.75 of the box area (57600).
  EXPECT_EQ(ChoosePreview({{"image/jpeg", 160, 120}}, "image/jpeg", box), -1);
  // Too large on one axis only stays a candidate.
  EXPECT_EQ(ChoosePreview({{"image/jpeg", 1000, 200}}, "image/jpeg", box), 0);
  // Equal areas: the earlier stays.
  EXPECT_EQ(ChoosePreview({{"image/jpeg", 400, 300}, {"image/jpeg", 300, 400}}, "image/jpeg", box), 0);
  EXPECT_EQ(ChoosePreview({}, "image/jpeg", box), -1);
}

TEST(ChoosePreviewTest, CanonTiffSkippedAndUnlimitedBoxTakesLargest) {
  const ThumbDimension box{320, 240};
  EXPECT_EQ(ChoosePreview({{"image/tiff", 640, 480}, {"image/jpeg", 320, 240}},
                          "image/x-canon-cr2", box),
            1);
  EXPECT_EQ(ChoosePreview({{"image/tiff", 640, 480}}, "image/x-nikon-nef", box), 0);
  const ThumbDimension unlimited{2147483647, 2147483647};
  EXPECT_EQ(ChoosePreview({{"image/jpeg", 160, 120}, {"image/jpeg", 6000, 4000},
                           {"image/jpeg", 1616, 1080}},
                          "image/jpeg", unlimited),
            1);
}

TEST(TurnSumTest, WrapsInsteadOfOverflowing) {
  EXPECT_EQ(TurnSum(2147483647, 1), -2147483647 - 1);
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb
