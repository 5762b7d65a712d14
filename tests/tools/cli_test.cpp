// The kovathumb program as a user runs it: its version, arguments, reports
// and reasons, index over real trees; what the library does with them is
// pinned by its own tests.
#include <algorithm>
#include <signal.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>

#include "kovathumb/version.h"
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
  for (const char* flag : {"--version", "-V"}) EXPECT_EQ(Cli(flag).out, "kovathumb " KOVATHUMB_VERSION_STRING "\n");
  Result r = Cli("thumbs a.jpg");
  EXPECT_TRUE(r.status == 2 && r.err.find("unknown subcommand 'thumbs'; the subcommands are: info, convert, get, make, "
                                          "import, index") != std::string::npos) << r.err;
  for (const char* args : {"info --size huge x.jpg", "info --box 0x5 x.jpg", "info", "get huge x.jpg",
                           "convert resize a b", "import x.jpg huge=y.jpg", "info --user-rotate 4 a.jpg", "convert --user-rotate -4 djpeg a b", "get --rotate 4 big a.jpg",
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
  const json& l = r.lines[0];
  EXPECT_EQ(json({l["path"], l["rotate"], l["target"], l["names"]["dossiva"]}), json({jpg, 3, {120, 120}, "KOVAFILE_THUMB_S_r3.jpg"}));
  EXPECT_FALSE(test::Exists(l["preview"].get<std::string>()));
  EXPECT_EQ(r.lines[1]["error"]["code"].dump() + " " + r.lines[2]["error"]["what"].get<std::string>(),
            "601 " + dir.path() + ": is a directory");
  r = Cli("info --box 100x50 --user-rotate 1 --preview --keep-preview " + Quote(jpg));
  EXPECT_EQ(r.lines[0]["names"]["dossiva"], "KOVAFILE_THUMB_100x50.jpg");  // 3 + 1 turns: none
  EXPECT_EQ(unlink(r.lines[0]["preview"].get<std::string>().c_str()), 0);
  r = Cli("info --size small --user-rotate -1 " + Quote(jpg));  // the library's, get's and the web's range
  EXPECT_EQ(r.lines.at(0)["names"]["dossiva"], "KOVAFILE_THUMB_S_r2.jpg");
}

TEST(CliTest, ConvertGetMakeImportAndWhyTheyFail) {
  test::TempDir dir;
  const std::string src = dir / "p.jpg", ea = dir.path() + "/.kovaea/p.jpg";
  test::MakePhoto(src, 2000, 1500);
  Result r = Cli("convert djpeg --size medium " + Quote(src) + " " + Quote(dir / "t.jpg"));
  EXPECT_EQ(json({r.status, r.lines.at(0)["scale"]}), json({0, "1/4"}));
  EXPECT_EQ(Cli("convert convert " + Quote(dir / "missing.jpg") + " " + Quote(dir / "x.jpg")).status, 1);
  EXPECT_TRUE(test::ParseResponse(Cli("get 80x60 " + Quote(src)).out).status == 200 && test::Exists(ea + "/KOVAFILE_THUMB_80x60.jpg"));
  EXPECT_EQ(Cli("get --no-online big " + Quote(dir / "missing.jpg")).status, 1);
  EXPECT_EQ(Cli("get --no-online --dossiva medium " + Quote(src)).out, "");  // nothing to send
  test::MakeImage(dir / "b.png", 300, 200);
  test::WriteFile(dir / "broken.jpg", "not a photo at all");
  r = Cli("make --box 50x50 --sizes small,medium " + Quote(src) + " " + Quote(dir / "b.png") + " " + Quote(dir / "broken.jpg"));
  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(r.lines.size(), 3u) << r.err;
  EXPECT_EQ(json({r.lines[0]["made"], r.lines[1]["made"], r.lines[2]["failed"]}), json({3, 2, 3}));
  EXPECT_FALSE(r.lines[2].value("error", std::string()).empty()) << r.out;
  test::MakeImage(dir / "ready.jpg", 1280, 960);
  EXPECT_EQ(Cli("import " + Quote(src) + " large=" + Quote(dir / "ready.jpg")).lines.at(0)["ok"], true);
  EXPECT_TRUE(test::Exists(ea + "/KOVAFILE_THUMB_XL.jpg"));
  test::MakeImage(dir / "ready.bmp", 640, 480);  // storable, but not the output type
  EXPECT_EQ(Cli("import --check-mime " + Quote(src) + " big=" + Quote(dir / "ready.bmp")).lines.at(0)["ok"], false);
  EXPECT_FALSE(test::Exists(ea + "/KOVAFILE_THUMB_B.jpg"));
  r = Cli("index --no-progress --sizes small " + Quote(dir.path()));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("failed: " + dir / "broken.jpg" + ": "), std::string::npos) << r.out;
}

