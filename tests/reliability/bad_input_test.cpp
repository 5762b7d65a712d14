// Bad sources: each ends in a clear error or a correct thumbnail, never a
// crash, and leaves no temporary file behind.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <sstream>

#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"
#include "support/fake_platform.h"
#include "support/response.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

struct Outcome {
  bool crashed = false;   // killed by a signal
  int status = -1;        // exit status of `kovathumb get`
  std::string out;        // the response, if any
  std::vector<std::string> leftovers;
};

// Our temporary files: work files and intermediates in EA directories under
// `dir`, the preview of process `pid` in /tmp, ours in /var/tmp. Not
// counted: the intermediate "<work file>_<seconds>" that a failed djpeg
// leaves by the command's own rule (it deletes nothing when djpeg fails).
std::vector<std::string> Leftovers(const std::string& dir, pid_t pid) {
  std::vector<std::string> found;
  std::istringstream in(test::Capture("find " + Quote(dir) +
                                      " -path '*/.kovaea/*' \\( -name 'KOVAFILETMP*' -o -name '*_[0-9]*_[0-9]*' \\)"
                                      " ! -regex '.*/KOVAFILETMP_THUMB[^/]*\\.jpg_[0-9]+'"));
  for (std::string line; std::getline(in, line);) found.push_back(line);
  for (const std::string& n : test::ListDir("/tmp", "thumb." + std::to_string(pid) + ".")) found.push_back("/tmp/" + n);
  for (const std::string& n : test::ListDir("/var/tmp", "kovathumb_KOVAFILETMP_THUMB")) {
    if (n.find("_" + std::to_string(pid)) != std::string::npos) found.push_back("/var/tmp/" + n);
  }
  return found;
}

