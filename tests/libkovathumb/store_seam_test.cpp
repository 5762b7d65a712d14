// The store's rules: the bound on box thumbnails, and owner, mode and time
// with the system calls replaced: no root needed, and the failures root
// never meets.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kovathumb/thumb.h"
#include "libkovathumb/store_rules.h"
#include "support/test_util.h"
#include "store/ea.h"
#include "util/system.h"

namespace kovathumb {
namespace {

struct {
  uid_t euid;
  bool refuse;  // switching users and the calls on the file fail
  std::vector<std::string> calls;
} g;

int Refused() { return errno = EPERM, -1; }
int Chmod(int, mode_t m) { return g.calls.push_back("chmod " + std::to_string(m)), g.refuse ? Refused() : 0; }
int Chown(int, uid_t u, gid_t gr) {
  return g.calls.push_back("chown " + std::to_string(u) + ":" + std::to_string(gr)), g.refuse ? Refused() : 0;
}
int Times(int, const struct timespec t[2]) {
  g.calls.push_back("times " + std::to_string(t[0].tv_sec) + "." + std::to_string(t[0].tv_nsec) + " " +
                    std::to_string(t[1].tv_sec) + "." + std::to_string(t[1].tv_nsec));
  return g.refuse ? Refused() : 0;
}
uid_t Euid() { return g.euid; }
int SetIds(uid_t, uid_t, uid_t) { return g.refuse ? Refused() : 0; }

TEST(StoreSeamTest, OwnerModeTimesAndTheirFailureLines) {
  const std::string kChmod = "libkovathumb.cpp:449 (SaveThumbToEA) \"Failed to chmod '";
  const std::string kChown = "libkovathumb.cpp:453 (SaveThumbToEA) \"Failed to chown '";
  const std::string kUtime = "libkovathumb.cpp:463 (SaveThumbToEA) \"Failed to chown '";
  const std::string kGuard = " ERROR: IF_RUN_AS2(\"root\")";
  const std::string kStamped = "chmod " + std::to_string(0777) + "|chown 0:0|times 0.0 ";
  struct Case {
    uid_t euid;
    bool refuse;
    long mtime;
    std::string calls;
    std::vector<std::string> logged;
  } cases[] = {
      {0, false, 1234, kStamped + "1234.0", {}},
      {0, false, 0, kStamped + "1600000000.0", {}},  // the source's time when probed
      {1000, false, 1234, kStamped + "1234.0", {}},  // switched through root
      {1000, true, 1234, "chmod " + std::to_string(0777),
       {kChmod, "libkovathumb.cpp:489" + kGuard, "libkovathumb.cpp:510" + kGuard}},
      {0, true, 1234, kStamped + "1234.0", {kChmod, kChown, kUtime}},
  };
  for (const Case& c : cases) {
    test::TempDir dir;
    test::WriteFile(dir / "photo.jpg", "source");
    struct utimbuf t = {1600000000, 1600000000};
    utime((dir / "photo.jpg").c_str(), &t);
    test::WriteFile(dir / "made.jpg", "\xff\xd8\xff\xe0" + std::string(16, '\0') + "\xff\xd9");
    g = {c.euid, c.refuse, {}};
    internal::System& sys = internal::Sys();
    sys = {Chmod, Chown, Times, sys.renameat, sys.unlinkat, Euid, Euid, SetIds, SetIds, sys.mkdirat};
    test::LogCapture log;
    Thumb thumb(dir / "photo.jpg", 0, false);
    const bool stored = thumb.SaveThumbToEA(dir / "made.jpg", dir / "stored.jpg", c.mtime);
    internal::ResetSystem();
    EXPECT_TRUE(stored && test::Exists(dir / "stored.jpg")) << c.calls;
    std::string calls;
    for (const std::string& call : g.calls) calls += (calls.empty() ? "" : "|") + call;
    EXPECT_EQ(calls, c.calls);
    for (const std::string& line : c.logged) EXPECT_EQ(log.Count(line), 1) << line;
    EXPECT_EQ(log.Count(""), static_cast<int>(c.logged.size())) << c.calls;
  }
}

// Requests for arbitrary boxes cannot fill the disk: the newest eight and
// 8 MiB of them stay, to the byte; the one just stored stays whatever it weighs.
TEST(StoreRulesTest, BoxThumbnailsAreBoundedByCountAndBytes) {
  const auto box = [](size_t n) { return "KOVAFILE_THUMB_" + std::to_string(n) + "x" + std::to_string(n) + ".jpg"; };
  const off_t half = 4 << 20;
  for (auto [sizes, removed] : std::initializer_list<std::pair<std::vector<off_t>, std::vector<std::string>>>{
           {std::vector<off_t>(8, 1), {}}, {std::vector<off_t>(9, 1), {box(1)}}, {{half, half}, {}},
           {{half, half + 1}, {box(1)}}, {{9 << 20}, {}}}) {
    std::vector<internal::StoredThumb> stored = {{"KOVAFILE_THUMB_B.jpg", 1 << 30, {0, 0}}};  // named sizes: no bound
    for (size_t i = 1; i <= sizes.size(); ++i) stored.push_back({box(i), sizes[i - 1], {static_cast<time_t>(i), 0}});
    EXPECT_EQ(internal::BoxThumbsToRemove(stored, box(sizes.size())), removed) << sizes.size() << " " << sizes.back();
  }
  // The one just stored stays though it is the oldest; an avatar is a box; a user's file counts for nothing.
  std::vector<internal::StoredThumb> stored = {{"notes.txt", 1 << 30, {0, 0}}, {"KOVAAVATAR_9x9.jpg", 1, {9, 0}}};
  for (size_t i = 1; i <= 8; ++i) stored.push_back({box(i), 1, {static_cast<time_t>(i), 0}});
  EXPECT_EQ(internal::BoxThumbsToRemove(stored, box(1)), std::vector<std::string>{box(2)});
}

// The EA directory's operations, removing and making through the same table:
// a refusal (a user's directory we may not change) is met without root.
int RefuseUnlink(int, const char*, int) { return errno = EPERM, -1; }
int CountMkdir(int dir, const char* name, mode_t mode) { return g.calls.push_back(std::string("mkdir ") + name), ::mkdirat(dir, name, mode); }

TEST(StoreSeamTest, EADirectoryOperationsRemoveOnlyOursAndMeetRefusals) {
  EXPECT_TRUE(store::IsEADirName(".kovaea") && !store::IsEADirName("kovaea"));
  test::TempDir dir;
  const std::string ea = dir / ".kovaea/a.jpg";
  test::MustSh("mkdir -p " + test::Quote(ea) + " " + test::Quote(dir / ".kovaea/b.jpg") + " && cd " + test::Quote(ea) +
               " && printf 123 >KOVAFILE_THUMB_S.jpg && printf 4567 >KOVAAVATAR_9x9.jpg && printf x >notes.txt && " +
               "ln -s /etc/passwd KOVAFILE_THUMB_M.jpg && mkdir KOVAFILE_THUMB_B.jpg && ln -s /tmp ../c.jpg && touch " +
               test::Quote(dir / "a.jpg") + " " + test::Quote(dir / "b.jpg"));
  const int top = open(dir.path().c_str(), O_PATH | O_DIRECTORY);
  std::vector<std::string> listed = store::EADirsIn(top);
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(listed, (std::vector<std::string>{"a.jpg", "b.jpg", "c.jpg"}));
  EXPECT_EQ(store::OpenEADirOf(top, "c.jpg"), -1);  // a link planted as an EA directory
  EXPECT_EQ(store::OpenEADirOf(top, ".."), -1);

  store::Freed freed;
  internal::Sys().unlinkat = RefuseUnlink;
  EXPECT_FALSE(store::RemoveEADir(top, "a.jpg", false, &freed));
  internal::ResetSystem();
  EXPECT_EQ(freed.files, 0);
  EXPECT_TRUE(store::RemoveEADir(top, "a.jpg", true, &freed));  // counted, not removed
  EXPECT_EQ(std::to_string(freed.files) + " " + std::to_string(freed.bytes), "2 7");
  freed = {};
  EXPECT_FALSE(store::RemoveEADir(top, "a.jpg", false, &freed));  // the user's files keep it
  EXPECT_EQ(test::Capture("ls -A " + test::Quote(ea)), "KOVAFILE_THUMB_B.jpg\nKOVAFILE_THUMB_M.jpg\nnotes.txt\n");
  EXPECT_TRUE(test::Exists("/etc/passwd"));

  const int made = open((dir / ".kovaea/b.jpg").c_str(), O_PATH | O_DIRECTORY);
  test::WriteFile(dir / ".kovaea/b.jpg/KOVAFILE_THUMB_S.jpg", "1");
  EXPECT_FALSE(store::RemoveIfEmpty(made, "b.jpg"));  // holds a thumbnail: stays
  unlink((dir / ".kovaea/b.jpg/KOVAFILE_THUMB_S.jpg").c_str());
  EXPECT_FALSE(store::RemoveIfEmpty(made, "a.jpg"));  // not the directory under that name
  EXPECT_TRUE(store::RemoveIfEmpty(made, "b.jpg"));
  close(made);

  test::WriteFile(ea + "/KOVAFILE_THUMB_S.jpg", "1");
  test::MustSh("mkdir " + test::Quote(dir / "to"));
  const int to = open((dir / "to").c_str(), O_PATH | O_DIRECTORY);
  g.calls.clear();
  internal::Sys().mkdirat = CountMkdir;
  EXPECT_TRUE(store::MoveEADir(top, "a.jpg", to, "z.jpg"));
  internal::ResetSystem();
  EXPECT_EQ(g.calls, std::vector<std::string>{"mkdir .kovaea"});
  EXPECT_TRUE(test::Exists(dir / "to/.kovaea/z.jpg/KOVAFILE_THUMB_S.jpg") && !test::Exists(ea));
  EXPECT_FALSE(store::MoveEADir(top, "a.jpg", to, "z.jpg"));  // nothing left to carry
  close(to);
  close(top);
}

}  // namespace
}  // namespace kovathumb
