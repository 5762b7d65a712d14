// The programs as root against a user who owns one folder of the served
// tree: links in request paths, names swapped during requests and during
// indexing never lead outside the tree.
#include <errno.h>
#include <fcntl.h>

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "front_end/pin.h"
#include "support/attacker.h"

namespace kovathumb {
namespace {

using test::Quote;

// `bin` answering one CGI request; kovathumb-fcgi, run so, hands stored
// thumbnails over as copies in `sendfile`.
test::Response Cgi(const std::string& root, const std::string& query, const char* bin = KOVATHUMB_CGI_BIN,
                   const std::string& sendfile = "") {
  return test::ParseResponse(test::Capture("REQUEST_METHOD=GET KOVATHUMB_ROOT=" + Quote(root) + " QUERY_STRING=" +
                                           Quote(query) + " KOVATHUMB_SENDFILE_DIR=" + Quote(sendfile) + " " +
                                           bin + " 2>/dev/null"));
}

// Swaps two names atomically, as the attacker's loop does.
void Exchange(const std::string& a, const std::string& b) {
  (void)!renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
}

class ProgramAttackRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KT_SKIP_UNLESS_ROOT();
    // A sibling whose name shares the tree's prefix, holding a copy of the secret.
    mkdir(sibling_.c_str(), 0700);
    test::MustSh("cp -p " + Quote(t_.secret) + " " + Quote(sibling_ + "/p.jpg"));
    test::MakePhoto(t_.mine + "/keep.jpg", 1200, 900);
    ASSERT_EQ(chown((t_.mine + "/keep.jpg").c_str(), test::kAttackerId, test::kAttackerId), 0);
    const std::string m = t_.mine, secret = t_.secret, sibling = sibling_, top = t_.top.path();
    ASSERT_TRUE(test::AsAttacker([=] {
      return test::Sh("cd " + Quote(m) + " && ln -s " + Quote(secret) + " out.jpg && ln -s " + Quote(sibling) + " sib && ln -s " +
                      Quote(top) + " up && ln -s keep.jpg in.jpg && ln keep.jpg p.jpg && ln -s " + Quote(secret) +
                      " x.jpg && mkdir d && ln keep.jpg d/p.jpg && ln -s " + Quote(sibling) + " x && ln -s d inside") == 0;
    }));
  }
  // Nothing outside the tree gained an EA directory or changed.
  void ExpectOutsideUntouched() {
    for (const std::string& dir : {t_.top.path(), sibling_}) EXPECT_FALSE(test::Exists(dir + "/.kovaea")) << dir;
    EXPECT_TRUE(test::Stat(t_.secret).st_uid == 0 && (test::Stat(t_.secret).st_mode & 07777) == 0600);
  }
  test::AttackTree t_;
  std::string sibling_ = t_.tree + "2";
};

