// Requests end to end: real files, real tools, the real EA directory.
#include "kovathumb/thumb.h"

#include <utime.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "kovathumb/error.h"
#include "support/fake_platform.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using namespace test;
using Size = std::pair<unsigned, unsigned>;

std::vector<std::string> PreviewFiles() { return test::ListDir("/tmp", "thumb." + std::to_string(getpid()) + "."); }

class ThumbTest : public ::testing::Test {
 protected:
  void SetUp() override { fake::Reset(); }
  void TearDown() override { fake::Reset(); }
  // A stored thumbnail `name` of the source, as new as the source plus `age`.
  std::string Store(const std::string& name, unsigned w, unsigned h, long age = 0) {
    test::MustSh("mkdir -p " + Quote(ea_));
    test::MakeImage(ea_ + "/" + name, w, h, "xc:orange");
    const time_t mtime = test::Stat(src_).st_mtime + age;
    const struct utimbuf times = {mtime, mtime};
    utime((ea_ + "/" + name).c_str(), &times);
    return ea_ + "/" + name;
  }
  test::Response Output(Thumb& thumb, const std::string& size, int* result = nullptr) {
    return ParseResponse(CaptureStdout([&] {
      const int r = thumb.Output(size);
      if (result != nullptr) *result = r;
    }));
  }
  test::TempDir dir_;
  std::string src_ = dir_ / "photo.jpg";
  std::string ea_ = dir_.path() + "/.kovaea/photo.jpg";
};

TEST_F(ThumbTest, ConvertsStoresAndSendsAnUprightThumbnail) {
  test::MakePhoto(src_, 1600, 1200, 6);
  Thumb thumb(src_, 0, false);
  int result = 0;
  test::Response r = Output(thumb, "big", &result);
  EXPECT_TRUE(result != 0 && r.raw.compare(0, 45, "Cache-Control: max-age=300, must-revalidate\r\n") == 0);
  EXPECT_TRUE(r.headers["content-type"] == "image/jpeg" && r.headers["content-length"] == std::to_string(r.body.size()));
  EXPECT_EQ(BodySize(r.body), Size(480, 640));
  EXPECT_EQ(thumb.GetOutputType() + " " + thumb.GetOutputFile(), "Dossiva " + ea_ + "/KOVAFILE_THUMB_B_r1.jpg");
  EXPECT_TRUE(test::ListDir(ea_, "KOVAFILETMP").empty() && PreviewFiles().empty());
}

