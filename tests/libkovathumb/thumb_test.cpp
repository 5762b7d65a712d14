// Requests end to end: real files, real tools, the real EA directory.
#include "kovathumb/thumb.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/fake_platform.h"
#include "support/response.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::CaptureStdout;
using test::ImageSize;
using test::LogCapture;
using test::ParseResponse;
using test::Quote;

constexpr char kCacheLine[] = "Cache-Control: max-age=300, must-revalidate\r\n";

// A photo whose JPEG outweighs its decoded estimate at every size, so that
// requests convert it.
void MakePhoto(const std::string& path, unsigned w = 1600, unsigned h = 1200) {
  test::MustSh("/usr/bin/convert -size " + std::to_string(w) + "x" + std::to_string(h) +
               " xc:gray +noise Random -quality 95 " + Quote(path));
}

void SetMtime(const std::string& path, time_t mtime) {
  struct utimbuf t = {mtime, mtime};
  utime(path.c_str(), &t);
}

std::vector<std::string> PreviewFiles() { return test::ListDir("/tmp", "thumb." + std::to_string(getpid()) + "."); }

class ThumbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake::Reset();
    src_ = dir_ / "photo.jpg";
    ea_ = dir_.path() + "/.kovaea/photo.jpg";
  }
  void TearDown() override { fake::Reset(); }
  // A stored thumbnail `name` of the source, as new as the source plus `age`.
  std::string Store(const std::string& name, unsigned w, unsigned h, long age = 0) {
    test::MustSh("mkdir -p " + Quote(ea_));
    const std::string path = ea_ + "/" + name;
    test::MakeImage(path, w, h, "xc:orange");
    struct stat st;
    stat(src_.c_str(), &st);
    SetMtime(path, st.st_mtime + age);
    return path;
  }
  test::Response Output(Thumb& thumb, const std::string& size, int* result) {
    return ParseResponse(CaptureStdout([&] { *result = thumb.Output(size); }));
  }
  std::string BodySize(const test::Response& r) {
    test::WriteFile(dir_ / "body", r.body);
    auto s = ImageSize(dir_ / "body");
    return std::to_string(s.first) + "x" + std::to_string(s.second);
  }

  test::TempDir dir_;
  std::string src_;
  std::string ea_;
};

