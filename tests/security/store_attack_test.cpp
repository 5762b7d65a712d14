// The library as root against a user who owns a folder of the tree: what
// they plant in EA directories is never followed, what the tools read is the
// file that was checked, nothing empty or stale is stored, and requests for
// arbitrary boxes cannot fill the disk.
#include <fcntl.h>
#include <sys/time.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "libkovathumb/store_rules.h"
#include "support/attacker.h"
#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::AsAttacker;
using test::Quote;

class StoreAttackRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KT_SKIP_UNLESS_ROOT();
    src_ = t_.mine + "/photo.jpg";
    ea_ = t_.mine + "/.kovaea/photo.jpg";
    outside_ = t_.top / "outside";
    secret_ = test::ReadFile(t_.secret);
    mkdir(outside_.c_str(), 0755);
    test::MustSh("/usr/bin/convert -size 1600x1200 xc:gray +noise Random -quality 95 " + Quote(src_));
    ASSERT_EQ(chown(src_.c_str(), test::kAttackerId, test::kAttackerId), 0);
  }
  // Sends `size` as root; the body, checked never to carry the secret.
  std::string Request(int options, const std::string& size = "small", int rotate = 0) {
    Thumb thumb(src_, options, false);
    thumb.Rotate(rotate);
    const std::string raw = test::CaptureStdout([&] { thumb.Output(size); });
    const std::string body = test::ParseResponse(raw).body;
    EXPECT_FALSE(t_.Leaks(body));
    return body;
  }
  // Nothing written outside the tree, the secret untouched, no work left
  // (the attacker's own links may stay).
  void ExpectContained() {
    struct stat st;
    ASSERT_EQ(stat(t_.secret.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(test::ReadFile(t_.secret), secret_) << "written through a link";
    EXPECT_EQ(test::Capture("ls -A " + Quote(outside_)), "");
    EXPECT_EQ(test::Capture("find " + Quote(t_.tree) + " \\( -name 'KOVAFILETMP*' -o -name '.kovathumb-*' \\) ! -type l"), "");
  }
  bool Plant(const std::string& what, const std::string& at) {
    const std::string ea = ea_, secret = t_.secret, outside = outside_, mine = t_.mine, src = src_;
    return AsAttacker([=] {
      // Their own photo as old as can be: whatever a link reaches is "up to date".
      const struct timeval old[2] = {{1, 0}, {1, 0}};
      if (utimes(src.c_str(), old) != 0) return false;
      const std::string path = what == "dotlink" ? mine + "/.kovaea" : ea + "/" + at;
      if (what != "dotlink" && system(("mkdir -p " + Quote(what == "ealink" ? mine + "/.kovaea" : ea)).c_str()) != 0) {
        return false;
      }
      if (what == "link") return symlink(secret.c_str(), path.c_str()) == 0;
      if (what == "fifo") return mkfifo(path.c_str(), 0666) == 0;
      if (what == "dir") return mkdir(path.c_str(), 0777) == 0;
      if (what == "empty") return close(open(path.c_str(), O_CREAT | O_WRONLY, 0666)) == 0;
      if (what == "ealink") return symlink(outside.c_str(), ea.c_str()) == 0;
      return symlink(outside.c_str(), path.c_str()) == 0;  // dotlink
    });
  }

  test::AttackTree t_;
  std::string src_, ea_, outside_, secret_;
};

TEST_F(StoreAttackRootTest, PlantedLinksFifosAndDirectoriesAreNeverFollowed) {
  struct Case {
    const char* what;
    std::string name;
    int options;
    int rotate;
  };
  for (const Case& c : {Case{"link", "KOVAFILE_THUMB_S.jpg", 2, 0}, Case{"link", "KOVAPHOTO_THUMB_S.jpg", 1, 1},
                        Case{"link", "KOVAFILETMP_THUMB_" + std::to_string(getpid()) + ".jpg", 2, 0},
                        Case{"fifo", "KOVAFILE_THUMB_S.jpg", 2, 0}, Case{"dir", "KOVAFILE_THUMB_S.jpg", 2, 0},
                        Case{"empty", "KOVAFILE_THUMB_S.jpg", 2, 0}, Case{"ealink", "", 2, 0},
                        Case{"dotlink", "", 2, 0}}) {
    SCOPED_TRACE(std::string(c.what) + " " + c.name);
    test::MustSh("rm -rf " + Quote(t_.mine + "/.kovaea"));
    ASSERT_TRUE(Plant(c.what, c.name));
    const time_t start = time(nullptr);
    Request(c.options, "small", c.rotate);
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
  // A source that is a link is no source.
  EXPECT_THROW(Thumb link(src_, 2, false), Error);
}

TEST_F(StoreAttackRootTest, NothingEmptyBrokenOrStaleIsStored) {
  Thumb thumb(src_, 2, false);
  ASSERT_FALSE(thumb.CalcOutputFile("small").empty());  // probes the source
  const std::string jpeg = t_.top / "ok.jpg";
  test::MakeImage(jpeg, 40, 30);
  const std::string full = test::ReadFile(jpeg);
  struct Case {
    std::string data;
    bool stored;
  };
  for (const Case& c : {Case{"", false}, Case{full.substr(0, full.size() / 2), false}, Case{"GIF89a;", false},
                        Case{full, true}}) {
    test::WriteFile(t_.top / "made.jpg", c.data);
    EXPECT_EQ(thumb.SaveThumbToEA(t_.top / "made.jpg", ea_ + "/KOVAFILE_THUMB_M.jpg", 0), c.stored);
  }
  // The source changed after the probe: the stamp is the probed time.
  const struct timeval old[2] = {{1600000000, 0}, {1600000000, 0}};
  ASSERT_EQ(utimes(src_.c_str(), old), 0);
  Thumb later(src_, 2, false);
  ASSERT_TRUE(AsAttacker([&] { return utimes(src_.c_str(), nullptr) == 0; }));
  ASSERT_FALSE(later.CalcOutputFile("big").empty());
  struct stat stored;
  ASSERT_EQ(stat((ea_ + "/KOVAFILE_THUMB_B.jpg").c_str(), &stored), 0);
  EXPECT_EQ(stored.st_mtime, 1600000000);
  ExpectContained();
}

TEST_F(StoreAttackRootTest, ArbitraryBoxesAreBoundedAndOutputsDeletedThroughTheDirectory) {
  Thumb thumb(src_, 0, false);
  for (unsigned edge = 100; edge < 112; ++edge) EXPECT_EQ(thumb.Convert({ThumbDimension{edge, edge}}), 1);
  const auto boxes = test::ListDir(ea_, "KOVAFILE_THUMB_1");
  EXPECT_EQ(boxes.size(), internal::kMaxBoxThumbs);
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