TEST_F(ThumbTest, UpToDateStoredThumbnailsAreServedWithoutConversion) {
  test::MakePhoto(src_);
  const std::tuple<int, const char*, const char*> cases[] = {
      {1, "KOVAPHOTO_THUMB_B.jpg", "Pictavo"}, {1, "KOVAPHOTO:THUMB_B.jpg", "Pictavo"},
      {2, "KOVAFILE_THUMB_B.jpg", "Dossiva"}, {32, "KOVAAVATAR_640x640.jpg", "Dossiva"},
      {1 | 32, "KOVAAVATAR_640x640.jpg", "Dossiva"}};
  for (const auto& [options, name, type] : cases) {
    const std::string stored = Store(name, 64, 48);
    if (options == (1 | 32)) Store("KOVAPHOTO_THUMB_B.jpg", 64, 48);  // never tried for avatars
    fake::Reset();
    Thumb thumb(src_, options, false);
    EXPECT_EQ(BodySize(Output(thumb, "big").body), Size(64, 48)) << name;
    EXPECT_TRUE(thumb.GetOutputFile() == stored && thumb.GetOutputType() == type && fake::State().exec_calls.empty()) << name;
    test::MustSh("rm -rf " + Quote(ea_));
  }
  // Older than the source: not used; without on-line conversion nothing is.
  Store("KOVAPHOTO_THUMB_B.jpg", 64, 48, -10);
  EXPECT_EQ(Thumb(src_, 1 | 4, false).CalcOutputFile("big"), "");
  // A smaller size stands in only when asked to.
  const std::string medium = Store("KOVAFILE_THUMB_M.jpg", 64, 48);
  Thumb fallback(src_, 2 | 4 | 64, false);
  EXPECT_EQ(fallback.CalcOutputFile("big"), medium);
  EXPECT_EQ(fallback.CalcOutputFile("__CUSTOM_SIZE__"), "");
  EXPECT_EQ(Thumb(src_, 2 | 4, false).CalcOutputFile("big"), "");
  // In quality mode only one within the box: the appliance's may be twice it.
  for (auto [w, served] : {std::pair(120u, true), {121u, false}, {240u, false}}) {
    const std::string small = Store("KOVAFILE_THUMB_S.jpg", w, w * 3 / 4);
    EXPECT_EQ(Thumb(src_, kThumbOptQuality | 2 | 4, false).CalcOutputFile("small") == small, served) << w;
  }
  // Larger than any thumbnail may be: none.
  Store("KOVAFILE_THUMB_B.jpg", 64, 48);
  setenv("KOVATHUMB_MAX_THUMB_BYTES", "100", 1);
  EXPECT_EQ(Thumb(src_, 2 | 4, false).CalcOutputFile("big"), "");
  unsetenv("KOVATHUMB_MAX_THUMB_BYTES");
  // Found before the probe: of two fresh turns the probe picks the source's
  // (orientation 6: "_r1"); the type sent is the name's.
  test::MakePhoto(dir_ / "six.jpg", 1600, 1200, 6);
  test::MakeImage(dir_ / "pic.png", 800, 600);
  const std::string six = dir_.path() + "/.kovaea/six.jpg/", png = dir_.path() + "/.kovaea/pic.png/";
  test::MustSh("mkdir -p " + Quote(six) + " " + Quote(png));
  for (const char* name : {"KOVAFILE_THUMB_B.jpg", "KOVAFILE_THUMB_B_r1.jpg"}) test::MakeImage(six + name, 64, 48);
  test::MakeImage(png + "KOVAFILE_THUMB_B.png", 64, 48);
  EXPECT_EQ(Thumb(dir_ / "six.jpg", 2 | 4, false).CalcOutputFile("big"), six + "KOVAFILE_THUMB_B_r1.jpg");
  Thumb pic(dir_ / "pic.png", 2 | 4, false);
  EXPECT_EQ(Output(pic, "big").headers["content-type"], "image/png");
  EXPECT_EQ(pic.GetOutputFile(), png + "KOVAFILE_THUMB_B.png");
  // A HEIF's turn differs between the behaviours: its stored file is not evidence before the probe.
  test::WriteFile(dir_ / "cut.heic", std::string("\0\0\0\x18" "ftypheic", 12) + std::string(500, 'x'));
  test::MustSh("mkdir -p " + Quote(dir_.path() + "/.kovaea/cut.heic"));
  test::MakeImage(dir_.path() + "/.kovaea/cut.heic/KOVAFILE_THUMB_B.jpg", 64, 48);
  std::string heif;
  try {
    heif = Thumb(dir_ / "cut.heic", kThumbOptQuality | 2 | 4, false).CalcOutputFile("big");
  } catch (const Error&) {
  }
  EXPECT_EQ(heif, "");
  EXPECT_THROW(Thumb(src_, 2 | 4, false).Output("huge"), std::out_of_range);
}

TEST_F(ThumbTest, OriginalsSmallSourcesAndVideos) {
  test::MakeImage(src_, 320, 240);
  test::MakeImage(dir_ / "small.jpg", 640, 480);
  test::SetExif(dir_ / "small.jpg", "Exif.Image.Orientation", "6");
  // A small turned JPEG: conversion would not make it smaller.
  for (auto [path, size] : {std::pair(src_, "original"), {dir_ / "small.jpg", "small"}}) {
    Thumb thumb(path, 0, false);
    EXPECT_EQ(Output(thumb, size).body, test::ReadFile(path)) << path;
    EXPECT_EQ(thumb.GetOutputType(), "Original");
  }
  for (const char* name : {"scan.tif", "clip.mp4"}) {
    test::MakeImage(dir_ / name, 64, 64);
    Thumb none(dir_ / name, 0, false);
    int result = 1;
    EXPECT_TRUE(Output(none, "original", &result).raw.empty() && result == 0) << name;
  }
  EXPECT_TRUE(fake::State().exec_calls.empty());  // videos never convert
  const std::string shot = dir_.path() + "/.kovaea/clip.mp4/KOVAVIDEO_VIDEO_SCREENSHOT.jpg";
  test::MustSh("mkdir -p " + Quote(dir_.path() + "/.kovaea/clip.mp4"));
  test::MakeImage(shot, 64, 36);
  Thumb withShot(dir_ / "clip.mp4", 64, false);  // the fallback bit is ignored for videos
  EXPECT_TRUE(withShot.CalcOutputFile("big") == shot && withShot.GetOutputType() == "Cinevo");
}

