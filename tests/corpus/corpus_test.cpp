// Real camera and phone files (../shared/corpus, listed in MANIFEST.tsv):
// what the probe reads, and what quality mode makes of every one of them.
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

constexpr int kQuality = 128;  // kThumbOptQuality

// Quarter turns that vipsthumbnail's result lacks: it keeps libheif's
// decoding, which ignores the Exif orientation of this file (it has no irot).
const std::map<std::string, int> kReferenceTurns = {{"heif/iphone_7.heic", 1}};

struct Row {
  std::string file, mime;
  unsigned width = 0, height = 0;
};

// Beside the project's root; KOVATHUMB_CORPUS names it from elsewhere.
std::string CorpusDir() {
  const char* dir = getenv("KOVATHUMB_CORPUS");
  return dir != nullptr ? dir : std::string(KOVATHUMB_SOURCE_DIR) + "/../shared/corpus";
}

std::vector<Row> Manifest() {
  std::vector<Row> rows;
  std::ifstream in(CorpusDir() + "/MANIFEST.tsv");
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    Row row;
    std::string origin, w, h;
    std::getline(fields, row.file, '\t'), std::getline(fields, origin, '\t');
    std::getline(fields, row.mime, '\t'), std::getline(fields, w, '\t'), std::getline(fields, h, '\t');
    if (w != "-") row.width = static_cast<unsigned>(std::stoul(w)), row.height = std::stoul(h);
    rows.push_back(row);
  }
  return rows;
}

#define KT_SKIP_WITHOUT_CORPUS()                                                      \
  if (access((CorpusDir() + "/MANIFEST.tsv").c_str(), R_OK) != 0)                    \
  GTEST_SKIP() << "no real files: " << CorpusDir() << " is absent"

// Exiv2 reads everything but the ISO media files (HEIF, AVIF) the same way
// as Debian's exiv2 command, which the manifest records.
TEST(CorpusTest, ProbeAgreesWithExiv2) {
  KT_SKIP_WITHOUT_CORPUS();
  int checked = 0;
  for (const Row& row : Manifest()) {
    if (row.mime == "-" || row.file.rfind("heif/", 0) == 0 || row.mime == "image/avif") continue;
    ThumbInfo info(CorpusDir() + "/" + row.file, "small", {120, 120});
    try {
      info.ExtractImgInfo(false);
    } catch (const Error& e) {
      ADD_FAILURE() << row.file << ": " << e.what();
      continue;
    }
    EXPECT_EQ(info.GetMimeType(), row.mime) << row.file;
    EXPECT_EQ(info.GetWidth(), row.width) << row.file;
    EXPECT_EQ(info.GetHeight(), row.height) << row.file;
    ++checked;
  }
  EXPECT_GT(checked, 30);
}

// Entries whose name holds our process number: the library's work files.
std::vector<std::string> OurFiles(const std::string& dir) {
  std::vector<std::string> ours;
  for (const std::string& name : test::ListDir(dir)) {
    if (name.find(std::to_string(getpid())) != std::string::npos) ours.push_back(dir + "/" + name);
  }
  return ours;
}

// Mean difference of two pictures as 16 x 16 grey images, 0 to 1; `b`
// turned by `turnB` quarter turns first.
double Difference(const std::string& a, const std::string& b, int turnB) {
  const std::string grey = " -colorspace gray -resize 16x16! ";
  return std::stod(test::Capture("/usr/bin/convert " + Quote(a) + grey + "\\( " + Quote(b) +
                                 " -rotate " + std::to_string(90 * turnB) + grey +
                                 "\\) -compose difference -composite -format '%[fx:mean]' info:"));
}

// Every stored thumbnail is what its name says, fits its box and is upright;
// a file that can not be read leaves nothing behind.
TEST(CorpusTest, QualityThumbnails) {
  KT_SKIP_WITHOUT_CORPUS();
  const std::map<char, unsigned> boxes = {{'S', 120}, {'M', 360}, {'B', 640}, {'X', 1280}};
  const std::map<std::string, std::string> formats = {{"jpg", "JPEG"}, {"png", "PNG"}, {"gif", "GIF"}};
  const char* tmpdir = getenv("TMPDIR");
  const std::vector<std::string> tmps = {tmpdir != nullptr ? tmpdir : "/tmp", "/tmp", "/var/tmp"};
  test::TempDir dir;
  for (const Row& row : Manifest()) {
    SCOPED_TRACE(row.file);
    const std::string base = row.file.substr(row.file.find('/') + 1);
    const std::string src = dir / base;
    test::MustSh("cp " + Quote(CorpusDir() + "/" + row.file) + " " + Quote(src));
    try {
      Thumb request(src, kQuality, false);  // as the web asks, then as make does
      if (!request.CalcOutputFile("big").empty() && request.IsNeedDelete()) {
        unlink(request.GetOutputFile().c_str());
      }
      Thumb thumb(src, kQuality, false);
      thumb.ConvertAll();
    } catch (const Error&) {
      // A clean error: an Error, and nothing left behind (checked below).
    }
    const std::string ea = dir.path() + "/.kovaea/" + base;
    const std::vector<std::string> stored = test::ListDir(ea);
    for (const std::string& name : stored) {
      SCOPED_TRACE(name);
      ASSERT_EQ(name.rfind("KOVAFILE_THUMB_", 0), 0u) << "a leftover in the EA directory";
      const std::string path = ea + "/" + name;
      const std::string ext = name.substr(name.rfind('.') + 1);
      const std::string facts = test::Capture("/usr/bin/identify -format '%m %w %h\\n' " + Quote(path) + " 2>/dev/null");
      std::istringstream in(facts);
      std::string format;
      unsigned w = 0, h = 0;
      in >> format >> w >> h;
      EXPECT_EQ(format, formats.count(ext) ? formats.at(ext) : "?") << "stored as ." << ext;
      const unsigned box = boxes.at(name[15]);
      EXPECT_TRUE(w > 0 && w <= box && h > 0 && h <= box) << w << "x" << h << " for " << box;
      if (name[15] != 'M' || format.empty()) continue;
      // Upright: the orientation samples against their upright "_1", the
      // rest against vipsthumbnail, which turns by the Exif orientation.
      std::string reference = CorpusDir() + "/" + row.file;
      const size_t sample = reference.find("orientation/");
      if (sample != std::string::npos) reference.replace(reference.rfind('_') + 1, 1, "1");
      const std::string vips = dir / "reference.jpg";
      // A broken file has no trustworthy reference.
      if (row.file.rfind("bad/", 0) == 0 ||
          test::Sh("/usr/bin/vipsthumbnail " + Quote(reference) + " -s 360 -o " + Quote(vips)) != 0) {
        continue;
      }
      const auto turns = kReferenceTurns.find(row.file);
      const int turn = turns == kReferenceTurns.end() ? 0 : turns->second;
      const auto ref = test::ImageSize(vips);
      EXPECT_EQ(w > h, (turn % 2 ? ref.second : ref.first) > (turn % 2 ? ref.first : ref.second));
      EXPECT_LT(Difference(path, vips, turn), 0.1) << "not upright";
    }
    for (const std::string& tmp : tmps) EXPECT_EQ(OurFiles(tmp), std::vector<std::string>()) << "leftover";
    test::MustSh("rm -rf " + Quote(dir.path()) + "/.kovaea " + Quote(src));
  }
}

}  // namespace
}  // namespace kovathumb
