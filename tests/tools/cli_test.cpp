// The kovathumb program as a user runs it: its arguments and reports; what
// the library does with them is pinned by the library's tests.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

struct CliRun {
  int status;
  std::string out;
  std::vector<nlohmann::json> lines;
};

CliRun Kovathumb(const std::string& args, bool json = true) {
  CliRun r{-1, "", {}};
  FILE* p = popen((std::string(KOVATHUMB_CLI) + " " + args + " 2>/dev/null").c_str(), "r");
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::istringstream in(r.out);
  for (std::string line; json && std::getline(in, line);) r.lines.push_back(nlohmann::json::parse(line, nullptr, false));
  return r;
}

TEST(CliTest, InfoReportsFactsNamesPreviewAndErrors) {
  test::TempDir dir;
  const std::string jpg = dir / "a b.jpg";
  test::MakeImage(jpg, 800, 600);
  test::SetExif(jpg, "Exif.Image.Orientation", "8");
  test::MakeImage(dir / "a b-thumb.jpg", 160, 120, "xc:blue");
  test::MustSh("exiv2 -it " + Quote(jpg));
  CliRun r = Kovathumb("info --size small --preview " + Quote(jpg) + " " + Quote(dir / "missing.jpg"));
  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(r.lines.size(), 2u);
  EXPECT_EQ(r.lines[0]["path"], jpg);
  EXPECT_EQ(r.lines[0]["mime"], "image/jpeg");
  EXPECT_EQ(r.lines[0]["rotate"], 3);
  EXPECT_EQ(r.lines[0]["target"], nlohmann::json({120, 120}));
  EXPECT_EQ(r.lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_S_r3.jpg");
  EXPECT_FALSE(test::Exists(r.lines[0]["preview"].get<std::string>()));
  EXPECT_EQ(r.lines[1]["error"]["code"], 601);
  r = Kovathumb("info --box 100x50 --user-rotate 1 --preview --keep-preview " + Quote(jpg));
  EXPECT_TRUE(r.lines[0]["names"]["pictavo"].is_null());
  EXPECT_EQ(r.lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_100x50.jpg");  // 3 + 1 turns: none
  EXPECT_TRUE(test::Exists(r.lines[0]["preview"].get<std::string>()));
  unlink(r.lines[0]["preview"].get<std::string>().c_str());
}

TEST(CliTest, BadUsageExitsTwo) {
  for (const char* args : {"info --size huge x.jpg", "info --box 0x5 x.jpg", "info", "frobnicate", "get huge x.jpg",
                           "convert resize a b", "import x.jpg huge=y.jpg"}) {
    EXPECT_EQ(Kovathumb(args, false).status, 2) << args;
  }
}

TEST(CliTest, ConvertGetMakeAndImport) {
  test::TempDir dir;
  const std::string src = dir / "p.jpg", ea = dir.path() + "/.kovaea/p.jpg";
  test::MakePhoto(src, 2000, 1500);
  CliRun r = Kovathumb("convert djpeg --size medium " + Quote(src) + " " + Quote(dir / "t.jpg"));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.lines.at(0)["argv"][10], src);
  EXPECT_EQ(r.lines.at(0)["scale"], "1/4");
  EXPECT_EQ(r.lines.at(0)["convert_bytes"], 500u * 375u * 3u + 54u);
  test::MakePhoto(dir / "turned.jpg", 64, 48, 3);
  EXPECT_EQ(Kovathumb("convert jpegtran " + Quote(dir / "turned.jpg") + " ''", false).out.compare(0, 2, "\xFF\xD8"), 0);
  EXPECT_EQ(Kovathumb("convert convert " + Quote(dir / "missing.jpg") + " " + Quote(dir / "x.jpg")).status, 1);

  r = Kovathumb("get 80x60 " + Quote(src), false);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(test::ParseResponse(r.out).headers["cache-control"], "max-age=300, must-revalidate");
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_80x60.jpg"));
  EXPECT_EQ(Kovathumb("get --no-online big " + Quote(dir / "missing.jpg"), false).status, 1);
  EXPECT_EQ(Kovathumb("get --no-online --dossiva medium " + Quote(src), false).out, "");  // nothing to send
  r = Kovathumb("make --sizes small,medium --box 50x50 " + Quote(src));
  EXPECT_EQ(r.lines.at(0)["made"], 3);
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_50x50.jpg"));
  test::MakeImage(dir / "ready.jpg", 1280, 960);
  EXPECT_EQ(Kovathumb("import --mtime 1234 " + Quote(src) + " large=" + Quote(dir / "ready.jpg")).lines.at(0)["ok"],
            true);
  struct stat st;
  ASSERT_EQ(stat((ea + "/KOVAFILE_THUMB_XL.jpg").c_str(), &st), 0);
  if (geteuid() == 0) {  // times are set as root only
    EXPECT_EQ(st.st_mtime, 1234);
  }
}

}  // namespace
}  // namespace kovathumb
