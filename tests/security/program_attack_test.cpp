// The programs as root against a user who owns one folder of the served
// tree: links in request paths, names swapped during requests and during
// indexing, hard links, videos that name other files and folder chains
// thousands deep never lead outside the tree.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <algorithm>
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

// One FastCGI request with `params` on the Unix socket `path`: the
// response's bytes; "" when no connection could be made.
std::string Fcgi(const std::string& path, const std::map<std::string, std::string>& params) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return close(fd), "";
  const auto record = [](int type, const std::string& body) {
    const unsigned char head[8] = {1, static_cast<unsigned char>(type), 0, 1, static_cast<unsigned char>(body.size() >> 8),
                                   static_cast<unsigned char>(body.size()), 0, 0};
    return std::string(reinterpret_cast<const char*>(head), 8) + body;
  };
  std::string pairs;
  for (const auto& p : params) pairs += std::string{char(p.first.size()), char(p.second.size())} + p.first + p.second;
  const std::string out = record(1, std::string("\0\1\0\0\0\0\0\0", 8)) + record(4, pairs) + record(4, "") + record(5, "");
  (void)!write(fd, out.data(), out.size());
  std::string in, response;
  char buf[65536];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) in.append(buf, static_cast<size_t>(n));
  close(fd);
  for (size_t at = 0; at + 8 <= in.size();) {  // the stdout records' bodies
    const size_t length = (static_cast<unsigned char>(in[at + 4]) << 8) | static_cast<unsigned char>(in[at + 5]);
    if (in[at + 1] == 6) response.append(in, at + 8, length);
    at += 8 + length + static_cast<unsigned char>(in[at + 6]);
  }
  return response;
}

// Swaps two names atomically, as the attacker's loop does.
void Exchange(const std::string& a, const std::string& b) {
  (void)!renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
}

// Runs `fn` in a child that sees /proc/sys/fs/protected_hardlinks as 0, as
// on a system where anyone may hard-link anyone's files: its exit status,
// kNoNamespace where no private mount namespace can be had.
int WithoutLinkProtection(const std::string& scratch, const std::function<int()>& fn) {
  test::WriteFile(scratch, "0\n");
  const pid_t pid = fork();
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(scratch.c_str(), "/proc/sys/fs/protected_hardlinks", nullptr, MS_BIND, nullptr) != 0) {
      _exit(test::kNoNamespace);
    }
    _exit(fn());
  }
  return test::WaitExit(pid);
}

// Lines of `kovathumb ARGS` run as root; its exit status.
int RunCli(const std::string& args, std::string* out, std::string* err = nullptr) {
  test::TempDir tmp;
  const int status = test::Sh("ulimit -n 64 && " KOVATHUMB_CLI " " + args + " >" + Quote(tmp / "out") + " 2>" +
                              Quote(tmp / "err"));
  *out = test::ReadFile(tmp / "out");
  if (err != nullptr) *err = test::ReadFile(tmp / "err");
  return status;
}

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
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
    ASSERT_TRUE(test::ShAsAttacker("cd " + Quote(t_.mine) + " && ln -s " + Quote(t_.secret) + " out.jpg && ln -s " + Quote(sibling_) +
                                   " sib && ln -s " + Quote(t_.top.path()) + " up && ln -s keep.jpg in.jpg && ln keep.jpg p.jpg && ln -s " +
                                   Quote(t_.secret) + " x.jpg && mkdir d && ln keep.jpg d/p.jpg && ln -s " + Quote(sibling_) +
                                   " x && ln -s d inside"));
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
  ASSERT_TRUE(test::ShAsAttacker("cd " + Quote(t_.mine) + " && mkdir -p .kovaea/keep.jpg && ln -s " + Quote(t_.secret) +
                                 " .kovaea/keep.jpg/KOVAFILE_THUMB_S.jpg"));
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