TEST_F(ThumbTest, UnwritableEADirectoryLeavesResultInVarTmp) {
  test::MakePhoto(src_);
  fake::State().fs_type = 12;
  Thumb thumb(src_, 0, false);
  const std::string out = thumb.CalcOutputFile("small");
  EXPECT_TRUE(out.compare(0, 19, "/var/tmp/kovathumb_") == 0 && out.find("/kovathumb_KOVAFILETMP_THUMB") != std::string::npos) << out;
  EXPECT_TRUE(thumb.GetOutputType() == "DossivaVarTmp" && ImageSize(out).first > 0 && !test::Exists(ea_));
}

TEST_F(ThumbTest, MoveAcrossFileSystemsFallsBackToMv) {
  test::WriteFile(src_, "source");
  const std::string shm = "/dev/shm/kovathumb_test_mv_" + std::to_string(getpid()) + ".jpg";
  test::MakeImage(shm, 8, 8);
  const std::string data = test::ReadFile(shm);
  Thumb thumb(src_, 0, false);
  ASSERT_TRUE(thumb.SaveThumbToEA(shm, dir_ / "stored.jpg", 1234));
  EXPECT_TRUE(!test::Exists(shm) && test::ReadFile(dir_ / "stored.jpg") == data);
  EXPECT_TRUE(fake::State().exec_calls.size() == 1u && fake::State().exec_calls[0][0] == "/bin/mv");
  LogCapture log;
  EXPECT_FALSE(thumb.SaveThumbToEA(dir_ / "gone", dir_ / "x", 0));
  EXPECT_EQ(log.Count("\"Can not acess thumbnail '" + dir_.path() + "/gone'\\n\""), 1);
}

TEST_F(ThumbTest, ConvertCountsSizesAndImportNeedsTheOutputType) {
  test::MakePhoto(src_);
  LogCapture log;
  Thumb thumb(src_, 0, false);
  EXPECT_EQ(thumb.Convert({std::string("small"), std::string("huge"), std::string("big")}), 2);
  EXPECT_EQ(log.Count("libkovathumb.cpp:95 (Convert) \"Unknown Internal Error\""), 1);
  EXPECT_EQ(thumb.Convert({ThumbDimension{200, 100}}), 1);
  EXPECT_TRUE(test::Exists(ea_ + "/KOVAFILE_THUMB_S.jpg") && test::Exists(ea_ + "/KOVAFILE_THUMB_200x100.jpg"));
  test::WriteFile(dir_ / "corrupt.jpg", std::string(5000, 'z'));
  EXPECT_FALSE(Thumb(dir_ / "corrupt.jpg", 0, false).ConvertAll());
  test::MakeImage(dir_ / "s.png", 120, 90);
  test::MakeImage(dir_ / "m.jpg", 320, 240);
  Thumb import(src_, 0, false);
  EXPECT_FALSE(import.SaveExistingThumbsToEA({{"small", dir_ / "s.png"}, {"medium", dir_ / "m.jpg"}}, 0, true));
  EXPECT_EQ(log.Count("Thumbnail has different mime type '" + dir_.path() + "/s.png'"), 1);
  EXPECT_TRUE(test::Exists(dir_ / "s.png") && test::Exists(ea_ + "/KOVAFILE_THUMB_M.jpg") && !test::Exists(dir_ / "m.jpg"));
  EXPECT_TRUE(PreviewFiles().empty());
}

// Every tool fails: the EA directory a request made goes again, one that
// already held a thumbnail stays.
TEST_F(ThumbTest, AFailedConversionLeavesNoEADirectoryOfItsOwn) {
  test::MakePhoto(src_, 1600, 1200);
  test::MakeImage(dir_ / "scan.tif", 900, 600);
  fake::State().exec_result = 1;
  for (const auto& [path, options] : {std::pair(src_, 0), {dir_ / "scan.tif", int{kThumbOptQuality}}}) {
    EXPECT_EQ(Thumb(path, options, false).Convert({std::string("big"), std::string("small")}), 0) << path;
    EXPECT_EQ(test::Capture("ls -A " + Quote(dir_ / ".kovaea")), "") << path;
  }
  Store("KOVAFILE_THUMB_M.jpg", 360, 270);
  EXPECT_EQ(Thumb(src_, 0, false).Convert({std::string("big")}), 0);
  EXPECT_EQ(test::ListDir(ea_), std::vector<std::string>{"KOVAFILE_THUMB_M.jpg"});
}

