// The kovathumb program as a user runs it.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

struct CliRun {
  int status;
  std::string out;
};

CliRun Kovathumb(const std::string& args) {
  CliRun r;
  const std::string cmd = std::string(KOVATHUMB_CLI) + " " + args;
  FILE* p = popen(cmd.c_str(), "r");
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::vector<nlohmann::json> Lines(const std::string& out) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

TEST(CliInfoTest, ReportsFactsNamesAndErrors) {
  test::TempDir dir;
  const std::string jpg = dir / "a b.jpg";
  test::MakeImage(jpg, 400, 300);
  test::SetExif(jpg, "Exif.Image.Orientation", "8");
  CliRun r = Kovathumb("info --size small " + Quote(jpg) + " " + Quote(dir / "missing.jpg"));
  EXPECT_EQ(r.status, 1);
  auto lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0]["path"], jpg);
  EXPECT_EQ(lines[0]["mime"], "image/jpeg");
  EXPECT_EQ(lines[0]["rotate"], 3);
  EXPECT_EQ(lines[0]["flop"], false);
  EXPECT_EQ(lines[0]["target"], nlohmann::json({120, 120}));
  EXPECT_EQ(lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_S_r3.jpg");
  EXPECT_EQ(lines[1]["error"]["code"], 601);

  r = Kovathumb("info --box 100x50 --user-rotate 1 " + Quote(jpg));
  EXPECT_EQ(r.status, 0);
  lines = Lines(r.out);
  EXPECT_TRUE(lines[0]["names"]["pictavo"].is_null());
  EXPECT_EQ(lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_100x50.jpg");  // 3 + 1 turns: none
}

TEST(CliInfoTest, PreviewIsRemovedUnlessKept) {
  test::TempDir dir;
  const std::string jpg = dir / "cam.jpg";
  test::MakeImage(jpg, 800, 600);
  test::MakeImage(dir / "cam-thumb.jpg", 160, 120, "xc:blue");
  test::MustSh("exiv2 -it " + Quote(jpg));
  auto lines = Lines(Kovathumb("info --size small --preview " + Quote(jpg)).out);
  ASSERT_TRUE(lines[0]["preview"].is_string());
  EXPECT_FALSE(test::Exists(lines[0]["preview"]));
  lines = Lines(Kovathumb("info --size small --preview --keep-preview " + Quote(jpg)).out);
  ASSERT_TRUE(lines[0]["preview"].is_string());
  EXPECT_TRUE(test::Exists(lines[0]["preview"]));
  unlink(lines[0]["preview"].get<std::string>().c_str());
}

TEST(CliInfoTest, BadUsageExitsTwo) {
  EXPECT_EQ(Kovathumb("info --size huge x.jpg 2>/dev/null").status, 2);
  EXPECT_EQ(Kovathumb("info --box 0x5 x.jpg 2>/dev/null").status, 2);
  EXPECT_EQ(Kovathumb("info 2>/dev/null").status, 2);
  EXPECT_EQ(Kovathumb("frobnicate 2>/dev/null").status, 2);
}

TEST(CliConvertTest, RunsACommandAndReportsItsVector) {
  test::TempDir dir;
  const std::string src = dir / "p.jpg";
  test::MakeImage(src, 2000, 1500);
  test::SetExif(src, "Exif.Image.Orientation", "3");
  CliRun r = Kovathumb("convert djpeg --size medium " + Quote(src) + " " + Quote(dir / "t.jpg"));
  EXPECT_EQ(r.status, 0);
  auto j = Lines(r.out).at(0);
  EXPECT_EQ(j["ok"], true);
  EXPECT_EQ(j["argv"][0], "/usr/bin/djpeg");
  EXPECT_EQ(j["argv"][10], src);
  EXPECT_EQ(j["scale"], "1/4");
  EXPECT_EQ(j["convert_bytes"], 500u * 375u * 3u + 54u);
  EXPECT_EQ(test::ImageSize(dir / "t.jpg"), std::make_pair(360u, 270u));

  // jpegtran with an empty DST streams the JPEG; the report goes to stderr.
  r = Kovathumb("convert jpegtran " + Quote(src) + " '' 2>/dev/null");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.compare(0, 2, "\xFF\xD8"), 0);

  r = Kovathumb("convert convert " + Quote(dir / "missing.jpg") + " " + Quote(dir / "x.jpg") + " 2>/dev/null");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(Kovathumb("convert resize a b 2>/dev/null").status, 2);
}

TEST(CliRequestTest, GetMakeAndImport) {
  test::TempDir dir;
  const std::string src = dir / "photo.jpg";
  test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " + Quote(src));
  const std::string ea = dir.path() + "/.kovaea/photo.jpg";

  CliRun r = Kovathumb("get big " + Quote(src));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.compare(0, 45, "Cache-Control: max-age=300, must-revalidate\r\n"), 0);
  const size_t end = r.out.find("\r\n\r\n");
  ASSERT_NE(end, std::string::npos);
  test::WriteFile(dir / "body", r.out.substr(end + 4));
  EXPECT_EQ(test::ImageSize(dir / "body").first, 800u);  // decoded at 1/2, no second stage
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_B.jpg"));
  EXPECT_EQ(Kovathumb("get 80x60 " + Quote(src) + " >/dev/null").status, 0);
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_80x60.jpg"));
  EXPECT_EQ(Kovathumb("get huge " + Quote(src) + " 2>/dev/null").status, 2);
  EXPECT_EQ(Kovathumb("get --no-online big " + Quote(dir / "missing.jpg") + " 2>/dev/null").status, 1);
  // Nothing obtainable: no response at all.
  EXPECT_EQ(Kovathumb("get --no-online --dossiva medium " + Quote(src) + " 2>/dev/null").out, "");

  r = Kovathumb("make --sizes small,medium --box 50x50 " + Quote(src));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(Lines(r.out).at(0)["made"], 3);
  EXPECT_EQ(Lines(r.out).at(0)["failed"], 0);
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_50x50.jpg"));

  test::MakeImage(dir / "ready.jpg", 1280, 960);
  r = Kovathumb("import --mtime 1234 " + Quote(src) + " large=" + Quote(dir / "ready.jpg"));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(Lines(r.out).at(0)["ok"], true);
  struct stat st;
  ASSERT_EQ(stat((ea + "/KOVAFILE_THUMB_XL.jpg").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1234);
  EXPECT_EQ(Kovathumb("import " + Quote(src) + " huge=x.jpg 2>/dev/null").status, 2);
}

}  // namespace
}  // namespace kovathumb