TEST_F(ProgramAttackRootTest, LinksInRequestPathsAndListsAreRefused) {
  // A stored thumbnail's name planted as a link to the secret.
  const std::string m = t_.mine, secret = t_.secret;
  ASSERT_TRUE(test::AsAttacker([=] {
    return test::Sh("mkdir -p " + Quote(m + "/.kovaea/keep.jpg") + " && ln -s " + Quote(secret) + " " +
                    Quote(m + "/.kovaea/keep.jpg/KOVAFILE_THUMB_S.jpg")) == 0;
  }));
  EXPECT_EQ(Cgi(t_.tree, "path=alice/keep.jpg&size=small").status, 200);
  const std::string sendfile = t_.top / "sendfile";
  ASSERT_EQ(mkdir(sendfile.c_str(), 0700), 0);
  const std::pair<const char*, int> paths[] = {
      {"alice/out.jpg", 403}, {"alice/sib/p.jpg", 403}, {"alice/up/secret.jpg", 403}, {"alice/in.jpg", 403},
      {"../tree2/p.jpg", 403}, {"alice/../../tree2/p.jpg", 403}, {"alice/x/p.jpg", 403},
      {"alice/.kovaea/keep.jpg/KOVAFILE_THUMB_S.jpg", 403}, {"/etc/passwd", 400}, {"alice/none.jpg", 404},
      {"alice/d", 404}, {"alice/keep.jpg/x.jpg", 404}, {"alice/inside/p.jpg", 403}, {"alice/keep.jpg&quality=0", 200},
      {"alice/d/p.jpg&quality=0", 200}};
  for (const char* bin : {KOVATHUMB_CGI_BIN, KOVATHUMB_FCGI_BIN}) {
    for (const auto& c : paths) {
      test::Response r = Cgi(t_.tree, std::string("path=") + c.first + "&size=small", bin, sendfile);
      EXPECT_EQ(r.status, c.second) << c.first << " " << bin;
      EXPECT_FALSE(t_.Leaks(r.raw)) << c.first << " " << bin;
      // Only ever a private copy, never the secret's bytes.
      const std::string handed = r.headers["x-sendfile"];
      EXPECT_TRUE(handed.empty() || (handed.compare(0, sendfile.size() + 1, sendfile + "/") == 0 &&
                                     !t_.Leaks(test::ReadFile(handed)) && !test::ReadFile(handed).empty()))
          << c.first << ": " << handed;
    }
  }
  // Handed over: what the CGI stored, over the planted link too; a copy cut short, never again.
  EXPECT_EQ(test::ListDir(sendfile).size(), 2u);
  for (const std::string& f : test::ListDir(sendfile)) EXPECT_EQ(truncate((sendfile + "/" + f).c_str(), 1), 0);
  test::Response again = Cgi(t_.tree, "path=alice/keep.jpg&size=small&quality=0", KOVATHUMB_FCGI_BIN, sendfile);
  EXPECT_EQ(test::ReadFile(again.headers["x-sendfile"]),
            test::ReadFile(t_.mine + "/.kovaea/keep.jpg/KOVAFILE_THUMB_S.jpg"));
  const test::Response list = Cgi(t_.tree, "list=1");
  EXPECT_NE(list.body.find("\"alice/keep.jpg\""), std::string::npos);
  for (const char* name : {"out.jpg", "sib", "up/", "in.jpg", "x.jpg", "x/", ".kovaea"}) {
    EXPECT_EQ(list.body.find(name), std::string::npos) << name;
  }
  // Both ways of opening beneath the root agree; a link is never crossed.
  const int root = open(t_.tree.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  const std::pair<const char*, int> cases[] = {{"alice/d", 0}, {"alice/sib", ELOOP}, {"alice/up", ELOOP},
                                               {"../tree2", EXDEV}, {"alice/inside", ELOOP},
                                               {"alice/none", ENOENT}, {"alice/keep.jpg", ENOTDIR}};
  for (bool walk : {false, true}) {
    for (const auto& c : cases) {
      const int fd = tool::OpenDirBeneath(root, c.first, walk);
      EXPECT_EQ(fd >= 0 ? 0 : errno, c.second) << c.first << (walk ? " (walk)" : "");
      if (fd >= 0) close(fd);
    }
  }
  close(root);
  // The command line: a link is refused, a name with a leading dash is a name.
  const std::string cd = "cd " + Quote(t_.mine) + " && " KOVATHUMB_CLI " ";
  EXPECT_NE(test::Sh(cd + "get small out.jpg >/dev/null 2>&1"), 0);
  EXPECT_NE(test::Sh(cd + "make --sizes small out.jpg >/dev/null"), 0);
  test::MustSh("cp " + Quote(t_.mine + "/keep.jpg") + " " + Quote(t_.mine + "/-dash.jpg"));
  EXPECT_EQ(test::Capture(cd + "get small -- -dash.jpg | head -c 5 | wc -c"), "5\n");
  ExpectOutsideUntouched();
}

TEST_F(ProgramAttackRootTest, SwappingLinksIntoPlaceDuringRequestsNeverReachesOutside) {
  const std::string m = t_.mine;
  test::AttackerLoop swapper([m] {
    Exchange(m + "/p.jpg", m + "/x.jpg");  // the photo and a link to the secret
    Exchange(m + "/d", m + "/x");          // a folder and a link to the sibling
  });
  const auto start = std::chrono::steady_clock::now();
  int requests = 0, answered = 0;
  while ((swapper.Rounds() < 1000 || requests < 40) && std::chrono::steady_clock::now() - start < std::chrono::seconds(90)) {
    const test::Response r = Cgi(t_.tree, requests % 2 ? "path=alice/p.jpg&edge=" + std::to_string(60 + requests % 7)
                                                       : "path=alice/d/p.jpg&size=small");
    answered += r.status == 200;
    ASSERT_FALSE(t_.Leaks(r.raw)) << "request " << requests;
    ++requests;
  }
  EXPECT_GE(swapper.Rounds(), 1000);
  EXPECT_GT(answered, 0);
  ExpectOutsideUntouched();
}

TEST_F(ProgramAttackRootTest, IndexWithLinksAndSwappedFoldersStaysInTheTree) {
  const std::string m = t_.mine, secret = t_.secret, sibling = sibling_;
  // Planted in EA folders: a stored name linked to the secret, an EA folder linked outside.
  ASSERT_TRUE(test::AsAttacker([=] {
    return test::Sh("cd " + Quote(m) + " && mkdir -p .kovaea/keep.jpg && ln -s " + Quote(secret) +
                    " .kovaea/keep.jpg/KOVAFILE_THUMB_B.jpg && ln -s " + Quote(sibling) + " .kovaea/p.jpg") == 0;
  }));
  test::AttackerLoop swapper([m] { Exchange(m + "/d", m + "/x"); });
  test::Sh(KOVATHUMB_CLI " index --no-progress -j 2 --sizes small,big " + Quote(t_.tree) + " >/dev/null");
  EXPECT_GT(swapper.Rounds(), 0);
  ExpectOutsideUntouched();
  EXPECT_EQ(test::ListDir(sibling_).size(), 1u);
  EXPECT_TRUE(S_ISREG(test::Stat(m + "/.kovaea/keep.jpg/KOVAFILE_THUMB_B.jpg").st_mode));
  std::istringstream stored(test::Capture("find " + Quote(t_.tree) + " -path '*/.kovaea/*' -type f"));
  int count = 0;
  for (std::string f; std::getline(stored, f); ++count) EXPECT_FALSE(t_.Leaks(test::ReadFile(f))) << f;
  EXPECT_GT(count, 0);
}

}  // namespace
}  // namespace kovathumb