TEST_F(ThumbTest, ConvertsStoresAndSendsAnUprightThumbnail) {
  MakePhoto(src_);
  test::SetExif(src_, "Exif.Image.Orientation", "6");
  SetMtime(src_, 1600000000);
  Thumb thumb(src_, 0, false);
  int result = 0;
  test::Response r = Output(thumb, "big", &result);
  EXPECT_NE(result, 0);
  EXPECT_EQ(r.raw.compare(0, strlen(kCacheLine), kCacheLine), 0);
  EXPECT_EQ(r.headers["Content-Type"], "image/jpeg");
  EXPECT_EQ(r.headers["Content-Length"], std::to_string(r.body.size()));
  EXPECT_EQ(BodySize(r), "480x640");
  EXPECT_EQ(thumb.GetOutputType(), "Dossiva");
  EXPECT_EQ(thumb.GetOutputFile(), ea_ + "/KOVAFILE_THUMB_B_r1.jpg");

  // Stored as root, mode 0777, access time 0 and the source's modification
  // time (checked before anything reads it).
  Thumb medium(src_, 0, false);
  ASSERT_FALSE(medium.CalcOutputFile("medium").empty());
  struct stat st;
  ASSERT_EQ(stat((ea_ + "/KOVAFILE_THUMB_M_r1.jpg").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_gid, 0u);
  EXPECT_EQ(st.st_mode & 07777, 0777u);
  EXPECT_EQ(st.st_atime, 0);
  EXPECT_EQ(st.st_mtime, 1600000000);
  // Nothing else is left in the EA directory, /tmp or /var/tmp.
  EXPECT_EQ(test::ListDir(ea_, "KOVAFILETMP").size(), 0u);
  EXPECT_TRUE(PreviewFiles().empty());
}

TEST_F(ThumbTest, UpToDateStoredThumbnailsAreServedWithoutConversion) {
  MakePhoto(src_);
  struct Case {
    int options;
    std::string name;
    std::string type;
  };
  for (const Case& c : {Case{1, "KOVAPHOTO_THUMB_B.jpg", "Pictavo"}, Case{1, "KOVAPHOTO:THUMB_B.jpg", "Pictavo"},
                        Case{2, "KOVAFILE_THUMB_B.jpg", "Dossiva"}, Case{32, "KOVAAVATAR_640x640.jpg", "Dossiva"},
                        Case{1 | 32, "KOVAAVATAR_640x640.jpg", "Dossiva"}}) {
    const std::string stored = Store(c.name, 64, 48);
    if (c.options == (1 | 32)) Store("KOVAPHOTO_THUMB_B.jpg", 64, 48);  // never tried for avatars
    fake::Reset();
    Thumb thumb(src_, c.options, false);
    int result = 0;
    test::Response r = Output(thumb, "big", &result);
    EXPECT_NE(result, 0) << c.name;
    EXPECT_EQ(thumb.GetOutputFile(), stored) << c.options;
    EXPECT_EQ(thumb.GetOutputType(), c.type);
    EXPECT_EQ(BodySize(r), "64x48");
    EXPECT_TRUE(fake::State().exec_calls.empty()) << c.name;
    test::MustSh("rm -rf " + Quote(ea_));
  }
  // Older than the source: not used; without on-line conversion nothing is.
  Store("KOVAPHOTO_THUMB_B.jpg", 64, 48, -10);
  Thumb stale(src_, 1 | 4, false);
  EXPECT_EQ(stale.CalcOutputFile("big"), "");
  EXPECT_EQ(stale.GetOutputFile(), "");
}

TEST_F(ThumbTest, OriginalSizeAndSmallSources) {
  test::MakeImage(src_, 320, 240);
  Thumb thumb(src_, 0, false);
  int result = 0;
  test::Response r = Output(thumb, "original", &result);
  EXPECT_NE(result, 0);
  EXPECT_EQ(thumb.GetOutputType(), "Original");
  EXPECT_EQ(r.body, test::ReadFile(src_));

  // A small turned JPEG: conversion would not make it smaller.
  const std::string small = dir_ / "small.jpg";
  test::MakeImage(small, 640, 480);
  test::SetExif(small, "Exif.Image.Orientation", "6");
  Thumb smallThumb(small, 0, false);
  r = Output(smallThumb, "small", &result);
  EXPECT_NE(result, 0);
  EXPECT_EQ(smallThumb.GetOutputType(), "Original");
  EXPECT_EQ(r.body, test::ReadFile(small));

  const std::string tiff = dir_ / "scan.tif";
  test::MakeImage(tiff, 64, 64);
  Thumb tiffThumb(tiff, 0, false);
  EXPECT_EQ(CaptureStdout([&] { result = tiffThumb.Output("original"); }), "");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(CaptureStdout([&] { EXPECT_FALSE(tiffThumb.OutputOriginalImage()); }), "");
}

TEST_F(ThumbTest, FallbackOverSmallerSizesAndUnknownNames) {
  MakePhoto(src_);
  const std::string medium = Store("KOVAFILE_THUMB_M.jpg", 64, 48);
  Thumb fallback(src_, 2 | 4 | 64, false);
  EXPECT_EQ(fallback.CalcOutputFile("big"), medium);
  Thumb strict(src_, 2 | 4, false);
  EXPECT_EQ(strict.CalcOutputFile("big"), "");
  EXPECT_EQ(fallback.CalcOutputFile("__CUSTOM_SIZE__"), "");
  try {
    strict.Output("huge");
    FAIL();
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "map::at");
  }
}

TEST_F(ThumbTest, VideosNeverConvert) {
  const std::string clip = dir_ / "clip.mp4";
  test::WriteFile(clip, "video");
  Thumb thumb(clip, 0, false);
  int result = 1;
  EXPECT_EQ(CaptureStdout([&] { result = thumb.Output("big"); }), "");
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(fake::State().exec_calls.empty());

  test::MustSh("mkdir -p " + Quote(dir_.path() + "/.kovaea/clip.mp4"));
  const std::string shot = dir_.path() + "/.kovaea/clip.mp4/KOVAVIDEO_VIDEO_SCREENSHOT.jpg";
  test::MakeImage(shot, 64, 36);
  Thumb withShot(clip, 64, false);  // the fallback bit is ignored for videos
  EXPECT_EQ(withShot.CalcOutputFile("big"), shot);
  EXPECT_EQ(withShot.GetOutputType(), "Cinevo");
}

