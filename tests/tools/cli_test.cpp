// The kovathumb program as a user runs it: its version, arguments, reports
// and reasons; what the library does with them is pinned by its own tests.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

#include "kovathumb/version.h"
#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using nlohmann::json;
using test::Quote;

struct Result {
  int status;
  std::string out, err;
  std::vector<json> lines;  // standard output read as JSON lines
};

Result Cli(const std::string& args) {
  test::TempDir tmp;
  Result r{test::Sh(std::string(KOVATHUMB_CLI) + " " + args + " >" + Quote(tmp / "out") + " 2>" + Quote(tmp / "err")),
           test::ReadFile(tmp / "out"), test::ReadFile(tmp / "err"), {}};
  std::istringstream in(r.out);
  for (std::string line; std::getline(in, line);) r.lines.push_back(json::parse(line, nullptr, false));
  return r;
}

TEST(CliTest, VersionAndUsageMistakes) {
  EXPECT_STREQ(Version(), KOVATHUMB_VERSION_STRING);
  for (const char* flag : {"--version", "-V"}) EXPECT_EQ(Cli(flag).out, "kovathumb " KOVATHUMB_VERSION_STRING "\n");
  Result r = Cli("thumbs a.jpg");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("unknown subcommand 'thumbs'; the subcommands are: info, convert, get, make, import, index"),
            std::string::npos) << r.err;
  for (const char* args : {"info --size huge x.jpg", "info --box 0x5 x.jpg", "info", "get huge x.jpg",
                           "convert resize a b", "import x.jpg huge=y.jpg", "info --user-rotate 4 a.jpg",
                           "info --keep-preview a.jpg", "make --sizes small,huge /no/such/tree"}) {
    EXPECT_EQ(Cli(args).status, 2) << args;
  }
  EXPECT_NE(Cli("index --sizes small,huge /no/such/tree").err.find("not a thumbnail size: huge"), std::string::npos);
}

TEST(CliTest, InfoReportsFactsNamesPreviewAndReasons) {
  test::TempDir dir;
  const std::string jpg = dir / "a b.jpg";
  test::MakeImage(jpg, 800, 600);
  test::SetExif(jpg, "Exif.Image.Orientation", "8");
  test::MakeImage(dir / "a b-thumb.jpg", 160, 120, "xc:blue");
  test::MustSh("exiv2 -it " + Quote(jpg));
  Result r = Cli("info --size small --preview " + Quote(jpg) + " " + Quote(dir / "gone.jpg") + " " + Quote(dir.path()));
  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(r.lines.size(), 3u);
  EXPECT_EQ(r.lines[0]["path"], jpg);
  EXPECT_EQ(r.lines[0]["rotate"], 3);
  EXPECT_EQ(r.lines[0]["target"], json({120, 120}));
  EXPECT_EQ(r.lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_S_r3.jpg");
  EXPECT_FALSE(test::Exists(r.lines[0]["preview"].get<std::string>()));
  EXPECT_EQ(r.lines[1]["error"]["code"], 601);
  EXPECT_EQ(r.lines[2]["error"]["what"], dir.path() + ": is a directory");
  r = Cli("info --box 100x50 --user-rotate 1 --preview --keep-preview " + Quote(jpg));
  EXPECT_EQ(r.lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_100x50.jpg");  // 3 + 1 turns: none
  EXPECT_EQ(unlink(r.lines[0]["preview"].get<std::string>().c_str()), 0);
}

TEST(CliTest, ConvertGetMakeImportAndWhyTheyFail) {
  test::TempDir dir;
  const std::string src = dir / "p.jpg", ea = dir.path() + "/.kovaea/p.jpg";
  test::MakePhoto(src, 2000, 1500);
  Result r = Cli("convert djpeg --size medium " + Quote(src) + " " + Quote(dir / "t.jpg"));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.lines.at(0)["scale"], "1/4");
  EXPECT_EQ(Cli("convert convert " + Quote(dir / "missing.jpg") + " " + Quote(dir / "x.jpg")).status, 1);
  EXPECT_EQ(test::ParseResponse(Cli("get 80x60 " + Quote(src)).out).status, 200);
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_80x60.jpg"));
  EXPECT_EQ(Cli("get --no-online big " + Quote(dir / "missing.jpg")).status, 1);
  EXPECT_EQ(Cli("get --no-online --dossiva medium " + Quote(src)).out, "");  // nothing to send
  test::MakeImage(dir / "b.png", 300, 200);
  test::WriteFile(dir / "broken.jpg", "not a photo at all");
  r = Cli("make --box 50x50 --sizes small,medium " + Quote(src) + " " + Quote(dir / "b.png") + " " + Quote(dir / "broken.jpg"));
  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(r.lines.size(), 3u) << r.err;
  EXPECT_EQ(r.lines[0]["made"], 3);
  EXPECT_EQ(r.lines[1]["made"], 2);
  EXPECT_EQ(r.lines[2]["failed"], 3);
  EXPECT_FALSE(r.lines[2].value("error", std::string()).empty()) << r.out;
  test::MakeImage(dir / "ready.jpg", 1280, 960);
  EXPECT_EQ(Cli("import " + Quote(src) + " large=" + Quote(dir / "ready.jpg")).lines.at(0)["ok"], true);
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_XL.jpg"));
  r = Cli("index --no-progress --sizes small " + Quote(dir.path()));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("failed: " + dir / "broken.jpg" + ": "), std::string::npos) << r.out;
}

}  // namespace
}  // namespace kovathumb
