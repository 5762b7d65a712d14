// The store's owner, mode and time rules, with the system calls replaced:
// no root needed, and the failures root never meets.
#include <errno.h>
#include <sys/stat.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kovathumb/thumb.h"
#include "support/test_util.h"
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

}  // namespace
}  // namespace kovathumb