TEST_F(ThumbTest, UnwritableEADirectoryLeavesResultInVarTmp) {
  MakePhoto(src_);
  fake::State().fs_type = 12;
  Thumb thumb(src_, 0, false);
  const std::string out = thumb.CalcOutputFile("small");
  EXPECT_EQ(out.compare(0, 19, "/var/tmp/kovathumb_"), 0) << out;
  EXPECT_NE(out.find("/kovathumb_KOVAFILETMP_THUMB"), std::string::npos) << out;
  EXPECT_EQ(thumb.GetOutputType(), "DossivaVarTmp");
  EXPECT_GT(ImageSize(out).first, 0u);
  EXPECT_FALSE(test::Exists(ea_));
}

TEST_F(ThumbTest, MoveAcrossFileSystemsFallsBackToMv) {
  test::WriteFile(src_, "source");
  const std::string shm = "/dev/shm/kovathumb_test_mv_" + std::to_string(getpid()) + ".jpg";
  test::MakeImage(shm, 8, 8);
  const std::string thumbData = test::ReadFile(shm);
  Thumb thumb(src_, 0, false);
  ASSERT_TRUE(thumb.SaveThumbToEA(shm, dir_ / "stored.jpg", 1234));
  EXPECT_FALSE(test::Exists(shm));
  EXPECT_EQ(test::ReadFile(dir_ / "stored.jpg"), thumbData);
  ASSERT_EQ(fake::State().exec_calls.size(), 1u);  // into a private directory beside the destination
  const std::vector<std::string> mv = fake::State().exec_calls[0];
  EXPECT_EQ(std::vector<std::string>(mv.begin(), mv.begin() + 3), (std::vector<std::string>{"/bin/mv", "/bin/mv", shm}));
  EXPECT_EQ(mv[3].compare(mv[3].size() - 11, 11, "/stored.jpg"), 0) << mv[3];
  struct stat st;
  stat((dir_ / "stored.jpg").c_str(), &st);
  EXPECT_EQ(st.st_mtime, 1234);

  LogCapture log;
  EXPECT_FALSE(thumb.SaveThumbToEA(dir_ / "gone", dir_ / "x", 0));
  EXPECT_EQ(log.Count("\"Can not acess thumbnail '" + dir_.path() + "/gone'\\n\""), 1);
}

