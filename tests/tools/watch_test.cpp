// kovathumb watch and prune: their decisions, and the programs over real trees.
#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include "front_end/tree.h"
#include "support/test_util.h"
#include "upkeep_rules.h"

namespace kovathumb {
namespace {

using namespace test;
using tool::Act;
using tool::Stored;

TEST(UpkeepRulesTest, EventsRenamesSettlingAndPruning) {
  const struct { uint32_t mask; bool photo; Act act; } events[] = {
      {IN_CLOSE_WRITE, true, Act::kSettle}, {IN_MOVED_TO, true, Act::kSettle}, {IN_MODIFY, true, Act::kPostpone},
      {IN_CLOSE_WRITE, false, Act::kNone}, {IN_DELETE, true, Act::kRemoveEA}, {IN_MOVED_FROM, true, Act::kRemoveEA},
      {IN_CREATE | IN_ISDIR, false, Act::kWatchTree}, {IN_MOVED_FROM | IN_ISDIR, false, Act::kForgetTree},
      {IN_Q_OVERFLOW, false, Act::kRescan}, {IN_IGNORED, false, Act::kForgetWatch}};
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

  EXPECT_EQ(tool::LastWanted(0, 500), 500);  // never read since stored
  for (auto [kind, orphan, wanted, removed] : {std::tuple(Stored::kThumb, true, 1000, true), {Stored::kThumb, false, 0, false},
                                               {Stored::kBoxThumb, false, 899, true}, {Stored::kBoxThumb, false, 900, false},
                                               {Stored::kNotOurs, true, 0, false}}) {
    EXPECT_EQ(tool::PruneRemoves(kind, orphan, wanted, 1000, 100), removed) << wanted;
  }

  // watch adds a folder's watch on entering it: what is made before the
  // folder is listed is listed.
  test::TempDir dir;
  test::MustSh("mkdir -p " + Quote(dir / "a/b"));
  std::vector<std::string> listed;
  tool::WalkFolders(
      open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), 8,
      [&](const tool::Folder& f, const std::vector<tool::Entry>& entries) {
        for (const tool::Entry& e : entries) listed.push_back(f.rel + e.name);
      },
      nullptr, [](const tool::Folder& f) { close(openat(f.fd, "made", O_CREAT | O_WRONLY | O_CLOEXEC, 0644)); });
  EXPECT_EQ(listed, (std::vector<std::string>{"a", "made", "a/b", "a/made", "a/b/made"}));
}

std::string Thumb(const std::string& photo) {
  const size_t slash = photo.rfind('/');
  return photo.substr(0, slash) + "/.kovaea/" + photo.substr(slash + 1) + "/KOVAFILE_THUMB_S.png";
}

// The inotify watches process `pid` holds: one a directory, added as its
// first look walks the tree.
int Watches(pid_t pid) {
  return std::stoi(test::Capture("cat /proc/" + std::to_string(pid) + "/fdinfo/* 2>/dev/null | grep -c '^inotify wd:'"));
}

// `kovathumb watch` over a fresh tree (with an empty folder "noise"), after its first look.
struct Watching {
  test::TempDir dir;
  const std::string tree = dir / "tree", out = dir / "out.json", err = dir / "err";
  pid_t pid = 0;
  explicit Watching(const std::string& args) {
    test::MustSh("mkdir -p " + Quote(tree + "/noise") + " " + Quote(dir / "outside"));
    test::MakeImage(dir / "tiny.png", 100, 75);
    Start(args, 2);
  }
  // Back once it watches `folders` folders.
  void Start(const std::string& args, int folders) {
    pid = test::StartCli("watch --json --settle 0.3 --sizes small " + args + " " + Quote(tree), out, err);
    EXPECT_TRUE(test::WaitFor([&] { return Watches(pid) >= folders; }, 60)) << test::ReadFile(err);
  }
  ~Watching() { if (pid > 0) kill(pid, SIGKILL), test::WaitExit(pid); }
  int Stop() { return kill(pid, SIGTERM), test::WaitExit(std::exchange(pid, 0)); }
  std::vector<nlohmann::json> Lines() const {  // whole lines only
    std::istringstream in(test::ReadFile(out));
    std::vector<nlohmann::json> lines;
    for (std::string line; std::getline(in, line) && !in.eof();) lines.push_back(nlohmann::json::parse(line));
    return lines;
  }
};

TEST(WatchTest, KeepsThumbnailsInStepWithTheTree) {
  Watching w("-j 2");
  const std::string t = w.tree, out = w.dir / "outside";
  test::MakeImage(w.dir / "land.png", 400, 300);
  test::MakeImage(w.dir / "port.png", 300, 400, "xc:red");
  const std::string land = test::ReadFile(w.dir / "land.png");
  auto put = [&](const std::string& path) { test::WriteFile(path, land); };
  auto has = [](const std::string& photo) { return Exists(Thumb(photo)); };
  auto mv = [](const std::string& from, const std::string& to) { rename(from.c_str(), to.c_str()); };
  test::MustSh("mkdir " + Quote(out + "/f")), put(out + "/f/w.png");
  const struct { const char* what; std::function<void()> act; std::function<bool()> done; } steps[] = {
      {"create", [&] { put(t + "/a.png"); }, [&] { return has(t + "/a.png"); }},
      {"write slowly", [&] {  // four times the quiet time, the file open and half written
         std::ofstream f(t + "/b.png", std::ios::binary);
         f << land.substr(0, 1000) << std::flush, usleep(1200000);
         EXPECT_FALSE(Exists(t + "/.kovaea/b.png"));
         f << land.substr(1000);
       }, [&] { return has(t + "/b.png"); }},
      {"modify, with an older time",
       [&] { test::MustSh("cp " + Quote(w.dir / "port.png") + " " + Quote(t + "/a.png") + " && touch -d @946684800 " + Quote(t + "/a.png")); },
       [&] { return test::ImageSize(Thumb(t + "/a.png")) == std::make_pair(90u, 120u); }},
      {"rename a photo", [&] { mv(t + "/a.png", t + "/c.png"); },
       [&] { return has(t + "/c.png") && !Exists(t + "/.kovaea/a.png"); }},
      {"a folder", [&] { mkdir((t + "/d").c_str(), 0755), put(t + "/d/x.png"); }, [&] { return has(t + "/d/x.png"); }},
      {"rename the folder", [&] { mv(t + "/d", t + "/e"), put(t + "/e/y.png"); }, [&] { return has(t + "/e/y.png"); }},
      {"move a folder out", [&] { mv(t + "/e", out + "/e"), put(out + "/e/z.png"); }, [] { return true; }},
      {"move a folder in", [&] { mv(out + "/f", t + "/f"); }, [&] { return has(t + "/f/w.png"); }},
      {"delete", [&] { unlink((t + "/b.png").c_str()); }, [&] { return !Exists(t + "/.kovaea/b.png"); }},
  };
  for (const auto& step : steps) {
    step.act();
    EXPECT_TRUE(test::WaitFor(step.done, 60)) << step.what << "\n" << test::ReadFile(w.err);
  }
  EXPECT_FALSE(Exists(out + "/e/.kovaea/z.png"));  // moved out before the steps after it were seen
  EXPECT_EQ(test::ImageSize(Thumb(t + "/c.png")), std::make_pair(90u, 120u));  // came along
  // A worker stores before the watcher writes its line.
  const std::map<std::string, int> expected = {{"a.png", 2}, {"b.png", 1}, {"d/x.png", 1}, {"e/y.png", 1}, {"f/w.png", 1}};
  std::map<std::string, int> made;
  test::WaitFor([&] {
    made.clear();
    for (const auto& j : w.Lines()) {
      if (j["made"] > 0) made[j["path"].get<std::string>().substr(t.size() + 1)] += j["made"].get<int>();
    }
    return made == expected;
  }, 60);
  EXPECT_EQ(made, expected);
  EXPECT_EQ(w.Stop(), 0);

  // Started again, its catch-up finds the tree in step: one worker, so the
  // photo added after the first look is made after anything caught up.
  w.Start("-j 1", 3);  // the tree, "noise" and "f"
  put(t + "/g.png");
  EXPECT_TRUE(test::WaitFor([&] { return test::ReadFile(w.out).find("g.png") != std::string::npos; }, 60));
  EXPECT_EQ(w.Stop(), 0);
  for (const auto& j : w.Lines()) EXPECT_EQ(j["made"], j["path"] == t + "/g.png" ? 1 : 0) << j;
}

// Small PNGs serve as they are: the cheapest file a worker can have.
TEST(WatchTest, ABurstEachFileOnceThenStoppedMidBurst) {
  constexpr size_t kBurst = 1000;  // some 3,000 events at once, yet done in time on a loaded machine
  Watching w("-j 4");
  const std::string tiny = test::ReadFile(w.dir / "tiny.png");
  test::MustSh("mkdir " + Quote(w.tree + "/burst"));
  for (size_t i = 0; i < kBurst; ++i) test::WriteFile(w.tree + "/burst/" + std::to_string(i) + ".png", tiny);
  EXPECT_TRUE(test::WaitFor([&] { return w.Lines().size() >= kBurst; }, 600));

  // Large enough that the stop lands while they are made, on a fast machine too.
  for (int i = 0; i < 12; ++i) test::MakePhoto(w.dir / "outside/" + std::to_string(i) + ".jpg", 4000, 3000);
  test::MustSh("mv " + Quote(w.dir / "outside") + " " + Quote(w.tree + "/shots"));
  EXPECT_TRUE(test::WaitFor([&] { return w.Lines().size() > kBurst; }, 120));
  EXPECT_EQ(w.Stop(), 0);
  std::map<std::string, int> seen;  // each once, none failed, before the shots came
  for (const auto& j : w.Lines()) {
    const std::string path = j["path"];
    if (path.find("/burst/") == std::string::npos) continue;
    seen[path] += 1 + j["failed"].get<int>() * 100;
    EXPECT_EQ(j["failed"], 0) << j.dump();
  }
  EXPECT_EQ(seen.size(), size_t{kBurst});
  for (const auto& s : seen) EXPECT_EQ(s.second % 100, 1) << s.first;
  EXPECT_LT(w.Lines().size(), size_t{kBurst} + 12);
  EXPECT_EQ(test::EALeftovers(w.tree), "");
  std::istringstream stored(test::Capture("find " + Quote(w.tree + "/shots") + " -path '*/.kovaea/*' -type f"));
  for (std::string f; std::getline(stored, f);) EXPECT_GT(test::ImageSize(f).first, 0u) << f;
}

// Stopped, the watcher's queue overflows: a rescan finds what was dropped.
TEST(WatchTest, AnOverflowedQueueIsRescanned) {
  Watching w("");
  int queued = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
  kill(w.pid, SIGSTOP);
  test::MustSh("mkdir " + Quote(w.tree + "/late"));
  for (int i = 0; i < queued / 2 + 100; ++i) test::WriteFile(w.tree + "/noise/" + std::to_string(i), "");
  test::MustSh("for i in 0 1 2; do cp " + Quote(w.dir / "tiny.png") + " " + Quote(w.tree) + "/late/$i.png; done");
  kill(w.pid, SIGCONT);
  EXPECT_TRUE(test::WaitFor([&] { return w.Lines().size() >= 3; }, 120)) << test::ReadFile(w.err);
  EXPECT_EQ(test::Capture("grep -c overflow " + Quote(w.err)), "1\n");
}

TEST(PruneTest, RemovesOrphansAndUnwantedBoxesOnly) {
  test::TempDir dir;
  const std::string t = dir / "tree";
  const struct { const char* path; bool kept; } files[] = {
      {"live.jpg", true}, {".kovaea/live.jpg/KOVAFILE_THUMB_S.jpg", true},
      {".kovaea/live.jpg/KOVAFILE_THUMB_100x100.jpg", false},  // a box nobody asked for since
      {".kovaea/live.jpg/notes.txt", true}, {".kovaea/gone.jpg/KOVAFILE_THUMB_M.jpg", false},
      {".kovaea/gone.jpg/KOVAAVATAR_50x50.jpg", false}, {".kovaea/gone2.jpg/KOVAFILE_THUMB_S.jpg", false},
      {".kovaea/gone2.jpg/mine.txt", true},  // a user's: not ours to delete
      {"sub/.kovaea/x.jpg/KOVAPHOTO_THUMB_S.jpg", false},
      {"../outside/.kovaea/o.jpg/KOVAFILE_THUMB_S.jpg", true}};  // behind a link
  for (const auto& f : files) test::MustSh("f=" + Quote(t + "/" + f.path) + " && mkdir -p \"${f%/*}\" && printf 12345 >\"$f\"");
  // Work a killed process of ours left in an orphan's EA folder goes with it.
  test::MustSh("cd " + Quote(t) + " && w=.kovaea/gone.jpg/.kovathumb-$(sh -c 'echo $$').x && mkdir -m 700 $w && touch $w/t");
  test::MustSh("cd " + Quote(t) + " && ln -s ../outside ln && ln -s " +
               Quote(dir / "outside/.kovaea/o.jpg/KOVAFILE_THUMB_S.jpg") + " .kovaea/live.jpg/KOVAFILE_THUMB_B.jpg &&"
               " ln -s ../../outside/.kovaea/o.jpg .kovaea/gone3.jpg && sleep 1");
  const std::string cmd = std::string(KOVATHUMB_CLI) + " prune --retention 0 " + Quote(t);
  EXPECT_EQ(nlohmann::json::parse(test::Capture(cmd + " --dry-run"))["files"], 5);
  for (const auto& f : files) EXPECT_TRUE(Exists(t + "/" + f.path)) << f.path;
  const nlohmann::json summary = nlohmann::json::parse(test::Capture(cmd));  // EA folders: gone.jpg's and x.jpg's,
  EXPECT_EQ(summary["files"].dump() + " " + summary["bytes"].dump() + " " + summary["ea_dirs"].dump(), "5 25 2");  // not gone2.jpg's
  for (const auto& f : files) EXPECT_EQ(Exists(t + "/" + f.path), f.kept) << f.path;
  EXPECT_TRUE(Exists(t + "/.kovaea/live.jpg/KOVAFILE_THUMB_B.jpg"));
}

}  // namespace
}  // namespace kovathumb