// `kovathumb get SIZE PATH` in a process of its own.
Outcome Get(const std::string& path, const std::string& size = "big") {
  test::TempDir out;
  const std::string file = out / "response";
  pid_t pid = fork();
  if (pid == 0) {
    freopen(file.c_str(), "w", stdout);
    freopen("/dev/null", "w", stderr);
    execl(KOVATHUMB_CLI, "kovathumb", "get", size.c_str(), path.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  Outcome o;
  o.crashed = WIFSIGNALED(status);
  o.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  o.out = test::ReadFile(file);
  o.leftovers = Leftovers(file::Dirname(path), pid);
  return o;
}

// A clear failure (no response at all, or a complete error response) or a
// complete image response; never a crash or a leftover.
void ExpectClean(const Outcome& o, const std::string& what) {
  EXPECT_FALSE(o.crashed) << what;
  EXPECT_TRUE(o.status == 0 || o.status == 1) << what << ": " << o.status;
  EXPECT_TRUE(o.leftovers.empty()) << what << ": " << o.leftovers.front();
  if (o.status == 0) {
    test::Response r = test::ParseResponse(o.out);
    EXPECT_TRUE(r.complete) << what;
    if (r.headers.count("Content-Length")) {
      EXPECT_EQ(r.headers["Content-Length"], std::to_string(r.body.size())) << what;
    }
  } else {
    EXPECT_TRUE(o.out.empty() || test::ParseResponse(o.out).complete) << what;
  }
}

class BadInputTest : public ::testing::Test {
 protected:
  test::TempDir dir_;
};

TEST_F(BadInputTest, EmptyTruncatedAndGarbageFilesFailCleanly) {
  for (const char* ext : kImageExtensions) {
    const std::string empty = dir_ / (std::string("empty.") + ext);
    test::WriteFile(empty, "");
    ExpectClean(Get(empty), empty);
    const std::string garbage = dir_ / (std::string("garbage.") + ext);
    std::string bytes(8000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
    test::WriteFile(garbage, bytes);
    Outcome o = Get(garbage);
    ExpectClean(o, garbage);
    EXPECT_EQ(o.status, 1) << garbage;
  }
  // Each kind cut in half.
  test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " + Quote(dir_ / "whole.jpg"));
  test::MakeImage(dir_ / "whole.png", 800, 600, "plasma:");
  test::MustSh("/usr/bin/convert -size 300x200 -delay 10 xc:red xc:blue " + Quote(dir_ / "whole.gif"));
  test::SetExif(dir_ / "whole.jpg", "Exif.Image.Orientation", "1");
  test::MustSh("heif-enc -q 30 " + Quote(dir_ / "whole.jpg") + " -o " + Quote(dir_ / "whole.heic") + " >/dev/null");
  for (const char* ext : {"jpg", "png", "gif", "heic"}) {
    const std::string whole = test::ReadFile(dir_ / (std::string("whole.") + ext));
    const std::string cut = dir_ / (std::string("cut.") + ext);
    test::WriteFile(cut, whole.substr(0, whole.size() / 2));
    ExpectClean(Get(cut), cut);
    ExpectClean(Get(cut, "small"), cut);
  }
}

TEST_F(BadInputTest, MisnamedFilesAreReadByContent) {
  test::MakeImage(dir_ / "src.png", 900, 600);
  test::MustSh("cp " + Quote(dir_ / "src.png") + " " + Quote(dir_ / "png.jpg"));
  test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " + Quote(dir_ / "jpeg.png"));
  for (const char* name : {"png.jpg", "jpeg.png"}) {
    Outcome o = Get(dir_ / name);
    ExpectClean(o, name);
    EXPECT_EQ(o.status, 0) << name;
    test::Response r = test::ParseResponse(o.out);
    test::WriteFile(dir_ / "body", r.body);
    EXPECT_GT(test::ImageSize(dir_ / "body").first, 0u) << name;
  }
}

// A PNG that declares 50 000 x 50 000 pixels in a few hundred bytes.
std::string PngBomb(const std::string& small) {
  std::string png = small;
  const size_t ihdr = png.find("IHDR");
  const uint32_t side = 50000;
  for (int i = 0; i < 2; ++i) {
    for (int b = 0; b < 4; ++b) png[ihdr + 4 + 4 * i + b] = static_cast<char>((side >> (24 - 8 * b)) & 0xFF);
  }
  uint32_t crc = 0xFFFFFFFFu;  // CRC-32 of type and data
  for (size_t i = ihdr; i < ihdr + 4 + 13; ++i) {
    crc ^= static_cast<unsigned char>(png[i]);
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  crc ^= 0xFFFFFFFFu;
  for (int b = 0; b < 4; ++b) png[ihdr + 17 + b] = static_cast<char>((crc >> (24 - 8 * b)) & 0xFF);
  return png;
}

// A progressive JPEG whose last scan is repeated thousands of times.
std::string ManyScans(const std::string& jpeg, int copies) {
  size_t last = jpeg.rfind("\xFF\xDA");
  const size_t eoi = jpeg.rfind("\xFF\xD9");
  const std::string scan = jpeg.substr(last, eoi - last);
  std::string out = jpeg.substr(0, eoi);
  for (int i = 0; i < copies; ++i) out += scan;
  return out + "\xFF\xD9";
}

TEST_F(BadInputTest, BombsAreBoundedAndGiveNoThumbnail) {
  test::MakeImage(dir_ / "small.png", 8, 8);
  const std::string bomb = dir_ / "bomb.png";
  test::WriteFile(bomb, PngBomb(test::ReadFile(dir_ / "small.png")));
  const auto start = std::chrono::steady_clock::now();
  Outcome o = Get(bomb);
  ExpectClean(o, "png bomb");
  EXPECT_EQ(o.status, 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));

  test::MustSh("/usr/bin/convert -size 400x300 plasma: -interlace Plane -quality 90 " + Quote(dir_ / "prog.jpg"));
  test::SetExif(dir_ / "prog.jpg", "Exif.Image.Orientation", "6");  // force a conversion
  const std::string scans = dir_ / "scans.jpg";
  test::WriteFile(scans, ManyScans(test::ReadFile(dir_ / "prog.jpg"), 3000));
  ExpectClean(Get(scans, "small"), "many scans");
}

TEST_F(BadInputTest, DirectoriesVanishingSourcesAndHardNames) {
  test::MustSh("mkdir " + Quote(dir_ / "album.jpg"));
  Outcome d = Get(dir_ / "album.jpg");
  ExpectClean(d, "directory");
  EXPECT_EQ(d.status, 1);

  // The source disappears (the opened file is still read whole) or is
  // overwritten by garbage (nothing is sent) after the probe and before the
  // tool runs.
  for (bool replace : {false, true}) {
    const std::string src = dir_ / "going.jpg";
    test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " + Quote(src));
    fake::Reset();
    fake::State().before_exec = [&](const std::vector<std::string>&) {
      replace ? test::WriteFile(src, std::string(3000, 'x')) : (void)unlink(src.c_str());
    };
    {
      Thumb thumb(src, 0, false);
      EXPECT_EQ(test::CaptureStdout([&] { EXPECT_EQ(thumb.Output("big") == 0, replace); }).empty(), replace);
    }
    fake::Reset();
    EXPECT_TRUE(Leftovers(dir_.path(), getpid()).empty()) << replace;
  }

  // Names no shell would survive, and a path of about 4 000 bytes.
  std::string deep = dir_.path();
  while (deep.size() < 3700) {
    deep += "/" + std::string(180, 'd');
    mkdir(deep.c_str(), 0755);
  }
  for (const std::string& name : {std::string("a b 'c' \"d\" $(touch pwned) `x`.jpg"), std::string("-dash.jpg"),
                                  std::string("new\nline.jpg"), std::string("caf\xE9\xFF.jpg"),
                                  deep.substr(dir_.path().size() + 1) + "/" + std::string(200, 'n') + ".jpg"}) {
    const std::string src = dir_ / name;
    test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 jpg:- > " + Quote(src));
    Outcome o = Get(src);
    ExpectClean(o, name.substr(0, 40));
    if (src.size() < 3000) {
      EXPECT_EQ(o.status, 0) << name;
    }
  }
  EXPECT_FALSE(test::Exists(dir_ / "pwned"));
}

}  // namespace
}  // namespace kovathumb