TEST_F(ThumbTest, OnlyGalleryThumbnailsAreTurnedForTheUser) {
  test::MakePhoto(src_, 800, 600);
  // A whole turn, or a file manager's thumbnail (already turned): the stored file as it is.
  for (auto [options, rotate, name, turned] : {std::tuple(1, 1, "KOVAPHOTO_THUMB_B.jpg", true),
                                               {1, 4, "KOVAPHOTO_THUMB_B.jpg", false}, {2, 1, "KOVAFILE_THUMB_B_r1.jpg", false}}) {
    const std::string stored = Store(name, 64, 32);
    Thumb thumb(src_, options, false);
    thumb.Rotate(rotate);
    test::Response r = Output(thumb, "big");
    EXPECT_EQ(BodySize(r.body), turned ? Size(32, 64) : Size(64, 32)) << name << rotate;
    EXPECT_EQ(r.body == test::ReadFile(stored), !turned) << name << rotate;
    EXPECT_EQ(r.headers.count("content-length"), turned ? 0u : 1u);  // turned: streamed
  }
  // Turned into more than a thumbnail can be (jpegtran's default tables
  // make 687 bytes of the 312 stored): nothing of it.
  setenv("KOVATHUMB_MAX_THUMB_BYTES", "400", 1);
  Thumb thumb(src_, 1, false);
  thumb.Rotate(1);
  test::Response cut = Output(thumb, "big");
  unsetenv("KOVATHUMB_MAX_THUMB_BYTES");
  EXPECT_TRUE(cut.headers["status"] == "500 Internal Server Error" && cut.body.size() < 400) << cut.raw.substr(0, 200);
}

TEST_F(ThumbTest, EmbeddedPreviewBecomesTheThumbnailTurnedAsAsked) {
  test::MakePhoto(src_);
  test::MakeImage(dir_ / "photo-thumb.jpg", 640, 480, "xc:green");
  test::MustSh("exiv2 -it " + Quote(src_) + " && cp " + Quote(src_) + " " + Quote(dir_ / "turn.jpg"));
  EXPECT_TRUE(Thumb(src_, kThumbOptStoredOnly, false).CalcOutputFile("medium").empty() && !test::Exists(ea_));
  {
    Thumb thumb(src_, 0, false);
    EXPECT_EQ(thumb.CalcOutputFile("medium"), ea_ + "/KOVAFILE_THUMB_M.jpg");
    EXPECT_TRUE(thumb.GetOutputType() == "Dossiva" && fake::State().exec_calls.empty());  // moved as it is
    EXPECT_EQ(ImageSize(ea_ + "/KOVAFILE_THUMB_M.jpg"), Size(640, 480));
  }
  {
    Thumb thumb(dir_ / "turn.jpg", 0, false);
    thumb.Rotate(1);  // the user's turn alone
    EXPECT_EQ(ImageSize(thumb.CalcOutputFile("medium")), Size(270, 360));
  }
  test::SetExif(src_, "Exif.Image.Orientation", "6");
  {
    Thumb thumb(src_, 0, false);
    EXPECT_EQ(thumb.CalcOutputFile("medium"), ea_ + "/KOVAFILE_THUMB_M_r1.jpg");
    EXPECT_TRUE(ImageSize(thumb.GetOutputFile()) == Size(270, 360) && PreviewFiles().empty());
  }
  Thumb stored(src_, 2, false);  // answered from the store: the preview is never read
  EXPECT_TRUE(stored.CalcOutputFile("medium") == ea_ + "/KOVAFILE_THUMB_M_r1.jpg" && PreviewFiles().empty());
  // A look in the store, then the request going on: one probe between
  // them, its facts (the source rewritten upright since keeps its first
  // name) and its failure alike.
  Thumb looked(src_, kThumbOptStoredOnly | 2, false);
  EXPECT_EQ(looked.CalcOutputFile("medium"), ea_ + "/KOVAFILE_THUMB_M_r1.jpg");
  test::MakePhoto(dir_ / "upright.jpg");
  test::MustSh("touch -r " + Quote(src_) + " " + Quote(dir_ / "t") + " && cat " + Quote(dir_ / "upright.jpg") + " > " +
               Quote(src_) + " && touch -r " + Quote(dir_ / "t") + " " + Quote(src_));
  looked.SetOption(2);
  EXPECT_EQ(looked.CalcOutputFile("medium"), ea_ + "/KOVAFILE_THUMB_M_r1.jpg");
  test::WriteFile(dir_ / "tiny.jpg", "garbage");
  LogCapture log;
  Thumb bad(dir_ / "tiny.jpg", kThumbOptStoredOnly | 2, false);
  EXPECT_THROW(bad.CalcOutputFile("medium"), Error);
  bad.SetOption(2);
  EXPECT_THROW(bad.CalcOutputFile("medium"), Error);
  EXPECT_EQ(log.Count("(ExtractImgInfo) \"Exiv2 exception: E"), 1);
}

}  // namespace
}  // namespace kovathumb
