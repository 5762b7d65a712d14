#include "thumb_info/decisions.h"

#include <gtest/gtest.h>

#include <string>

namespace kovathumb {
namespace internal {
namespace {

TEST(OrientationIndexTest, StandardTagThenMakerNotes) {
  // No standard tag: maker notes unread; a standard tag other than 1 wins;
  // 1 defers to the maker note; no number: no orientation, no exception.
  const std::string one = "1", six = "6", eight = "8", zero = "0", nine = "9", junk = "x", huge = "99999999999",
                    spaced = " 3 (rotate)";
  for (auto [tag, note, index] : {std::tuple(&six, &eight, 5), {&one, &eight, 7}, {&spaced, nullptr, 2}, {nullptr, &eight, 0},
                                  {&one, nullptr, 0}, {&zero, nullptr, 0}, {&nine, nullptr, 0}, {&one, &nine, 0},
                                  {&junk, nullptr, 0}, {&huge, nullptr, 0}, {&one, &junk, 0}, {&one, &huge, 0}}) {
    EXPECT_EQ(OrientationIndex(tag, note), index) << (tag ? *tag : "-") << " " << (note ? *note : "-");
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
  // Without irot the Exif turn is ours to make; otherwise libheif turned it already.
  for (auto [exif, w, h, ispeW, ispeH, index] :
       {std::tuple(6, 4032u, 3024u, 4032u, 3024u, 5), {6, 3024u, 4032u, 4032u, 3024u, 0}, {8, 4032u, 3024u, 4032u, 3024u, 7},
        {3, 4032u, 3024u, 4032u, 3024u, 0}, {6, 100u, 100u, 100u, 100u, 0}, {0, 4032u, 3024u, 4032u, 3024u, 0}}) {
    EXPECT_EQ(HeifOrientationIndex(exif, w, h, ispeW, ispeH), index) << exif << " " << w;
  }
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb
