// kovathumb index over real trees.
#include <signal.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>

#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

pid_t StartIndex(const std::string& args, const std::string& out) { return test::StartCli("index --json " + args, out); }
int Wait(pid_t pid) { return test::WaitExit(pid); }

nlohmann::json Summary(const std::string& out) {
  std::istringstream in(test::ReadFile(out));
  nlohmann::json last;
  for (std::string line; std::getline(in, line);) last = nlohmann::json::parse(line);
  return last;
}

TEST(IndexTest, SecondRunConvertsNothingAndFailuresCostOneFile) {
  test::TempDir dir;
  const std::string tree = dir / "tree", out = dir / "out.json";
  test::MustSh("mkdir -p " + Quote(tree + "/sub") + " " + Quote(dir / "outside"));
  test::MakePhoto(tree + "/a.jpg");
  test::MakePhoto(tree + "/sub/b.jpg");
  test::MakeImage(tree + "/c.png", 900, 600);
  test::WriteFile(tree + "/garbage.jpg", std::string(5000, 'z'));
  test::MakePhoto(dir / "outside/o.jpg");
  test::MustSh("ffmpeg -nostdin -v error -f lavfi -i testsrc=duration=1:size=320x240:rate=10 -pix_fmt yuv420p " +
               Quote(tree + "/clip.mp4"));
  ASSERT_EQ(symlink((dir / "outside/o.jpg").c_str(), (tree + "/out.jpg").c_str()), 0);
  ASSERT_EQ(symlink((dir / "outside").c_str(), (tree + "/outdir").c_str()), 0);
  EXPECT_EQ(Wait(StartIndex("-j 2 " + Quote(tree), out)), 1);
  const nlohmann::json first = Summary(out);
  EXPECT_EQ(first["files"], 5);  // the links out of the tree are not followed
  EXPECT_EQ(test::ImageSize(tree + "/.kovaea/clip.mp4/KOVAVIDEO_VIDEO_SCREENSHOT.jpg"), std::make_pair(320u, 240u));
  EXPECT_GT(first["made"].get<int>(), 8);
  EXPECT_EQ(first["failed_files"], nlohmann::json({tree + "/garbage.jpg"}));
  EXPECT_TRUE(test::Exists(tree + "/sub/.kovaea/b.jpg/KOVAFILE_THUMB_B.jpg"));
  EXPECT_FALSE(test::Exists(dir / "outside/.kovaea"));
  EXPECT_EQ(Wait(StartIndex(Quote(tree), out)), 1);
  const nlohmann::json second = Summary(out);
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
  EXPECT_EQ(Wait(index), 1);
  const nlohmann::json summary = Summary(out);
  EXPECT_EQ(summary["files"], 3);
  EXPECT_EQ(summary["failed"], 1);
  EXPECT_NE(test::ReadFile(out).find("worker killed by signal 9"), std::string::npos);
}

// Slow tools that count how many of them run at once; Ctrl-C twice
// after the first result.
TEST(IndexRootTest, AtMostJWorkersAndAnInterruptStopsCleanly) {
  test::TempDir dir;
  const std::string tree = dir / "tree", out = dir / "out.json", running = dir / "running";
  test::MustSh("mkdir -p " + Quote(tree) + " " + Quote(running));
  for (int i = 0; i < 5; ++i) test::MakePhoto(tree + "/p" + std::to_string(i) + ".jpg");
  const std::string slow = "touch " + Quote(running) + "/$$; ls " + Quote(running) + " | wc -l >>" +
                           Quote(dir / "counts") + "; sleep 0.3; \"$REAL\" \"$@\"; s=$?; rm " + Quote(running) +
                           "/$$; exit $s\n";
  const int status = test::WithStandIns({{"/usr/bin/djpeg", slow}, {"/usr/bin/convert", slow}}, [&] {
    pid_t index = StartIndex("-j 2 " + Quote(tree), out);
    for (int i = 0; i < 2500 && test::ReadFile(out).find('\n') == std::string::npos; ++i) usleep(10000);
    kill(index, SIGINT);  // after the first result; the second stops the files in hand
    usleep(50000);
    kill(index, SIGINT);
    return Wait(index);
  });
  if (status == test::kNoNamespace) GTEST_SKIP() << "needs root for a private mount namespace";
  EXPECT_EQ(status, 130);
  std::istringstream counts(test::ReadFile(dir / "counts"));
  int most = 0;
  for (int n; counts >> n;) most = std::max(most, n);
  EXPECT_TRUE(most > 0 && most <= 2) << most;
  const nlohmann::json summary = Summary(out);
  EXPECT_EQ(summary["interrupted"], true);
  EXPECT_LT(summary["done"].get<int>(), 5);
  EXPECT_EQ(summary["failed"], 0);  // interrupted, not failed
  EXPECT_FALSE(summary["interrupted_files"].empty()) << summary;
  EXPECT_EQ(test::EALeftovers(tree), "");
  // Nothing half-stored: every stored thumbnail is a whole image.
  std::istringstream stored(test::Capture("find " + Quote(tree) + " -path '*/.kovaea/*' -type f"));
  for (std::string f; std::getline(stored, f);) EXPECT_GT(test::ImageSize(f).first, 0u) << f;
}

}  // namespace
}  // namespace kovathumb
