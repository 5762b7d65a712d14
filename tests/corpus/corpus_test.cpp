// Real camera and phone files (../shared/corpus, listed in MANIFEST.tsv):
// what the probe reads, and what quality mode makes of every one of them.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <sstream>

#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

// Beside the project's root; KOVATHUMB_CORPUS names it from elsewhere.
std::string CorpusDir() {
  const char* dir = getenv("KOVATHUMB_CORPUS");
  return dir != nullptr ? dir : std::string(KOVATHUMB_SOURCE_DIR) + "/../shared/corpus";
}

// Exiv2 reads everything but the ISO media files (HEIF, AVIF) the same way
// as Debian's exiv2 command, which the manifest records. Every stored
// thumbnail is what its name says and fits its box; a file that can not be
// read leaves nothing behind. (Uprightness is pinned on made fixtures, where
// the expected picture is known.)
TEST(CorpusTest, ProbeAgreesWithExiv2AndQualityThumbnailsFit) {
  if (access((CorpusDir() + "/MANIFEST.tsv").c_str(), R_OK) != 0) GTEST_SKIP() << CorpusDir() << " is absent";
  int probed = 0;
  const std::map<char, unsigned> boxes = {{'S', 120}, {'M', 360}, {'B', 640}, {'X', 1280}};
  const std::map<std::string, std::string> formats = {{"jpg", "JPEG"}, {"png", "PNG"}, {"gif", "GIF"}};
  const std::string pid = std::to_string(getpid());
  test::TempDir dir;
  std::ifstream manifest(CorpusDir() + "/MANIFEST.tsv");
  std::string line;
  std::getline(manifest, line);  // the header
  while (std::getline(manifest, line)) {
    struct { std::string file, origin, mime, w, h; } row;
    std::istringstream fields(line);
    for (std::string* f : {&row.file, &row.origin, &row.mime, &row.w, &row.h}) std::getline(fields, *f, '\t');
    SCOPED_TRACE(row.file);
    const std::string base = row.file.substr(row.file.find('/') + 1), src = dir / base;
    test::MustSh("cp " + Quote(CorpusDir() + "/" + row.file) + " " + Quote(src));
    if (row.mime != "-" && row.file.rfind("heif/", 0) != 0 && row.mime != "image/avif") {
      try {
        ThumbInfo info(src, "small", {120, 120});
        info.ExtractImgInfo(false);
        EXPECT_EQ(info.GetMimeType() + " " + std::to_string(info.GetWidth()) + " " + std::to_string(info.GetHeight()),
                  row.mime + " " + row.w + " " + row.h);
        ++probed;
      } catch (const Error& e) {
        ADD_FAILURE() << e.what();
      }
    }
    try {  // as the web asks, then as make does; a clean error is an Error, and leaves nothing (checked below)
      Thumb request(src, kThumbOptQuality, false);
      if (!request.CalcOutputFile("big").empty() && request.IsNeedDelete()) unlink(request.GetOutputFile().c_str());
      Thumb(src, kThumbOptQuality, false).ConvertAll();
    } catch (const Error&) {}
    const std::string ea = dir.path() + "/.kovaea/" + base;
    for (const std::string& name : test::ListDir(ea)) {
      SCOPED_TRACE(name);
      ASSERT_EQ(name.rfind("KOVAFILE_THUMB_", 0), 0u) << "a leftover in the EA directory";
      const std::string path = ea + "/" + name, ext = name.substr(name.rfind('.') + 1);
      std::string format;
      unsigned w = 0, h = 0, box = boxes.at(name[15]);
      std::istringstream(test::Capture("/usr/bin/identify -format '%m %w %h\\n' " + Quote(path) + " 2>/dev/null")) >>
          format >> w >> h;
      EXPECT_EQ(format, formats.count(ext) ? formats.at(ext) : "?") << "stored as ." << ext;
      EXPECT_TRUE(w > 0 && w <= box && h > 0 && h <= box) << w << "x" << h << " for " << box;
    }
    EXPECT_EQ(test::Capture("ls \"$TMPDIR\" /tmp /var/tmp | grep " + pid), "") << "leftovers";
    test::MustSh("rm -rf " + Quote(dir.path()) + "/.kovaea " + Quote(src));
  }
  EXPECT_GT(probed, 30);
}

// After the appliance's index (djpeg's BMPs under JPEG names, boxes twice
// over), quality's index and a quality request judge every stored file
// alike; a second index, HEICs with an orientation among its files,
// makes nothing.
TEST(CorpusTest, AfterTheAppliancesIndexQualityIndexAndRequestsAgree) {
  if (access((CorpusDir() + "/MANIFEST.tsv").c_str(), R_OK) != 0) GTEST_SKIP() << CorpusDir() << " is absent";
  test::TempDir dir;
  const std::string cli = KOVATHUMB_CLI, c = CorpusDir() + "/";
  test::MustSh("cd " + Quote(dir.path()) + " && mkdir a && cp " + Quote(c + "heif/iphone_7.heic") + " " +
               Quote(c + "orientation/landscape_6.jpg") + " " + Quote(c + "jpeg/nikon_d90.jpg") + " " +
               Quote(c + "jpeg/canon_hdr.jpg") + " a/ && " + cli + " index --appliance --no-progress a >/dev/null; " +
               "cp -a a b && cp -a a before");
  const auto summary = [&](const std::string& tree) {
    return nlohmann::json::parse(test::Capture(cli + " index --json --no-progress " + Quote(dir / tree) + " | tail -n 1"));
  };
  EXPECT_GT(summary("a")["made"].get<int>(), 0);  // the BMPs and the oversized
  test::MustSh("cd " + Quote(dir / "b") + " && for f in *.*; do for s in xlarge large big medium small; do " + cli +
               " get --quality --dossiva $s \"$f\" >/dev/null; done; done");
  const std::string stored = "find . -path '*/.kovaea/*' -type f | sort";
  EXPECT_EQ(test::Capture("cd " + Quote(dir / "a") + " && " + stored), test::Capture("cd " + Quote(dir / "b") + " && " + stored));
  EXPECT_EQ(test::Capture("cd " + Quote(dir / "before") + " && for f in $(" + stored + "); do cmp -s $f ../a/$f; a=$?; " +
                          "cmp -s $f ../b/$f; [ $a = $? ] || echo $f; done"), "");
  EXPECT_TRUE(test::Exists(dir / "a/.kovaea/iphone_7.heic/KOVAFILE_THUMB_S_r1.jpg"));  // turned by its orientation
  const nlohmann::json again = summary("a");
  EXPECT_EQ(again["made"], 0) << again;
}

}  // namespace
}  // namespace kovathumb