TEST_F(ThumbTest, StoringWithoutRootLogsTheGuardAndKeepsTheFile) {
  test::WriteFile(src_, "source");
  chmod(dir_.path().c_str(), 0777);
  pid_t pid = fork();
  if (pid == 0) {
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) _exit(90);
    LogCapture log;
    test::MakeImage(dir_ / "tmp.jpg", 8, 8);
    Thumb thumb(src_, 0, false);
    if (!thumb.SaveThumbToEA(dir_ / "tmp.jpg", dir_ / "stored.jpg", 0)) _exit(1);
    if (log.Count("libkovathumb.cpp:489 ERROR: IF_RUN_AS2(\"root\")") != 1) _exit(2);
    if (log.Count("libkovathumb.cpp:510 ERROR: IF_RUN_AS2(\"root\")") != 1) _exit(3);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  struct stat st;
  ASSERT_EQ(stat((dir_ / "stored.jpg").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 65534u);
  EXPECT_EQ(st.st_mode & 0777, 0777u);
}

TEST_F(ThumbTest, ConvertCountsSizesAndGoesOnAfterAnUnknownName) {
  MakePhoto(src_);
  LogCapture log;
  Thumb thumb(src_, 0, false);
  EXPECT_EQ(thumb.Convert({std::string("small"), std::string("huge"), std::string("big")}), 2);
  EXPECT_EQ(log.Count("libkovathumb.cpp:95 (Convert) \"Unknown Internal Error\""), 1);
  EXPECT_TRUE(test::Exists(ea_ + "/KOVAFILE_THUMB_S.jpg"));
  EXPECT_TRUE(test::Exists(ea_ + "/KOVAFILE_THUMB_B.jpg"));
  EXPECT_EQ(thumb.Convert({ThumbDimension{200, 100}}), 1);
  EXPECT_TRUE(test::Exists(ea_ + "/KOVAFILE_THUMB_200x100.jpg"));

  const std::string corrupt = dir_ / "corrupt.jpg";
  test::WriteFile(corrupt, std::string(5000, 'z'));
  Thumb broken(corrupt, 0, false);
  EXPECT_FALSE(broken.ConvertAll());
}

TEST_F(ThumbTest, ImportedThumbnailsMustHaveTheOutputType) {
  MakePhoto(src_, 800, 600);
  test::MakeImage(dir_ / "s.png", 120, 90);
  test::MakeImage(dir_ / "b.jpg", 640, 480);
  LogCapture log;
  Thumb thumb(src_, 0, false);
  EXPECT_FALSE(thumb.SaveExistingThumbsToEA({{"small", dir_ / "s.png"}, {"big", dir_ / "b.jpg"}}, 0, true));
  EXPECT_EQ(log.Count("Thumbnail has different mime type '" + dir_.path() + "/s.png'"), 1);
  EXPECT_FALSE(test::Exists(ea_ + "/KOVAFILE_THUMB_S.jpg"));
  EXPECT_TRUE(test::Exists(dir_ / "s.png"));
  EXPECT_TRUE(test::Exists(ea_ + "/KOVAFILE_THUMB_B.jpg"));
  EXPECT_FALSE(test::Exists(dir_ / "b.jpg"));
  EXPECT_TRUE(PreviewFiles().empty());
}

TEST_F(ThumbTest, OnlyGalleryThumbnailsAreTurnedForTheUser) {
  MakePhoto(src_, 800, 600);
  const std::string gallery = Store("KOVAPHOTO_THUMB_B.jpg", 64, 32);
  Thumb turned(src_, 1, false);
  turned.Rotate(1);
  int result = 0;
  test::Response r = Output(turned, "big", &result);
  EXPECT_NE(result, 0);
  EXPECT_EQ(BodySize(r), "32x64");
  EXPECT_EQ(r.headers.count("Content-Length"), 0u);  // streamed
  Thumb whole(src_, 1, false);
  whole.Rotate(4);  // a whole turn: the stored file as it is
  EXPECT_EQ(Output(whole, "big", &result).body, test::ReadFile(gallery));

  Store("KOVAFILE_THUMB_B_r1.jpg", 64, 32);
  Thumb dossiva(src_, 2, false);
  dossiva.Rotate(1);
  EXPECT_EQ(BodySize(Output(dossiva, "big", &result)), "64x32");
}

TEST_F(ThumbTest, EmbeddedPreviewBecomesTheThumbnail) {
  MakePhoto(src_);
  test::MakeImage(dir_ / "photo-thumb.jpg", 640, 480, "xc:green");
  test::MustSh("exiv2 -it " + Quote(src_));
  {
    Thumb thumb(src_, 0, false);
    EXPECT_EQ(thumb.CalcOutputFile("medium"), ea_ + "/KOVAFILE_THUMB_M.jpg");
    EXPECT_EQ(thumb.GetOutputType(), "Dossiva");
    EXPECT_TRUE(fake::State().exec_calls.empty());  // moved as it is
    EXPECT_EQ(ImageSize(ea_ + "/KOVAFILE_THUMB_M.jpg"), std::make_pair(640u, 480u));
    EXPECT_TRUE(PreviewFiles().empty());
  }
  test::SetExif(src_, "Exif.Image.Orientation", "6");
  {
    Thumb thumb(src_, 0, false);
    EXPECT_EQ(thumb.CalcOutputFile("medium"), ea_ + "/KOVAFILE_THUMB_M_r1.jpg");
    EXPECT_EQ(ImageSize(thumb.GetOutputFile()), std::make_pair(270u, 360u));
    EXPECT_TRUE(PreviewFiles().empty());
  }
  // A request answered by a stored thumbnail leaves the preview to the
  // destructor.
  {
    Thumb thumb(src_, 2, false);
    EXPECT_EQ(thumb.CalcOutputFile("medium"), ea_ + "/KOVAFILE_THUMB_M_r1.jpg");
    EXPECT_EQ(PreviewFiles().size(), 1u);
  }
  EXPECT_TRUE(PreviewFiles().empty());
}

}  // namespace
}  // namespace kovathumb
