// The kovathumb program as a user runs it: its version, arguments, reports
// and reasons, and the pkg-config file of a Debian-style install; what the
// library does with them is pinned by the library's tests.
#include <sys/stat.h>

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
                           "info --keep-preview a.jpg"}) {
    EXPECT_EQ(Cli(args).status, 2) << args;
  }
  for (const std::string sub : {"make", "index"}) {
    r = Cli(sub + " --sizes small,huge /no/such/tree");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("not a thumbnail size: huge"), std::string::npos) << sub << ": " << r.err;
  }
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
  EXPECT_EQ(r.lines[0]["mime"], "image/jpeg");
  EXPECT_EQ(r.lines[0]["rotate"], 3);
  EXPECT_EQ(r.lines[0]["target"], json({120, 120}));
  EXPECT_EQ(r.lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_S_r3.jpg");
  EXPECT_FALSE(test::Exists(r.lines[0]["preview"].get<std::string>()));
  EXPECT_EQ(r.lines[1]["error"]["code"], 601);
  EXPECT_EQ(r.lines[1]["error"]["what"], dir / "gone.jpg" + ": No such file or directory");
  EXPECT_EQ(r.lines[2]["error"]["what"], dir.path() + ": is a directory");
  r = Cli("info --box 100x50 --user-rotate 1 --preview --keep-preview " + Quote(jpg));
  EXPECT_TRUE(r.lines[0]["names"]["pictavo"].is_null());
  EXPECT_EQ(r.lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_100x50.jpg");  // 3 + 1 turns: none
  EXPECT_TRUE(test::Exists(r.lines[0]["preview"].get<std::string>()));
  unlink(r.lines[0]["preview"].get<std::string>().c_str());
}

TEST(CliTest, ConvertGetMakeAndImport) {
  test::TempDir dir;
  const std::string src = dir / "p.jpg", ea = dir.path() + "/.kovaea/p.jpg";
  test::MakePhoto(src, 2000, 1500);
  Result r = Cli("convert djpeg --size medium " + Quote(src) + " " + Quote(dir / "t.jpg"));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.lines.at(0)["argv"][10], src);
  EXPECT_EQ(r.lines.at(0)["scale"], "1/4");
  EXPECT_EQ(r.lines.at(0)["convert_bytes"], 500u * 375u * 3u + 54u);
  test::MakePhoto(dir / "turned.jpg", 64, 48, 3);
  EXPECT_EQ(Cli("convert jpegtran " + Quote(dir / "turned.jpg") + " ''").out.compare(0, 2, "\xFF\xD8"), 0);
  EXPECT_EQ(Cli("convert convert " + Quote(dir / "missing.jpg") + " " + Quote(dir / "x.jpg")).status, 1);

  r = Cli("get 80x60 " + Quote(src));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(test::ParseResponse(r.out).headers["cache-control"], "max-age=300, must-revalidate");
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_80x60.jpg"));
  EXPECT_EQ(Cli("get --no-online big " + Quote(dir / "missing.jpg")).status, 1);
  EXPECT_EQ(Cli("get --no-online --dossiva medium " + Quote(src)).out, "");  // nothing to send
  // Size lists take commas; each file has its line.
  test::MakeImage(dir / "b.png", 300, 200);
  r = Cli("make --box 50x50 --sizes small,medium " + Quote(src) + " " + Quote(dir / "b.png"));
  ASSERT_EQ(r.lines.size(), 2u) << r.err;
  EXPECT_EQ(r.lines[0]["made"], 3);
  EXPECT_EQ(r.lines[1]["made"], 2);
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_50x50.jpg"));
  test::MakeImage(dir / "ready.jpg", 1280, 960);
  EXPECT_EQ(Cli("import --mtime 1234 " + Quote(src) + " large=" + Quote(dir / "ready.jpg")).lines.at(0)["ok"], true);
  struct stat st;
  ASSERT_EQ(stat((ea + "/KOVAFILE_THUMB_XL.jpg").c_str(), &st), 0);
  if (geteuid() == 0) {  // times are set as root only
    EXPECT_EQ(st.st_mtime, 1234);
  }
}

TEST(CliTest, FailuresSayWhy) {
  test::TempDir dir;
  test::WriteFile(dir / "broken.jpg", "not a photo at all");
  Result r = Cli("make --sizes small " + Quote(dir / "broken.jpg"));
  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(r.lines.size(), 1u) << r.out;
  EXPECT_EQ(r.lines[0]["failed"], 1);
  EXPECT_FALSE(r.lines[0].value("error", std::string()).empty()) << r.out;
  r = Cli("index --no-progress --sizes small " + Quote(dir.path()));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("failed: " + dir / "broken.jpg" + ": "), std::string::npos) << r.out;
}

// A /usr install with a multiarch library directory: the .pc file finds
// its headers and library wherever the tree is, here under a staging root.
TEST(CliTest, PkgConfigForADebianInstall) {
  test::TempDir dir;
  const std::string stage = dir / "stage";
  test::MustSh("cmake -S " + Quote(KOVATHUMB_SOURCE_DIR) + " -B " + Quote(dir / "b") +
               " -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib/x86_64-linux-gnu"
               " -DKOVATHUMB_BUILD_TESTS=OFF -DKOVATHUMB_BUILD_TOOLS=OFF -DKOVATHUMB_BUILD_BENCH=OFF >/dev/null");
  const std::string pcdir = stage + "/usr/lib/x86_64-linux-gnu/pkgconfig";
  test::MustSh("mkdir -p " + Quote(pcdir) + " && cp " + Quote(dir / "b/kovathumb.pc") + " " + Quote(pcdir));
  // The flags are made of these two.
  const std::string pc = "realpath -m $(PKG_CONFIG_PATH=" + Quote(pcdir) + " pkg-config --variable=";
  EXPECT_EQ(test::Capture(pc + "includedir kovathumb)"), stage + "/usr/include\n");
  EXPECT_EQ(test::Capture(pc + "libdir kovathumb)"), stage + "/usr/lib/x86_64-linux-gnu\n");
}

}  // namespace
}  // namespace kovathumb