TEST_F(ProgramAttackRootTest, FastCgiServesOnlyTheAdministratorsRootToOnlyItsWebServer) {
  // The socket is root's alone: the attacker cannot even connect. A request
  // naming another root (the sibling, the top) is answered from the tree.
  const std::string sock = t_.top / "fcgi.sock";
  const pid_t server = fork();
  if (server == 0) {
    setenv("KOVATHUMB_ROOT", t_.tree.c_str(), 1);
    execl(KOVATHUMB_FCGI_BIN, "kovathumb-fcgi", "--workers", "1", "--socket", sock.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto ask = [&](const std::string& root, const std::string& query) {
    return test::ParseResponse(Fcgi(sock, {{"REQUEST_METHOD", "GET"}, {"KOVATHUMB_ROOT", root}, {"QUERY_STRING", query}}));
  };
  ASSERT_TRUE(test::WaitFor([&] { return ask(t_.tree, "path=alice/keep.jpg&size=small").complete; }, 30));
  EXPECT_EQ(test::Stat(sock).st_mode & 0777, 0600u);
  EXPECT_FALSE(test::AsAttacker([&] { return !Fcgi(sock, {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "list=1"}}).empty(); }));
  for (const std::string& root : {sibling_, t_.top.path(), std::string("/")}) {
    const test::Response r = ask(root, "path=p.jpg&size=small");
    EXPECT_TRUE(r.complete && r.status == 404) << root;
    const test::Response list = ask(root, "list=1");
    EXPECT_TRUE(list.body.find("alice/keep.jpg") != std::string::npos && !t_.Leaks(list.raw)) << root;
  }
  kill(server, SIGTERM);
  EXPECT_EQ(test::WaitExit(server), 0);
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
  const std::string m = t_.mine;
  // Planted in EA folders: a stored name linked to the secret, an EA folder linked outside.
  ASSERT_TRUE(test::ShAsAttacker("cd " + Quote(m) + " && mkdir -p .kovaea/keep.jpg && ln -s " + Quote(t_.secret) +
                                 " .kovaea/keep.jpg/KOVAFILE_THUMB_B.jpg && ln -s " + Quote(sibling_) + " .kovaea/p.jpg"));
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

// A text file named as a video that lists a root-only video outside the
// tree, by every way of naming it, is refused by index, watch and the CGI
// alike; a real video beside it still gets its screenshot.
TEST_F(ProgramAttackRootTest, VideosThatNameOtherFilesAreRefused) {
  const std::string video = t_.top / "secret.ts", m = t_.mine;
  test::MustSh("ffmpeg -nostdin -v error -f lavfi -i color=c=magenta:size=160x120:rate=10:duration=1 -pix_fmt yuv420p " +
               Quote(video) + " && chmod 600 " + Quote(video));
  test::MustSh("ffmpeg -nostdin -v error -f lavfi -i testsrc=duration=1:size=160x120:rate=10 -pix_fmt yuv420p " +
               Quote(t_.top / "real.mp4"));
  const auto playlist = [](const std::string& segment) {
    return "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\n" + segment + "\n#EXT-X-ENDLIST\n";
  };
  const std::pair<std::string, std::string> planted[] = {
      {"rel.mp4", playlist("../../secret.ts")},         // from the playlist's folder
      {"proc.mov", playlist("../../.." + video)},       // from ffmpeg's name for it, /proc/<pid>/fd/
      {"abs.mp4", playlist(video)},
      {"url.m4v", playlist("file:" + video)},
      {"list.mkv", "ffconcat version 1.0\nfile '" + video + "'\n"}};
  const std::string real = test::ReadFile(t_.top / "real.mp4");
  // watch sees them arrive, index finds them after, the CGI is asked for them.
  const std::string out = t_.top / "watch.json", err = t_.top / "watch.err";
  const pid_t watch = test::StartCli("watch --json --settle 0.3 " + Quote(t_.tree), out, err);
  ASSERT_TRUE(test::WaitFor([&] { return test::Exists(m + "/.kovaea/keep.jpg"); }, 120)) << test::ReadFile(err);
  ASSERT_TRUE(test::AsAttacker([=] {
    for (const auto& p : planted) test::WriteFile(m + "/" + p.first, p.second);
    test::WriteFile(m + "/real.mp4", real);
    return true;
  }));
  const auto reported = [&] {
    const std::string lines = test::ReadFile(out);
    return lines.find("/alice/real.mp4\"") != std::string::npos &&
           std::all_of(std::begin(planted), std::end(planted),
                       [&](const auto& p) { return lines.find("/alice/" + p.first + "\"") != std::string::npos; });
  };
  EXPECT_TRUE(test::WaitFor(reported, 120)) << test::ReadFile(out);
  kill(watch, SIGTERM);
  EXPECT_EQ(test::WaitExit(watch), 0) << test::ReadFile(err);
  std::string index;
  EXPECT_EQ(RunCli("index --no-progress --json -j 2 " + Quote(t_.tree), &index), 1);
  const std::string shot = "/KOVAVIDEO_VIDEO_SCREENSHOT.jpg";
  EXPECT_EQ(Count(index, "not a video container we read: refused"), 5) << index;
  EXPECT_GE(Count(test::ReadFile(out), "not a video container we read: refused"), 5);
  for (const auto& p : planted) {
    EXPECT_FALSE(test::Exists(m + "/.kovaea/" + p.first)) << p.first;  // nothing stored, nothing left
    const test::Response r = Cgi(t_.tree, "path=alice/" + p.first + "&size=small");
    EXPECT_NE(r.status, 200) << p.first;
    EXPECT_FALSE(t_.Leaks(r.raw)) << p.first;
  }
  EXPECT_EQ(test::ImageSize(m + "/.kovaea/real.mp4" + shot), std::make_pair(160u, 120u));
  EXPECT_EQ(Cgi(t_.tree, "path=alice/real.mp4&size=small").status, 200);
  EXPECT_EQ(test::EALeftovers(t_.tree), "");
  ExpectOutsideUntouched();
}

// Where the kernel does not stop users hard-linking others' files, a file
// with links elsewhere is not read: by the CGI or by index.
TEST_F(ProgramAttackRootTest, HardLinkedSourcesAreRefusedWithoutTheKernelsProtection) {
  // With it, the kernel refuses the link itself.
  const std::string m = t_.mine, secret = t_.secret;
  if (test::ReadFile("/proc/sys/fs/protected_hardlinks") == "1\n") {
    EXPECT_FALSE(test::AsAttacker([=] { return link(secret.c_str(), (m + "/s.jpg").c_str()) == 0; }));
  }
  test::MakePhoto(m + "/single.jpg", 1200, 900);
  const std::string sendfile = t_.top / "sendfile";
  ASSERT_EQ(mkdir(sendfile.c_str(), 0700), 0);
  const int status = WithoutLinkProtection(t_.top / "off", [&] {
    int failures = 0;
    const std::pair<const char*, int> paths[] = {{"alice/p.jpg", 403}, {"alice/keep.jpg", 403}, {"alice/single.jpg", 200}};
    for (const char* bin : {KOVATHUMB_CGI_BIN, KOVATHUMB_FCGI_BIN}) {
      for (const auto& c : paths) {
        const test::Response r = Cgi(t_.tree, std::string("path=") + c.first + "&size=small", bin, sendfile);
        failures += !r.complete || r.status != c.second;
      }
    }
    std::string out;
    failures += RunCli("index --no-progress --json --sizes small " + Quote(t_.tree), &out) != 1;
    failures += Count(out, "hard-linked elsewhere: refused") != 3;  // keep.jpg, p.jpg, d/p.jpg
    return failures;
  });
  if (status == test::kNoNamespace) GTEST_SKIP() << "needs root for a private mount namespace";
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(test::Exists(m + "/.kovaea/single.jpg") && !test::Exists(m + "/.kovaea/p.jpg"));
  ExpectOutsideUntouched();
}

// 20 000 nested folders made in a loop: index, prune, watch and the CGI's
// list walk them to the depth limit, say so once, and find a photo 500
// levels down with 64 descriptors to spare; watch follows a chain made
// while it runs as far. The chain lives on a tmpfs of
// the attacker's, which goes at once when unmounted.
TEST_F(ProgramAttackRootTest, AChainOfFoldersThousandsDeepIsWalkedToItsLimit) {
  const std::string chain = t_.mine + "/chain";
  ASSERT_EQ(mkdir(chain.c_str(), 0755), 0);
  if (mount("tmpfs", chain.c_str(), "tmpfs", 0, "size=64m,mode=0755,uid=65534,gid=65534") != 0) {
    GTEST_SKIP() << "needs a tmpfs";
  }
  struct Unmount {
    std::string at;
    ~Unmount() { umount2(at.c_str(), MNT_DETACH); }
  } unmount{chain};
  const std::string photo = test::ReadFile(t_.mine + "/keep.jpg");
  const auto makeChain = [&](const std::string& top, int depth, int photoAt) { return test::AsAttacker([=] {
    int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY);
    for (int level = 1; fd >= 0 && level <= depth; ++level) {
      if (mkdirat(fd, "d", 0755) != 0) return false;
      const int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
      close(fd);
      fd = next;
      if (level == photoAt || level == 1500) {
        const int f = openat(fd, level == photoAt ? "deep.jpg" : "beyond.jpg", O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (f < 0 || write(f, photo.data(), photo.size()) != static_cast<ssize_t>(photo.size())) return false;
        close(f);
      }
    }
    return fd >= 0 && close(fd) == 0;
  }); };
  ASSERT_TRUE(makeChain(chain, 20000, 500));
  const auto levels = [](int n) { std::string s; while (n-- > 0) s += "d/"; return s; };
  const std::string deep = "alice/chain/" + levels(500) + "deep.jpg";
  const std::string stored = t_.tree + "/alice/chain/" + levels(500) + ".kovaea/deep.jpg/KOVAFILE_THUMB_S.jpg";
  const std::string said = "1 folder deeper than 1024 levels not entered, the first: ";
  std::string out, err;
  EXPECT_EQ(RunCli("index --no-progress --json --sizes small " + Quote(t_.tree), &out, &err), 0) << err;
  EXPECT_EQ(Count(err, said), 1) << err;
  EXPECT_NE(err.find(t_.tree + "/alice/chain/d/d/"), std::string::npos) << err;
  EXPECT_NE(out.find("\"too_deep\":1"), std::string::npos) << out;
  EXPECT_TRUE(test::Exists(stored));
  const std::string beyond = chain + "/" + levels(1500);
  EXPECT_TRUE(test::Exists(beyond + "beyond.jpg") && !test::Exists(beyond + ".kovaea"));
  EXPECT_EQ(RunCli("prune " + Quote(t_.tree), &out, &err), 0);
  EXPECT_EQ(Count(err, said), 1) << err;
  EXPECT_TRUE(test::Exists(stored));
  // Listed in path order: a folder's files where its name sorts ("chain" before "chain-0.jpg").
  test::MustSh("cp " + Quote(t_.mine + "/keep.jpg") + " " + Quote(t_.mine + "/chain-0.jpg"));
  const test::Response list = Cgi(t_.tree, "list=1");
  EXPECT_EQ(list.status, 200);
  EXPECT_LT(list.body.find(deep), list.body.find("alice/chain-0.jpg"));
  EXPECT_TRUE(list.body.find("alice/chain-0.jpg") != std::string::npos && list.body.find("beyond.jpg") == std::string::npos);
  EXPECT_EQ(Cgi(t_.tree, "path=" + deep + "&size=small").status, 200);
  // watch, made to store it again at its first look.
  ASSERT_EQ(unlink(stored.c_str()), 0);
  const std::string wout = t_.top / "watch.json", werr = t_.top / "watch.err";
  const pid_t watch = test::StartCli("watch --json --sizes small " + Quote(t_.tree), wout, werr);
  EXPECT_TRUE(test::WaitFor([&] { return test::Exists(stored) && Count(test::ReadFile(werr), said) == 1; }, 120))
      << test::ReadFile(werr);
  // And a chain made while it watches, a photo 600 levels into it.
  ASSERT_TRUE(test::AsAttacker([=] { return mkdir((chain + "/live").c_str(), 0755) == 0; }));
  ASSERT_TRUE(makeChain(chain + "/live", 2000, 600));
  const std::string live = chain + "/live/" + levels(600);
  EXPECT_TRUE(test::WaitFor([&] { return test::Exists(live + ".kovaea/deep.jpg/KOVAFILE_THUMB_S.jpg"); }, 120))
      << test::ReadFile(werr);
  kill(watch, SIGTERM);
  EXPECT_EQ(test::WaitExit(watch), 0);
  EXPECT_EQ(Count(test::ReadFile(werr), "deeper than"), 1);
  ExpectOutsideUntouched();
}

}  // namespace
}  // namespace kovathumb
