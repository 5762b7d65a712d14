// kovathumb watch and prune: their decisions, and the programs over real trees.
#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "support/test_util.h"
#include "upkeep_rules.h"

namespace kovathumb {
namespace {

using test::Exists;
using test::Quote;
using tool::Act;
using tool::Stored;

TEST(UpkeepRulesTest, EventsRenamesSettlingAndPruning) {
  const struct { uint32_t mask; bool photo; Act act; } events[] = {
      {IN_CLOSE_WRITE, true, Act::kSettle},      {IN_MOVED_TO, true, Act::kSettle},
      {IN_MODIFY, true, Act::kPostpone},         {IN_CLOSE_WRITE, false, Act::kNone},
      {IN_DELETE, true, Act::kRemoveEA},         {IN_MOVED_FROM, true, Act::kRemoveEA},
      {IN_CREATE | IN_ISDIR, false, Act::kWatchTree}, {IN_MOVED_FROM | IN_ISDIR, false, Act::kForgetTree},
      {IN_Q_OVERFLOW, false, Act::kRescan},      {IN_IGNORED, false, Act::kForgetWatch},
  };
  for (const auto& e : events) EXPECT_EQ(tool::DecideEvent(e.mask, e.photo), e.act) << e.mask;
  EXPECT_EQ(tool::DecideRename(false, true, true), Act::kMoveEA);
  EXPECT_EQ(tool::DecideRename(false, true, false), Act::kRemoveEA);  // a.jpg -> a.jpg.bak
  EXPECT_EQ(tool::DecideRename(false, false, true), Act::kSettle);    // a copy's temporary name -> a.jpg
  EXPECT_EQ(tool::DecideRename(true, false, false), Act::kWatchTree);

  tool::Settler settler(2);
  settler.Arm({1, "a.jpg"}, 0);
  settler.Arm({1, "b.jpg"}, 1);
  settler.Postpone({1, "a.jpg"}, 1.5);  // still being written
  settler.Postpone({1, "c.jpg"}, 1.5);  // not pending: stays so
  settler.Rename({1, "b.jpg"}, {2, "b2.jpg"});
  EXPECT_TRUE(settler.TakeDue(2.9).empty());
  EXPECT_EQ(settler.TakeDue(3), std::vector<tool::Settler::Key>({{2, "b2.jpg"}}));
  EXPECT_EQ(settler.NextDue(), 3.5);
  settler.ForgetDir(1);
  EXPECT_EQ(settler.size(), 0u);

  const struct { const char* name; Stored kind; } names[] = {
      {"KOVAFILE_THUMB_S.jpg", Stored::kThumb},     {"KOVAFILE_THUMB_XL_r-3.png", Stored::kThumb},
      {"KOVAPHOTO:THUMB_B.gif", Stored::kThumb},    {"KOVAVIDEO_VIDEO_SCREENSHOT.jpg", Stored::kThumb},
      {"KOVAFILE_THUMB_640x480_r1.jpg", Stored::kBoxThumb}, {"KOVAAVATAR_64x64.png", Stored::kBoxThumb},
      {"KOVAFILE_THUMB_S.jpg.bak", Stored::kNotOurs}, {"KOVAFILE_THUMB_Q.jpg", Stored::kNotOurs},
      {"KOVAFILE_THUMB_x480.jpg", Stored::kNotOurs},  {"notes.txt", Stored::kNotOurs},
  };
  for (const auto& n : names) EXPECT_EQ(tool::ClassifyStored(n.name), n.kind) << n.name;
  EXPECT_EQ(tool::LastWanted(0, 500), 500);  // never read since stored
  EXPECT_TRUE(tool::PruneRemoves(Stored::kThumb, true, 1000, 1000, 100));
  EXPECT_FALSE(tool::PruneRemoves(Stored::kThumb, false, 0, 1000, 100));
  EXPECT_TRUE(tool::PruneRemoves(Stored::kBoxThumb, false, 899, 1000, 100));
  EXPECT_FALSE(tool::PruneRemoves(Stored::kBoxThumb, false, 900, 1000, 100));
  EXPECT_FALSE(tool::PruneRemoves(Stored::kNotOurs, true, 0, 1000, 100));
}

// `kovathumb ARGS`, its standard output and error in files.
pid_t Start(const std::string& args, const std::string& out, const std::string& err) {
  pid_t pid = fork();
  if (pid == 0) {
    const std::string cmd = std::string("exec ") + KOVATHUMB_CLI + " " + args + " >" + Quote(out) + " 2>" + Quote(err);
    execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitFor(const std::function<bool()>& done, int seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    usleep(50000);
  }
  return true;
}

std::vector<nlohmann::json> Lines(const std::string& out) {
  std::istringstream in(test::ReadFile(out));
  std::vector<nlohmann::json> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

size_t Count(const std::string& out) {
  const std::string text = test::ReadFile(out);
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::string Thumb(const std::string& photo) {
  const size_t slash = photo.rfind('/');
  return photo.substr(0, slash) + "/.kovaea/" + photo.substr(slash + 1) + "/KOVAFILE_THUMB_S.png";
}

struct Watching {
  test::TempDir dir;
  const std::string tree = dir / "tree", out = dir / "out.json", err = dir / "err";
  pid_t pid = 0;
  explicit Watching(const std::string& args) {
    test::MustSh("mkdir -p " + Quote(tree) + " " + Quote(dir / "outside"));
    pid = Start("watch --json --settle 0.3 --sizes small " + args + " " + Quote(tree), out, err);
  }
  ~Watching() {
    if (pid > 0) kill(pid, SIGKILL), Wait(pid);
  }
};

TEST(WatchTest, KeepsThumbnailsInStepWithTheTree) {
  Watching w("-j 2");
  const std::string t = w.tree, out = w.dir / "outside";
  test::MakeImage(w.dir / "land.png", 400, 300);
  test::MakeImage(w.dir / "port.png", 300, 400, "xc:red");
  const std::string land = test::ReadFile(w.dir / "land.png");
  test::MustSh("mkdir " + Quote(out + "/f") + " && cp " + Quote(w.dir / "land.png") + " " + Quote(out + "/f/w.png"));
  usleep(500000);  // the first look at the tree
  const struct { const char* what; std::function<void()> act; std::function<bool()> done; } steps[] = {
      {"create", [&] { test::WriteFile(t + "/a.png", land); }, [&] { return Exists(Thumb(t + "/a.png")); }},
      {"write slowly",
       [&] {
         std::ofstream f(t + "/b.png", std::ios::binary);
         f << land.substr(0, 1000) << std::flush;
         usleep(1200000);  // four times the quiet time, the file open and half written
         EXPECT_FALSE(Exists(t + "/.kovaea/b.png"));
         f << land.substr(1000);
       },
       [&] { return Exists(Thumb(t + "/b.png")); }},
      {"modify, with an older time",
       [&] {
         test::MustSh("cp " + Quote(w.dir / "port.png") + " " + Quote(t + "/a.png"));
         struct utimbuf old = {946684800, 946684800};
         utime((t + "/a.png").c_str(), &old);
       },
       [&] { return test::ImageSize(Thumb(t + "/a.png")) == std::make_pair(90u, 120u); }},
      {"rename a photo", [&] { rename((t + "/a.png").c_str(), (t + "/c.png").c_str()); },
       [&] { return Exists(Thumb(t + "/c.png")) && !Exists(t + "/.kovaea/a.png"); }},
      {"a folder", [&] { mkdir((t + "/d").c_str(), 0755), test::WriteFile(t + "/d/x.png", land); },
       [&] { return Exists(Thumb(t + "/d/x.png")); }},
      {"rename the folder",
       [&] { rename((t + "/d").c_str(), (t + "/e").c_str()), test::WriteFile(t + "/e/y.png", land); },
       [&] { return Exists(Thumb(t + "/e/y.png")); }},
      {"move a folder out",
       [&] { rename((t + "/e").c_str(), (out + "/e").c_str()), test::WriteFile(out + "/e/z.png", land), sleep(2); },
       [&] { return !Exists(out + "/e/.kovaea/z.png"); }},
      {"move a folder in", [&] { rename((out + "/f").c_str(), (t + "/f").c_str()); },
       [&] { return Exists(Thumb(t + "/f/w.png")); }},
      {"delete", [&] { unlink((t + "/b.png").c_str()); }, [&] { return !Exists(t + "/.kovaea/b.png"); }},
  };
  for (const auto& step : steps) {
    step.act();
    EXPECT_TRUE(WaitFor(step.done, 60)) << step.what << "\n" << test::ReadFile(w.err);
  }
  EXPECT_EQ(test::ImageSize(Thumb(t + "/c.png")), std::make_pair(90u, 120u));  // came along
  std::map<std::string, int> conversions;
  for (const auto& j : Lines(w.out)) {
    if (j["made"] > 0) conversions[j["path"].get<std::string>().substr(t.size() + 1)] += j["made"].get<int>();
  }
  EXPECT_EQ(conversions, (std::map<std::string, int>{{"a.png", 2}, {"b.png", 1}, {"d/x.png", 1}, {"e/y.png", 1},
                                                      {"f/w.png", 1}}));
  kill(w.pid, SIGTERM);
  EXPECT_EQ(Wait(w.pid), 0);
  w.pid = 0;
}

// Small PNGs serve as they are: the cheapest file a worker can have.
TEST(WatchTest, ABurstEachFileOnceThenStoppedMidBurst) {
  Watching w("-j 4");
  test::MakeImage(w.dir / "tiny.png", 100, 75);
  const std::string tiny = test::ReadFile(w.dir / "tiny.png");
  usleep(500000);
  test::MustSh("mkdir " + Quote(w.tree + "/burst"));
  for (int i = 0; i < 2000; ++i) test::WriteFile(w.tree + "/burst/" + std::to_string(i) + ".png", tiny);
  EXPECT_TRUE(WaitFor([&] { return Count(w.out) >= 2000; }, 600));
  usleep(1000000);
  std::map<std::string, int> seen;
  for (const auto& j : Lines(w.out)) seen[j["path"].get<std::string>()] += 1 + j["failed"].get<int>() * 100;
  EXPECT_EQ(seen.size(), 2000u);
  for (const auto& s : seen) EXPECT_EQ(s.second, 1) << s.first;  // each once, none failed

  for (int i = 0; i < 12; ++i) test::MakePhoto(w.dir / "outside/" + std::to_string(i) + ".jpg", 1200, 900);
  test::MustSh("mv " + Quote(w.dir / "outside") + " " + Quote(w.tree + "/shots"));
  EXPECT_TRUE(WaitFor([&] { return Count(w.out) > 2000; }, 120));
  kill(w.pid, SIGTERM);
  EXPECT_EQ(Wait(w.pid), 0);
  w.pid = 0;
  EXPECT_LT(Count(w.out), 2012u);
  EXPECT_EQ(test::EALeftovers(w.tree), "");
  std::istringstream stored(test::Capture("find " + Quote(w.tree + "/shots") + " -path '*/.kovaea/*' -type f"));
  for (std::string f; std::getline(stored, f);) EXPECT_GT(test::ImageSize(f).first, 0u) << f;
}

// Stopped, the watcher's queue overflows: a rescan finds what was dropped.
TEST(WatchTest, AnOverflowedQueueIsRescanned) {
  Watching w("");
  test::MakeImage(w.dir / "tiny.png", 100, 75);
  test::MustSh("mkdir " + Quote(w.tree + "/noise"));
  usleep(500000);
  int queued = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
  kill(w.pid, SIGSTOP);
  test::MustSh("mkdir " + Quote(w.tree + "/late"));
  for (int i = 0; i < queued / 2 + 100; ++i) test::WriteFile(w.tree + "/noise/" + std::to_string(i), "");
  test::MustSh("for i in 0 1 2; do cp " + Quote(w.dir / "tiny.png") + " " + Quote(w.tree) + "/late/$i.png; done");
  kill(w.pid, SIGCONT);
  EXPECT_TRUE(WaitFor([&] { return Count(w.out) >= 3; }, 120)) << test::ReadFile(w.err);
  EXPECT_EQ(test::Capture("grep -c overflow " + Quote(w.err)), "1\n");
}

TEST(PruneTest, RemovesOrphansAndUnwantedBoxesOnly) {
  test::TempDir dir;
  const std::string t = dir / "tree";
  const struct { const char* path; bool kept; } files[] = {
      {"live.jpg", true},
      {".kovaea/live.jpg/KOVAFILE_THUMB_S.jpg", true},
      {".kovaea/live.jpg/KOVAFILE_THUMB_100x100.jpg", false},  // a box nobody asked for since
      {".kovaea/live.jpg/notes.txt", true},
      {".kovaea/gone.jpg/KOVAFILE_THUMB_M.jpg", false},
      {".kovaea/gone.jpg/KOVAAVATAR_50x50.jpg", false},
      {".kovaea/gone2.jpg/KOVAFILE_THUMB_S.jpg", false},
      {".kovaea/gone2.jpg/mine.txt", true},  // a user's: not ours to delete
      {"sub/.kovaea/x.jpg/KOVAPHOTO_THUMB_S.jpg", false},
      {"../outside/.kovaea/o.jpg/KOVAFILE_THUMB_S.jpg", true},  // behind a link
  };
  for (const auto& f : files) {
    test::MustSh("mkdir -p \"$(dirname " + Quote(t + "/" + f.path) + ")\"");
    test::WriteFile(t + "/" + f.path, "12345");
  }
  ASSERT_EQ(symlink((dir / "outside").c_str(), (t + "/ln").c_str()), 0);
  ASSERT_EQ(symlink((dir / "outside/.kovaea/o.jpg/KOVAFILE_THUMB_S.jpg").c_str(),
                    (t + "/.kovaea/live.jpg/KOVAFILE_THUMB_B.jpg").c_str()), 0);
  sleep(1);
  const std::string cmd = std::string(KOVATHUMB_CLI) + " prune --retention 0 " + Quote(t);
  EXPECT_EQ(nlohmann::json::parse(test::Capture(cmd + " --dry-run"))["files"], 5);
  for (const auto& f : files) EXPECT_TRUE(Exists(t + "/" + f.path)) << f.path;
  const nlohmann::json summary = nlohmann::json::parse(test::Capture(cmd));
  EXPECT_EQ(summary["files"], 5);
  EXPECT_EQ(summary["bytes"], 25);
  EXPECT_EQ(summary["ea_dirs"], 2);  // gone.jpg's and x.jpg's; gone2.jpg's holds a user's file
  for (const auto& f : files) EXPECT_EQ(Exists(t + "/" + f.path), f.kept) << f.path;
  EXPECT_TRUE(test::Capture("readlink " + Quote(t + "/.kovaea/live.jpg/KOVAFILE_THUMB_B.jpg")).size() > 1);
}

}  // namespace
}  // namespace kovathumb