pid_t StartIndex(const std::string& args, const std::string& out) { return test::StartCli("index --json " + args, out); }
json Summary(const std::string& out) { return json::parse(test::Capture("tail -n 1 " + Quote(out))); }

TEST(IndexTest, SecondRunConvertsNothingAndFailuresCostOneFile) {
  test::TempDir dir;
  const std::string tree = dir / "tree", out = dir / "out.json";
  test::MustSh("mkdir -p " + Quote(tree + "/sub") + " " + Quote(dir / "outside"));
  for (const char* photo : {"/a.jpg", "/sub/b.jpg"}) test::MakePhoto(tree + photo);
  test::MakeImage(tree + "/c.png", 900, 600);
  test::WriteFile(tree + "/garbage.jpg", std::string(5000, 'z'));
  test::MakePhoto(dir / "outside/o.jpg");
  // A clip in each container a video's name may stand for (H.263 in 3GP wants a CIF size).
  const char* clips[] = {"clip.mp4", "clip.mov", "clip.3gp", "clip.mkv", "clip.webm", "clip.avi", "clip.wmv",
                         "clip.flv", "clip.ogv", "clip.ts", "clip.m2ts", "clip.mpg", "clip.rm", "clip.m2v"};
  for (const std::string clip : clips) {
    const std::string rate = clip == "clip.mpg" || clip == "clip.m2v" ? "25" : "10";
    test::MustSh("ffmpeg -nostdin -v error -f lavfi -i testsrc=duration=1:size=352x288:rate=" + rate +
                 " -pix_fmt yuv420p " + Quote(tree + "/" + clip));
  }
  // An MP4 cut short: ffmpeg fails, and leaves no EA directory behind.
  test::WriteFile(tree + "/cut.mp4", test::ReadFile(tree + "/clip.mp4").substr(0, 400));
  ASSERT_EQ(symlink((dir / "outside/o.jpg").c_str(), (tree + "/out.jpg").c_str()), 0);
  ASSERT_EQ(symlink((dir / "outside").c_str(), (tree + "/outdir").c_str()), 0);
  EXPECT_EQ(test::WaitExit(StartIndex("-j 2 " + Quote(tree), out)), 1);
  const json first = Summary(out);
  EXPECT_EQ(first["files"], 19);  // the links out of the tree are not followed
  for (const std::string clip : clips) {
    EXPECT_EQ(test::ImageSize(tree + "/.kovaea/" + clip + "/KOVAVIDEO_VIDEO_SCREENSHOT.jpg"), std::make_pair(352u, 288u)) << clip;
  }
  EXPECT_GT(first["made"].get<int>(), 8);
  std::vector<std::string> failed = first["failed_files"];
  std::sort(failed.begin(), failed.end());
  EXPECT_EQ(failed, std::vector<std::string>({tree + "/cut.mp4", tree + "/garbage.jpg"}));
  EXPECT_FALSE(test::Exists(tree + "/.kovaea/cut.mp4"));
  EXPECT_TRUE(test::Exists(tree + "/sub/.kovaea/b.jpg/KOVAFILE_THUMB_B.jpg") && !test::Exists(dir / "outside/.kovaea"));
  EXPECT_EQ(test::WaitExit(StartIndex(Quote(tree), out)), 1);
  const json second = Summary(out);
  EXPECT_EQ(second["made"], 0);
  EXPECT_EQ(second["up_to_date"].get<int>(), first["made"].get<int>() + first["up_to_date"].get<int>());
  EXPECT_EQ(test::EALeftovers(tree), "");
}

TEST(IndexTest, AWorkerThatDiesCostsItsFileOnly) {
  test::TempDir dir;
  for (const char* n : {"a.jpg", "b.jpg", "c.jpg"}) test::MakePhoto(dir / n);
  const std::string out = dir / "out.json";
  pid_t index = StartIndex("-j 1 " + Quote(dir.path()), out), worker = 0;
  const std::string children = "/proc/" + std::to_string(index) + "/task/" + std::to_string(index) + "/children";
  for (int i = 0; i < 2000 && worker <= 0; ++i, usleep(2000)) std::ifstream(children) >> worker;
  ASSERT_GT(worker, 0);
  kill(worker, SIGKILL);   // the worker, whether or not it has its group yet
  kill(-worker, SIGKILL);  // and the tool it runs
  EXPECT_EQ(test::WaitExit(index), 1);
  const json summary = Summary(out);
  EXPECT_EQ(json({summary["files"], summary["failed"]}), json({3, 1}));
  EXPECT_NE(test::ReadFile(out).find("worker killed by signal 9"), std::string::npos);
}

// Slow tools that count how many of them run at once; Ctrl-C twice
// after the first result.
TEST(IndexRootTest, AtMostJWorkersAndAnInterruptStopsCleanly) {
  test::TempDir dir;
  const std::string tree = dir / "tree", out = dir / "out.json", running = dir / "running";
  test::MustSh("mkdir -p " + Quote(tree) + " " + Quote(running));
  // GIFs: JPEGs and PNGs are made without any tool.
  for (int i = 0; i < 5; ++i) test::MakeImage(tree + "/p" + std::to_string(i) + ".gif", 1600, 1200);
  // Sandboxed tools write nowhere of ours: each says on standard error when it starts and ends.
  const std::string slow = "echo + >&2; sleep 0.3; \"$REAL\" \"$@\"; s=$?; echo - >&2; exit $s\n";
  const int status = test::WithStandIns({{"/usr/bin/djpeg", slow}, {"/usr/bin/convert", slow}}, [&] {
    setenv("KOVATHUMB_LOG_STDERR", "1", 1);  // workers pass their tools' standard error on
    pid_t index = test::StartCli("index --json -j 2 " + Quote(tree), out, dir / "counts");
    for (int i = 0; i < 2500 && test::ReadFile(out).find('\n') == std::string::npos; ++i) usleep(10000);
    kill(index, SIGINT);  // after the first result; the second stops the files in hand
    usleep(50000);
    kill(index, SIGINT);
    return test::WaitExit(index);
  });
  if (status == test::kNoNamespace) GTEST_SKIP() << "needs root for a private mount namespace";
  EXPECT_EQ(status, 130);
  const std::string most = test::Capture("awk '/^[+]$/ { if (++n > m) m = n } /^-$/ { n-- } END { print m }' " +
                                         Quote(dir / "counts"));
  EXPECT_TRUE(most == "1\n" || most == "2\n") << test::ReadFile(dir / "counts");
  const json summary = Summary(out);  // interrupted, not failed
  EXPECT_TRUE(summary["interrupted"] == true && summary["done"].get<int>() < 5 && summary["failed"] == 0 &&
              !summary["interrupted_files"].empty()) << summary;
  EXPECT_EQ(test::EALeftovers(tree), "");
  // Nothing half-stored: every stored thumbnail is a whole image.
  std::istringstream stored(test::Capture("find " + Quote(tree) + " -path '*/.kovaea/*' -type f"));
  for (std::string f; std::getline(stored, f);) EXPECT_GT(test::ImageSize(f).first, 0u) << f;
}

}  // namespace
}  // namespace kovathumb
