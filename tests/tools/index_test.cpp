// kovathumb index over real trees.
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>

#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

void MakePhoto(const std::string& path) {
  test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " + Quote(path));
}

// Starts `kovathumb index ARGS` with its standard output in `out`.
pid_t StartIndex(const std::string& args, const std::string& out) {
  pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", (std::string("exec ") + KOVATHUMB_CLI + " index " + args + " >" + Quote(out)).c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A child of `pid`, once one exists (0 after a few seconds without).
pid_t FirstChild(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children";
  for (int i = 0; i < 2000; ++i) {
    std::ifstream in(path);
    pid_t child = 0;
    if (in >> child && child > 0) return child;
    usleep(2000);
  }
  return 0;
}

nlohmann::json Summary(const std::string& out) {
  std::istringstream in(test::ReadFile(out));
  nlohmann::json last;
  for (std::string line; std::getline(in, line);) last = nlohmann::json::parse(line);
  return last;
}

// Temporary files of ours anywhere they could be left.
std::vector<std::string> Leftovers(const std::string& tree) {
  std::vector<std::string> found;
  const std::string cmd = "find " + Quote(tree) + " -path '*/.kovaea/*' \\( -name 'KOVAFILETMP*' -o -name '*_[0-9]*_[0-9]*' \\)";
  std::istringstream in(test::Capture(cmd));
  for (std::string line; std::getline(in, line);) found.push_back(line);
  for (const std::string& n : test::ListDir("/var/tmp", "kovathumb_")) found.push_back("/var/tmp/" + n);
  return found;
}

TEST(IndexTest, SecondRunConvertsNothingAndFailuresCostOneFile) {
  test::TempDir dir;
  const std::string tree = dir / "tree";
  test::MustSh("mkdir -p " + Quote(tree + "/sub") + " " + Quote(dir / "outside"));
  MakePhoto(tree + "/a.jpg");
  MakePhoto(tree + "/sub/b.jpg");
  test::MakeImage(tree + "/c.png", 900, 600);
  test::WriteFile(tree + "/garbage.jpg", std::string(5000, 'z'));
  MakePhoto(dir / "outside/o.jpg");
  ASSERT_EQ(symlink((dir / "outside/o.jpg").c_str(), (tree + "/out.jpg").c_str()), 0);
  ASSERT_EQ(symlink((dir / "outside").c_str(), (tree + "/outdir").c_str()), 0);

  const std::string out = dir / "out.json";
  EXPECT_EQ(Wait(StartIndex("--json -j 2 " + Quote(tree), out)), 1);
  nlohmann::json first = Summary(out);
  EXPECT_EQ(first["files"], 4);  // the links out of the tree are not followed
  EXPECT_GT(first["made"].get<int>(), 8);
  EXPECT_EQ(first["failed"], 1);
  EXPECT_EQ(first["failed_files"][0], tree + "/garbage.jpg");
  EXPECT_TRUE(test::Exists(tree + "/.kovaea/a.jpg/KOVAFILE_THUMB_S.jpg"));
  EXPECT_TRUE(test::Exists(tree + "/sub/.kovaea/b.jpg/KOVAFILE_THUMB_B.jpg"));
  EXPECT_FALSE(test::Exists(dir / "outside/.kovaea"));

  EXPECT_EQ(Wait(StartIndex("--json " + Quote(tree), out)), 1);
  nlohmann::json second = Summary(out);
  EXPECT_EQ(second["made"], 0);
  EXPECT_EQ(second["up_to_date"].get<int>(), first["made"].get<int>() + first["up_to_date"].get<int>());
  EXPECT_TRUE(Leftovers(tree).empty());
}

TEST(IndexTest, AWorkerThatDiesCostsItsFileOnly) {
  test::TempDir dir;
  for (const char* n : {"a.jpg", "b.jpg", "c.jpg"}) MakePhoto(dir / n);
  const std::string out = dir / "out.json";
  pid_t index = StartIndex("--json -j 1 " + Quote(dir.path()), out);
  pid_t worker = FirstChild(index);
  ASSERT_GT(worker, 0);
  kill(worker, SIGKILL);   // the worker, whether or not it has its group yet
  kill(-worker, SIGKILL);  // and the tool it runs
  EXPECT_EQ(Wait(index), 1);
  nlohmann::json summary = Summary(out);
  EXPECT_EQ(summary["files"], 3);
  EXPECT_EQ(summary["failed"], 1);
  EXPECT_GT(summary["made"].get<int>(), 0);
  EXPECT_NE(test::ReadFile(out).find("worker killed by signal 9"), std::string::npos);
}

TEST(IndexTest, InterruptStopsCleanly) {
  test::TempDir dir;
  for (int i = 0; i < 6; ++i) MakePhoto(dir / ("p" + std::to_string(i) + ".jpg"));
  const std::string out = dir / "out.json";
  pid_t index = StartIndex("--json -j 2 " + Quote(dir.path()), out);
  ASSERT_GT(FirstChild(index), 0);
  usleep(100000);
  kill(index, SIGINT);
  EXPECT_EQ(Wait(index), 130);
  nlohmann::json summary = Summary(out);
  EXPECT_EQ(summary["interrupted"], true);
  EXPECT_LT(summary["done"].get<int>(), 6);
  EXPECT_EQ(summary["failed"], 0);
  EXPECT_TRUE(Leftovers(dir.path()).empty());
  // Nothing half-stored: every stored thumbnail is a whole image.
  std::istringstream stored(test::Capture("find " + Quote(dir.path()) + " -path '*/.kovaea/*' -type f"));
  for (std::string f; std::getline(stored, f);) EXPECT_GT(test::ImageSize(f).first, 0u) << f;
}

TEST(IndexTest, VideosGetAScreenshotWhenFfmpegIsThere) {
  if (test::Sh("test -x /usr/bin/ffmpeg") != 0) GTEST_SKIP() << "ffmpeg is not installed";
  test::TempDir dir;
  test::MustSh("ffmpeg -nostdin -v error -f lavfi -i testsrc=duration=1:size=320x240:rate=10 -pix_fmt yuv420p " +
               Quote(dir / "clip.mp4"));
  const std::string out = dir / "out.json";
  EXPECT_EQ(Wait(StartIndex("--json " + Quote(dir.path()), out)), 0);
  EXPECT_EQ(Summary(out)["made"], 1);
  EXPECT_EQ(test::ImageSize(dir.path() + "/.kovaea/clip.mp4/KOVAVIDEO_VIDEO_SCREENSHOT.jpg"),
            std::make_pair(320u, 240u));
  EXPECT_EQ(Wait(StartIndex("--json " + Quote(dir.path()), out)), 0);
  EXPECT_EQ(Summary(out)["up_to_date"], 1);
}

}  // namespace
}  // namespace kovathumb
