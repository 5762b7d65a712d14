// The library as root against a user who owns a folder of the tree: what
// they plant in EA directories is never followed, what the tools read is the
// file that was checked, nothing empty or stale is stored, and requests for
// arbitrary boxes cannot fill the disk.
#include <fcntl.h>
#include <sys/time.h>

#include <gtest/gtest.h>

#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "libkovathumb/store_rules.h"
#include "support/attacker.h"
#include "support/http.h"

namespace kovathumb {
namespace {

using test::AsAttacker;
using test::Quote;

class StoreAttackRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KT_SKIP_UNLESS_ROOT();
    secret_ = test::ReadFile(t_.secret);
    mkdir(outside_.c_str(), 0755);
    test::MakePhoto(src_);
    ASSERT_EQ(chown(src_.c_str(), test::kAttackerId, test::kAttackerId), 0);
  }
  // Nothing written outside the tree, the secret untouched, no work left
  // (the attacker's own links may stay).
  void ExpectContained() {
    const struct stat st = test::Stat(t_.secret);
    EXPECT_TRUE(st.st_uid == 0 && (st.st_mode & 07777) == 0600);
    EXPECT_EQ(test::ReadFile(t_.secret), secret_) << "written through a link";
    EXPECT_EQ(test::Capture("ls -A " + Quote(outside_)), "");
    EXPECT_EQ(test::Capture("find " + Quote(t_.tree) + " \\( -name 'KOVAFILETMP*' -o -name '.kovathumb-*' \\) ! -type l"), "");
  }
  bool Plant(const std::string& what, const std::string& at) {
    const std::string ea = ea_, secret = t_.secret, outside = outside_, dot = t_.mine + "/.kovaea", src = src_;
    return AsAttacker([=] {
      // Their own photo as old as can be: whatever a link reaches is "up to date".
      const struct timeval old[2] = {{1, 0}, {1, 0}};
      const std::string path = ea + "/" + at;
      if (utimes(src.c_str(), old) != 0) return false;
      if (what == "dotlink") return symlink(outside.c_str(), dot.c_str()) == 0;
      if (system(("mkdir -p " + Quote(what == "ealink" ? dot : ea)).c_str()) != 0) return false;
      if (what == "link") return symlink(secret.c_str(), path.c_str()) == 0;
      if (what == "fifo") return mkfifo(path.c_str(), 0666) == 0;
      if (what == "dir") return mkdir(path.c_str(), 0777) == 0;
      if (what == "empty") return close(open(path.c_str(), O_CREAT | O_WRONLY, 0666)) == 0;
      return symlink(outside.c_str(), ea.c_str()) == 0;  // ealink
    });
  }

  test::AttackTree t_;
  std::string src_ = t_.mine + "/photo.jpg", ea_ = t_.mine + "/.kovaea/photo.jpg", outside_ = t_.top / "outside", secret_;
};

TEST_F(StoreAttackRootTest, PlantedLinksFifosAndDirectoriesAreNeverFollowed) {
  const std::string work = "KOVAFILETMP_THUMB_" + std::to_string(getpid()) + ".jpg";
  for (auto [what, name, options, rotate] :
       {std::tuple("link", "KOVAFILE_THUMB_S.jpg", 2, 0), {"link", "KOVAPHOTO_THUMB_S.jpg", 1, 1}, {"link", work.c_str(), 2, 0},
        {"fifo", "KOVAFILE_THUMB_S.jpg", 2, 0}, {"dir", "KOVAFILE_THUMB_S.jpg", 2, 0}, {"empty", "KOVAFILE_THUMB_S.jpg", 2, 0},
        {"ealink", "", 2, 0}, {"dotlink", "", 2, 0}}) {
    SCOPED_TRACE(std::string(what) + " " + name);
    test::MustSh("rm -rf " + Quote(t_.mine + "/.kovaea"));
    ASSERT_TRUE(Plant(what, name));
    const time_t start = time(nullptr);
    Thumb thumb(src_, options, false);
    thumb.Rotate(rotate);
    EXPECT_FALSE(t_.Leaks(test::ParseResponse(test::CaptureStdout([&] { thumb.Output("small"); })).body));
    EXPECT_LT(time(nullptr) - start, 60);  // a FIFO answers at once, not never
    ExpectContained();
  }
}

