// The record's questions and names, on records filled by hand.
#include "kovathumb/thumb_info.h"
#include "kovathumb/thumb_const.h"

#include <utime.h>

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "store/fresh.h"
#include "store/ea.h"
#include "thumb_info/decisions.h"
#include "support/test_util.h"
#include "support/thumb_info_access.h"

namespace kovathumb {
namespace {

ThumbInfo Make(const std::string& mime, unsigned w, unsigned h, int rotate, const std::string& size,
               ThumbDimension box = {640, 640}, int userRotate = 0) {
  ThumbInfo info = ThumbInfoTestAccess::Make(mime, w, h, rotate, size, box);
  info.SetUserRotate(userRotate);
  return info;
}

TEST(ThumbInfoTest, TargetBoxTurnsWithOddRotationAndIsCapped) {
  for (auto [info, target] : {std::pair(Make("image/jpeg", 4000, 3000, 0, "__CUSTOM_SIZE__", {800, 600}), "800x600"),
                              {Make("image/jpeg", 4000, 3000, 0, "__CUSTOM_SIZE__", {800, 600}, 1), "600x800"},
                              {Make("image/jpeg", 4000, 3000, 0, "__CUSTOM_SIZE__", {800, 600}, -1), "600x800"},
                              {Make("image/jpeg", 4000, 3000, 1, "small", {320, 240}, -1), "320x240"},  // cancels out
                              {Make("image/jpeg", 500, 400, 0, "big", {800, 600}), "500x400"},
                              {Make("", 0, 0, 1, "big", {320, 240}), "240x320"}}) {
    EXPECT_EQ(info.GetXString(), target);
  }
}

TEST(ThumbInfoTest, NeedConvertAndOutputType) {
  for (auto [info, convert, ext] : {
           std::tuple(Make("image/jpeg", 4000, 3000, 1, "small", {320, 240}), true, ".jpg"),
           {Make("image/png", 300, 200, 0, "small", {320, 240}), false, ".png"},
           {Make("image/png", 300, 200, 0, "small", {320, 240}, 4), true, ".png"},  // a whole turn still counts
           {Make("image/jpeg", 1000, 1000, 0, "large", {1, 1}), false, ".jpg"},
           {Make("image/jpeg", 1280, 1280, 0, "large", {1, 1}), true, ".jpg"},
           {Make("image/x-ms-bmp", 100, 100, 0, "big"), false, ".jpg"},  // usable as it is, typed JPEG
           {Make("image/tiff", 10, 10, 0, "big"), true, ".jpg"},
           {Make("image/gif", 100, 100, 0, "big"), true, ".jpg"}}) {
    EXPECT_EQ(info.IsNeedConvert(), convert) << info.GetMimeType() << info.GetWidth();
    EXPECT_EQ(info.GetOutputExtension(), ext) << info.GetMimeType();
  }
  ThumbInfo gif = Make("image/gif", 100, 100, 0, "big");
  gif.SetEnableGIF(true);
  EXPECT_FALSE(gif.IsNeedConvert());
  EXPECT_EQ(gif.GetDossivaThumbEAName(), "KOVAFILE_THUMB_B.gif");
  gif.SetCropMode(true);
  EXPECT_EQ(gif.GetOutputExtension(), ".jpg");
}

TEST(ThumbInfoTest, NamesOfTheWorkedExamples) {
  const std::string pid = std::to_string(getpid());
  const ThumbInfo jpeg = Make("image/jpeg", 4000, 3000, 1, "big"), png = Make("image/png", 500, 500, 0, "xlarge"),
                  box = Make("image/jpeg", 4000, 3000, 1, "__CUSTOM_SIZE__", {320, 240});
  EXPECT_EQ(Make("image/jpeg", 9, 9, 1, "small").GetPictavoThumbEAName() + " " +
                Make("image/jpeg", 9, 9, 1, "xlarge").GetPictavoThumbEAName() + " " +
                Make("image/jpeg", 9, 9, 1, "medium").GetPictavoOldThumbEAName(),
            "KOVAPHOTO_THUMB_S.jpg KOVAPHOTO_THUMB_XL.jpg KOVAPHOTO:THUMB_M.jpg");
  EXPECT_EQ(jpeg.GetDossivaThumbEAName() + " " + box.GetDossivaThumbEAName() + " " + png.GetDossivaThumbEAName(),
            "KOVAFILE_THUMB_B_r1.jpg KOVAFILE_THUMB_240x320_r1.jpg KOVAFILE_THUMB_XL.png");
  EXPECT_EQ(jpeg.GetDossivaTmpThumbEAName() + " " + png.GetDossivaTmpThumbEAName(),
            "KOVAFILETMP_THUMB_r1_" + pid + ".jpg KOVAFILETMP_THUMB_" + pid + ".png");
  EXPECT_EQ(Make("image/jpeg", 4000, 3000, 1, "__CUSTOM_SIZE__", {120, 120}).GetAvatarThumbEAName() + " " +
                png.GetCinevoThumbEAName(), "KOVAAVATAR_120x120_r1.jpg KOVAVIDEO_VIDEO_SCREENSHOT.jpg");
  EXPECT_THROW((void)Make("image/jpeg", 9, 9, 0, "original").GetPictavoThumbEAName(), std::out_of_range);
  EXPECT_THROW((void)Make("image/jpeg", 9, 9, 0, "huge").GetDossivaThumbEAName(), std::out_of_range);
}

// Every name the library stores, built from records as requests fill them,
// reads back as what it was built from; nothing else is taken for ours.
TEST(StoreNamesTest, EveryStoredNameParsesBackAndNoOtherNameIsOurs) {
  std::set<std::string> names;
  for (const store::SizeRow& row : store::Sizes()) {
    const bool custom = *row.letter == '\0';  // "original" stands in for a request's own box
    for (const char* mime : {"image/jpeg", "image/png", "image/gif"}) {
      for (int rotate = 0; rotate <= 3; ++rotate) {
        for (int user = store::kMinUserRotate; user <= store::kMaxUserRotate; ++user) {
          ThumbInfo info = Make(mime, 4000, 3000, rotate, custom ? kSizeCustom : row.size, {320, 240}, user);
          info.SetEnableGIF(true);
          std::vector<std::pair<std::string, store::Scheme>> built = {
              {info.GetDossivaThumbEAName(), store::Scheme::kDossiva},
              {info.GetAvatarThumbEAName(), store::Scheme::kAvatar},
              {info.GetCinevoThumbEAName(), store::Scheme::kCinevo}};
          if (!custom) {
            built.push_back({info.GetPictavoThumbEAName(), store::Scheme::kPictavo});
            built.push_back({info.GetPictavoOldThumbEAName(), store::Scheme::kPictavoOld});
          }
          for (const auto& [name, scheme] : built) {
            store::StoredName parsed;
            ASSERT_TRUE(store::Parse(name, &parsed)) << name;
            EXPECT_EQ(store::Build(parsed), name);
            EXPECT_EQ(parsed.scheme, scheme) << name;
            EXPECT_EQ(store::Classify(name), parsed.box.width ? store::Stored::kBoxThumb : store::Stored::kThumb) << name;
            if (scheme == store::Scheme::kDossiva || scheme == store::Scheme::kAvatar) {
              EXPECT_EQ(parsed.turns, internal::TurnSum(rotate, user) % 4) << name;
              EXPECT_EQ(parsed.ext, info.GetOutputExtension()) << name;
            }
            names.insert(name);
          }
        }
      }
    }
  }
  // Four letters and the box, three types, turns -3..3, five schemes.
  EXPECT_EQ(names.size(), 4u * 3 * 2 + 5u * 3 * 7 + 3u * 7 + 1);
  for (const char* stranger : {"KOVAFILE_THUMB_S.jpg.bak", "KOVAFILE_THUMB_Q.jpg", "KOVAFILE_THUMB_x480.jpg",
                               "notes.txt", "KOVAFILE_THUMB_S_r4.jpg", "KOVAFILE_THUMB_S_r0.jpg",
                               "KOVAFILE_THUMB_S_r-0.jpg", "KOVAFILE_THUMB_0120x120.jpg", "KOVAFILE_THUMB_4294967296x1.jpg",
                               "KOVAFILE_THUMB_S.jpeg", "KOVAFILE_THUMB_L.jpg", "KOVAPHOTO_THUMB_S_r1.jpg",
                               "KOVAPHOTO_THUMB_64x64.jpg", "KOVAAVATAR_S.jpg", "KOVAVIDEO_VIDEO_SCREENSHOT.png",
                               "KOVAFILETMP_THUMB_r1_123.jpg", ".kovathumb-12.ab", "KOVAFILE_THUMB_", ""}) {
    store::StoredName n;
    EXPECT_FALSE(store::Parse(stranger, &n)) << stranger;
  }
  store::StoredName bad;  // a letter and a box at once, or a fourth turn: no name
  bad.letter = "S", bad.box = {10, 10};
  EXPECT_EQ(store::Build(bad), "");
  bad.box = {0, 0}, bad.turns = 4;
  EXPECT_EQ(store::Build(bad), "");
}

// One rule, two behaviours: the appliance takes any whole file as new as
// the source; quality also wants the type the name says, within its box.
TEST(StoreRuleTest, WhatServesEachBehaviour) {
  const auto file = [](const char* mime, uint32_t w, uint32_t h, time_t mtime = 100, off_t size = 10) {
    store::StoredFile f;
    f.regular = true, f.size = size, f.mtime = mtime, f.image = {mime, w, h};
    return f;
  };
  store::StoredFile fifo = file("image/jpeg", 100, 100);
  fifo.regular = false;
  const struct { const char* name; store::StoredFile f; bool appliance, quality; } cases[] = {
      {"KOVAFILE_THUMB_B.jpg", file("image/jpeg", 640, 427), true, true},
      {"KOVAFILE_THUMB_B.jpg", file("image/jpeg", 640, 427, 99), false, false},  // older than the source
      {"KOVAFILE_THUMB_B.jpg", file("image/jpeg", 640, 427, 100, 0), false, false},
      {"KOVAFILE_THUMB_B.jpg", fifo, false, false},
      {"KOVAFILE_THUMB_B.jpg", file("image/x-ms-bmp", 0, 0), true, false},  // djpeg's, under the JPEG name
      {"KOVAFILE_THUMB_B.jpg", file("image/jpeg", 1280, 853), true, false},  // twice the box
      {"KOVAFILE_THUMB_B.jpg", file("image/jpeg", 0, 0), true, false},       // no frame header
      {"KOVAFILE_THUMB_XL.jpg", file("image/jpeg", 1280, 853), true, true},  // "large" and "xlarge" alike
      {"KOVAFILE_THUMB_S_r-1.png", file("image/png", 120, 90), true, true},
      {"KOVAFILE_THUMB_S.png", file("image/jpeg", 120, 90), true, false},
      {"KOVAFILE_THUMB_240x320_r1.jpg", file("image/jpeg", 320, 240), true, true},  // the box before the turn
      {"KOVAFILE_THUMB_240x320_r1.jpg", file("image/jpeg", 240, 320), true, false},
      {"KOVAAVATAR_120x120.jpg", file("image/jpeg", 120, 120), true, true},
      {"KOVAVIDEO_VIDEO_SCREENSHOT.jpg", file("image/jpeg", 1280, 2000), true, true},  // no box
      {"KOVAVIDEO_VIDEO_SCREENSHOT.jpg", file("image/png", 10, 10), true, false},
  };
  for (const auto& c : cases) {
    store::StoredName n;
    ASSERT_TRUE(store::Parse(c.name, &n)) << c.name;
    EXPECT_EQ(store::Serves(n, c.f, 100, store::Behaviour::kAppliance), c.appliance) << c.name << c.f.image.width;
    EXPECT_EQ(store::Serves(n, c.f, 100, store::Behaviour::kQuality), c.quality) << c.name << c.f.image.width;
  }
}

TEST(ThumbInfoTest, UpToDateByWholeSecondsTimesCopiedAndSizeLow32Bits) {
  test::TempDir dir;
  const std::string src = dir / "src.jpg", thumb = dir / "thumb.jpg";
  test::WriteFile(src, "s");
  test::WriteFile(thumb, "t");
  struct utimbuf t = {1000, 2000};
  utime(src.c_str(), &t);
  ThumbInfo info(src, "big", {640, 640});
  EXPECT_FALSE(info.IsThumbUptoDate(dir / "missing"));  // older, empty or not regular: the rule's table above
  ASSERT_EQ(info.UpdateAMTime(thumb), 0);
  EXPECT_TRUE(info.IsThumbUptoDate(thumb) && test::Stat(thumb).st_atime == 1000 && test::Stat(thumb).st_mtime == 2000);
  EXPECT_EQ(info.UpdateAMTime(dir / "missing"), -1);
  const long long size = (5LL << 30) + 123;  // sparse: takes no disk
  ASSERT_EQ(truncate(src.c_str(), size), 0);
  EXPECT_EQ(ThumbInfo(src, "big", {640, 640}).GetFileSize(), static_cast<unsigned>(size & 0xFFFFFFFFLL));
}

using namespace internal;  // the decisions behind the record

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
  const struct { P previews; const char* mime; ThumbDimension box; int chosen; } cases[] = {
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
  for (const auto& c : cases) EXPECT_EQ(ChoosePreview(c.previews, c.mime, c.box), c.chosen) << &c - cases;
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
}  // namespace kovathumb