TEST_F(StoreAttackRootTest, ToolsReadTheFileThatWasOpened) {
  Thumb thumb(src_, 2, false);
  // Swapped for a link to the secret once the request has opened it.
  const std::string src = src_, secret = t_.secret;
  ASSERT_TRUE(AsAttacker([=] { return rename(src.c_str(), (src + ".old").c_str()) == 0 &&
                                        symlink(secret.c_str(), src.c_str()) == 0; }));
  const std::string raw = test::CaptureStdout([&] { thumb.Output("small"); });
  EXPECT_FALSE(t_.Leaks(raw));
  EXPECT_GT(test::ParseResponse(raw).body.size(), 0u);
  ExpectContained();
  EXPECT_THROW(Thumb link(src_, 2, false), Error);  // a source that is a link is no source
}

TEST_F(StoreAttackRootTest, NothingEmptyBrokenOrStaleIsStored) {
  Thumb thumb(src_, 2, false);
  ASSERT_FALSE(thumb.CalcOutputFile("small").empty());  // probes the source
  test::MakeImage(t_.top / "ok.jpg", 40, 30);
  const std::string full = test::ReadFile(t_.top / "ok.jpg");
  for (auto [data, stored] : {std::pair(std::string(), false), {full.substr(0, full.size() / 2), false},
                              {"GIF89a;", false}, {full, true}}) {
    test::WriteFile(t_.top / "made.jpg", data);
    EXPECT_EQ(thumb.SaveThumbToEA(t_.top / "made.jpg", ea_ + "/KOVAFILE_THUMB_M.jpg", 0), stored);
  }
  // The source changed after the probe: the stamp is the probed time.
  const struct timeval old[2] = {{1600000000, 0}, {1600000000, 0}};
  ASSERT_EQ(utimes(src_.c_str(), old), 0);
  Thumb later(src_, 2, false);
  ASSERT_TRUE(AsAttacker([&] { return utimes(src_.c_str(), nullptr) == 0; }));
  ASSERT_FALSE(later.CalcOutputFile("big").empty());
  EXPECT_EQ(test::Stat(ea_ + "/KOVAFILE_THUMB_B.jpg").st_mtime, 1600000000);
  ExpectContained();
}

TEST_F(StoreAttackRootTest, ArbitraryBoxesAreBoundedAndOutputsDeletedThroughTheDirectory) {
  Thumb thumb(src_, 0, false);
  for (unsigned edge = 100; edge < 112; ++edge) EXPECT_EQ(thumb.Convert({ThumbDimension{edge, edge}}), 1);
  EXPECT_EQ(test::ListDir(ea_, "KOVAFILE_THUMB_1").size(), internal::kMaxBoxThumbs);
  EXPECT_TRUE(test::Exists(ea_ + "/KOVAFILE_THUMB_111x111.jpg"));
  EXPECT_FALSE(test::Exists(ea_ + "/KOVAFILE_THUMB_100x100.jpg"));
  Thumb named(src_, 2, false);
  ASSERT_EQ(named.CalcOutputFile("small"), ea_ + "/KOVAFILE_THUMB_S.jpg");
  EXPECT_TRUE(named.DeleteOutputFile());
  EXPECT_FALSE(test::Exists(ea_ + "/KOVAFILE_THUMB_S.jpg"));
  ASSERT_EQ(named.CalcOutputFile("original"), src_);
  EXPECT_FALSE(named.DeleteOutputFile());  // never the source
  EXPECT_TRUE(test::Exists(src_));
  ExpectContained();
}

}  // namespace
}  // namespace kovathumb
