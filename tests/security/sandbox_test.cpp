// What a body run by sandbox::Run can reach, as root and as a user: only
// the files it was shown, no network, no way back to root; its processes
// end with it (a body that opens nothing starts none), and what it left in
// a writable directory is cleaned.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <thread>

#include "sandbox/sandbox.h"
#include "support/attacker.h"
#include "support/dng.h"
#include "thumb_info/probe.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace {

using test::Quote;

// What an exploit in the body tries; each entry answers true when it got through.
struct Attempt {
  const char* what;
  std::function<bool()> escapes;
};

bool ConnectsTo(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

// Runs every attempt in one body; "1" for each that escaped, "0" else.
std::string Attack(const sandbox::Spec& spec, const std::vector<Attempt>& attempts, sandbox::Outcome* outcome) {
  std::string reply;
  int status = -1;
  *outcome = sandbox::Run(spec, [&](int fd) {
    std::string r;
    for (const Attempt& a : attempts) r += a.escapes() ? '1' : '0';
    return write(fd, r.data(), r.size()) == static_cast<ssize_t>(r.size()) ? 0 : 1;
  }, &reply, 1024, &status);
  return reply;
}

class SandboxRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KT_SKIP_UNLESS_ROOT();
    test::MakePhoto(neighbour_, 64, 48);
    test::MakePhoto(mine_, 64, 48);
    ASSERT_EQ(chown(t_.mine.c_str(), test::kAttackerId, test::kAttackerId), 0);
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener_, 4), 0);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    source_.reset(open(mine_.c_str(), O_RDONLY | O_CLOEXEC));
    work_.CreateAt("/var/tmp/kovathumb-sandbox-test_XXXXXX");
    ASSERT_TRUE(source_.valid() && work_.valid());
  }
  void TearDown() override {
    if (listener_ >= 0) close(listener_);
  }

  std::vector<Attempt> Attempts() const {
    const std::string input = safe_fs::ToolPath(source_.get()), out = work_.ToolPath("out");
    return {
        {"read a root-only file outside the tree", [=] { return test::ReadFile(t_.secret).size() > 0; }},
        {"read a neighbour's photo", [=] { return test::ReadFile(neighbour_).size() > 0; }},
        {"create a file in the user's folder", [=] { return creat((t_.mine + "/dropped").c_str(), 0644) >= 0; }},
        {"create a file outside", [=] { return creat((t_.top / "dropped").c_str(), 0644) >= 0; }},
        {"connect to a loopback port", [=] { return ConnectsTo(port_); }},
        {"be root", [] { return getuid() == 0 || geteuid() == 0; }},
        {"become root again", [] { return setuid(0) == 0 || setresuid(0, 0, 0) == 0; }},
        {"trace another process", [] { return ptrace_attach_works(); }},
        {"make a namespace", [] { return unshare(CLONE_NEWUSER) == 0; }},
        {"regain privileges through exec", [] { return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) != 1; }},
        // What it must still be able to do, negated.
        {"not read its input by its pinned path", [=] { return test::ReadFile(input).size() == 0; }},
        {"not write its output", [=] { return test::Sh("echo x > " + Quote(out)) != 0; }},
    };
  }
  static bool ptrace_attach_works() { return ptrace_probe(); }
  static bool ptrace_probe();

  test::AttackTree t_;
  std::string neighbour_ = t_.tree + "/bob.jpg", mine_ = t_.mine + "/photo.jpg";
  int listener_ = -1, port_ = 0;
  safe_fs::Fd source_;
  safe_fs::PrivateDir work_;
};

bool SandboxRootTest::ptrace_probe() {
  const pid_t parent = getppid();
  return parent > 1 && syscall(SYS_ptrace, 16 /* PTRACE_ATTACH */, parent, 0, 0) == 0;
}

TEST_F(SandboxRootTest, EveryAttemptFailsAsRootAndAsAUser) {
  const std::vector<Attempt> attempts = Attempts();
  for (bool asUser : {false, true}) {
    sandbox::Spec spec;
    unsigned applied = 0;
    spec.visible = {source_.get()};
    spec.writable = {work_.fd()};
    spec.applied = &applied;
    std::string reply;
    sandbox::Outcome outcome = sandbox::kNoChild;
    if (asUser) {
      // A caller that is not root to begin with: what it can apply, it does.
      const int status = test::WithStandIns({}, [&] {
        if (setresuid(test::kAttackerId, test::kAttackerId, test::kAttackerId) != 0) return 9;
        reply = Attack(spec, {attempts[0], attempts[4], attempts[6], attempts[8], attempts[9]}, &outcome);
        return reply == "00000" && outcome == sandbox::kExited &&
                       applied == (sandbox::kUnprivileged | sandbox::kNoCapabilities | sandbox::kNoNewPrivs |
                                   sandbox::kSyscallFilter)
                   ? 0
                   : 1;
      });
      if (status != test::kNoNamespace) {
        EXPECT_EQ(status, 0) << "as a user";
      }
      continue;
    }
    reply = Attack(spec, attempts, &outcome);
    ASSERT_EQ(outcome, sandbox::kExited);
    ASSERT_EQ(reply.size(), attempts.size());
    for (size_t i = 0; i < attempts.size(); ++i) EXPECT_EQ(reply[i], '0') << attempts[i].what;
    // Each mechanism this kernel lacks is named.
    for (auto [bit, name] : std::vector<std::pair<unsigned, const char*>>{
             {sandbox::kUnprivileged, "sandbox account"}, {sandbox::kNoCapabilities, "capabilities dropped"},
             {sandbox::kNoNewPrivs, "no_new_privs"}, {sandbox::kSyscallFilter, "seccomp"},
             {sandbox::kNamespaces, "namespaces"}, {sandbox::kPidNamespace, "PID namespace"},
             {sandbox::kFileView, "file view"}}) {
      EXPECT_NE(applied & bit, 0u) << "missing on this kernel: " << name;
    }
    // The output is there for root to check, and only it.
    EXPECT_EQ(test::ReadFile(work_.path() + "/out"), "x\n");
  }
  EXPECT_FALSE(test::Exists(t_.mine + "/dropped") || test::Exists(t_.top / "dropped"));
  EXPECT_TRUE(test::Stat(work_.path()).st_uid == 0 && (test::Stat(work_.path()).st_mode & 07777) == 0700);

  // A body that opens nothing by name: the same escapes fail, and it can
  // start no process; it still reads its input, writes its output and
  // runs threads, through what it was handed.
  std::vector<Attempt> lean(attempts.begin(), attempts.end() - 2);
  const int in = source_.get(), out = work_.fd();
  lean.push_back({"fork", [] {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    return pid > 0 && waitpid(pid, nullptr, 0) == pid;
  }});
  lean.push_back({"exec", [] {
    char* const argv[] = {nullptr};
    return execve("/nonexistent", argv, argv) != 0 && errno != EPERM;
  }});
  lean.push_back({"see any file by name", [] { return access("/usr", F_OK) == 0 || access("/etc/passwd", F_OK) == 0; }});
  lean.push_back({"not read its input", [in] { char b[16]; return pread(in, b, sizeof b, 0) != sizeof b; }});
  lean.push_back({"not write its output", [out] {
    return openat(out, "lean", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600) < 0;
  }});
  lean.push_back({"not run a thread", [] {
    bool ran = false;
    std::thread([&] { ran = true; }).join();
    return !ran;
  }});
  sandbox::Spec spec;
  unsigned applied = 0;
  spec.keep = {in, out};
  spec.writable = {out};
  spec.opensNothing = true;
  spec.applied = &applied;
  sandbox::Outcome outcome = sandbox::kNoChild;
  EXPECT_EQ(Attack(spec, lean, &outcome), std::string(lean.size(), '0'));
  EXPECT_EQ(outcome, sandbox::kExited);
  EXPECT_EQ(applied, sandbox::kUnprivileged | sandbox::kNoCapabilities | sandbox::kNoNewPrivs |
                         sandbox::kSyscallFilter | sandbox::kNamespaces | sandbox::kFileView | sandbox::kNoChildren);
  EXPECT_TRUE(test::Exists(work_.path() + "/lean"));
}

TEST_F(SandboxRootTest, LeftoversDieAndWhatWasPlantedIsRemoved) {
  sandbox::Spec spec;
  spec.writable = {work_.fd()};
  spec.limits.wallSeconds = 2;
  const std::string dir = work_.ToolPath("");
  const auto shell = [](const std::string& script) {
    return [script](int) { return execl("/bin/sh", "sh", "-c", script.c_str(), nullptr); };
  };
  const std::vector<std::tuple<const char*, std::function<int(int)>, sandbox::Outcome>> cases = {
      {"a crash", [](int) -> int { __builtin_trap(); }, sandbox::kKilled},
      {"a hang", shell("exec sleep 100"), sandbox::kTimedOut},
      {"a daemon left behind, links and a FIFO planted",
       shell("cd " + dir + " && ln -s /etc/shadow thumb.jpg; mkfifo pipe; mkdir sub; echo y > ok; "
             "(setsid sleep 987.6 &) ; exit 0"),
       sandbox::kExited},
  };
  for (const auto& [what, body, outcome] : cases) {
    int status = -1;
    EXPECT_EQ(sandbox::Run(spec, body, nullptr, 0, &status), outcome) << what;
  }
  EXPECT_EQ(test::Capture("ls -A " + Quote(work_.path())), "ok\n");
  EXPECT_EQ(test::Capture("pgrep -f 'slee[p] 987.6'"), "");
}


// Every tool replaced by a hostile stand-in that tries what an exploit
// would and says on standard error what got through; the programs run as
// root, in both behaviours, through each front end.
TEST_F(SandboxRootTest, HostileToolsGetNothingThroughAnyFrontEnd) {
  const std::string tree = t_.tree, out = t_.top / "out", err = t_.top / "err";
  test::MakePhoto(t_.mine + "/turned.jpg", 1600, 1200, 6);
  test::MakeImage(t_.mine + "/pic.png", 900, 600);
  test::MustSh("ffmpeg -v quiet -f lavfi -i testsrc=size=320x240:rate=5 -t 1 " + Quote(t_.mine + "/clip.mp4"));
  test::WriteFile(t_.mine + "/raw.dng", test::MakeDng(256, 192, "", 0, 0), 0644);
  // The gallery's stored thumbnail, which jpegtran turns for the user.
  test::MakePhoto(t_.mine + "/gallery.jpg", 64, 48);
  test::MustSh("mkdir -p " + Quote(t_.mine + "/.kovaea/gallery.jpg"));
  test::MakeImage(t_.mine + "/.kovaea/gallery.jpg/KOVAPHOTO_THUMB_B.jpg", 64, 48);
  test::MustSh("chown -R 65534:65534 " + Quote(t_.mine));
  const std::string script =
      "t=$(basename \"$0\"); r=\n"
      "cat " + Quote(t_.secret) + " >/dev/null 2>&1 && r=\"$r secret\"\n"
      "cat " + Quote(neighbour_) + " >/dev/null 2>&1 && r=\"$r neighbour\"\n"
      "touch " + Quote(t_.top / "pwned") + " 2>/dev/null && r=\"$r outside\"\n"
      "touch " + Quote(t_.mine + "/pwned") + " 2>/dev/null && r=\"$r folder\"\n"
      "bash -c 'exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port_) + "' 2>/dev/null && r=\"$r network\"\n"
      "[ \"$(id -u)\" = 0 ] && r=\"$r root\"\n"
      "echo \"stand-in $t escaped:[$r]\" >&2\nexit 1\n";
  std::map<std::string, std::string> standIns;
  for (const char* tool : {"djpeg", "cjpeg", "convert", "dcraw", "jpegtran", "heif-convert", "ffmpeg"}) {
    standIns[std::string("/usr/bin/") + tool] = script;
  }
  const std::string env = "KOVATHUMB_LOG_STDERR=1 ";
  struct FrontEnd {
    const char* name;
    std::vector<std::string> commands;  // each run with standard error to `err`
    std::vector<const char*> tools;     // whose stand-ins must have run
  };
  std::vector<FrontEnd> frontEnds;
  for (const char* bin : {KOVATHUMB_CGI_BIN, KOVATHUMB_FCGI_BIN}) {
    // What the CGI made first is stored: the FastCGI program's requests of
    // the appliance's JPEG are answered from the store.
    const bool cgi = bin == std::string(KOVATHUMB_CGI_BIN);
    FrontEnd f{cgi ? "cgi" : "fcgi", {}, cgi ? std::vector<const char*>{"djpeg", "convert", "dcraw"}
                                             : std::vector<const char*>{"convert", "dcraw"}};
    for (const char* file : {"turned.jpg", "pic.png", "raw.dng"}) {
      for (const char* quality : {"0", "1"}) {
        f.commands.push_back(env + "REQUEST_METHOD=GET KOVATHUMB_ROOT=" + Quote(tree) + " QUERY_STRING=" +
                             Quote(std::string("path=alice/") + file + "&size=big&quality=" + quality) + " " + bin);
      }
    }
    frontEnds.push_back(f);
  }
  frontEnds.push_back({"gallery turned by the user", {env + "REQUEST_METHOD=GET KOVATHUMB_ROOT=" + Quote(tree) +
                       " QUERY_STRING='path=alice/gallery.jpg&size=big&app=pictavo&rotate=1' " KOVATHUMB_CGI_BIN}, {"jpegtran"}});
  frontEnds.push_back({"index",
                       {env + KOVATHUMB_CLI " index --no-progress --sizes big " + Quote(tree),
                        env + KOVATHUMB_CLI " index --no-progress --quality --sizes big " + Quote(tree)},
                       {"convert", "dcraw", "ffmpeg"}});  // the JPEG's thumbnail is stored by now
  // watch, until its stand-ins have spoken (the sources touched meanwhile, so it has work).
  FrontEnd watch{"watch", {}, {"djpeg", "convert", "dcraw"}};
  for (const char* mode : {"--appliance", ""}) {
    watch.commands.push_back(
        "sh -c " + Quote(env + KOVATHUMB_CLI " watch --settle 0 --sizes big " + mode + " " + Quote(tree) +
                         " 2>>" + Quote(err) + " & w=$!; i=0; while [ $i -lt 300 ] && ! { grep -q 'stand-in djpeg' " +
                         Quote(err) + " && grep -q 'stand-in dcraw' " + Quote(err) + "; }; do touch " +
                         Quote(t_.mine) + "/*.*; sleep 0.2; i=$((i+1)); done; kill $w; wait $w"));
  }
  frontEnds.push_back(watch);
  for (const FrontEnd& f : frontEnds) {
    const int status = test::WithStandIns(standIns, [&] {
      for (const std::string& c : f.commands) test::Sh(c + " >" + Quote(out) + " 2>>" + Quote(err));
      return 0;
    });
    if (status == test::kNoNamespace) GTEST_SKIP() << "needs a private mount namespace";
    const std::string said = test::ReadFile(err);
    for (const char* tool : f.tools) {
      EXPECT_NE(said.find(std::string("stand-in ") + tool + " escaped:[]"), std::string::npos) << f.name << " " << tool;
    }
    EXPECT_EQ(said.find("escaped:[ "), std::string::npos) << f.name << "\n" << said;
    EXPECT_FALSE(t_.Leaks(test::ReadFile(out))) << f.name;
    unlink(err.c_str());
  }
  EXPECT_FALSE(test::Exists(t_.top / "pwned") || test::Exists(t_.mine + "/pwned"));
  EXPECT_FALSE(t_.Leaks(test::Capture("find " + Quote(tree) + " -path '*.kovaea*' -type f | xargs -r cat")));
  // Nobody reached the listener.
  fcntl(listener_, F_SETFL, O_NONBLOCK);
  EXPECT_LT(accept(listener_, nullptr, nullptr), 0);
}

// The process that has just read a source's bytes with Exiv2 tries the
// same escapes; the probe answers only when none got through.
TEST_F(SandboxRootTest, TheProbeReadsWithoutRootUnderTheFilter) {
  const std::vector<Attempt> attempts = Attempts();
  for (bool preview : {false, true}) {
    const internal::ProbeRequest request{
        source_.get(), mine_, safe_fs::SelfPath(source_.get()), true, preview,
        [](const std::vector<internal::PreviewProps>&) { return -1; },
        [&](Exiv2::Image&) {
          for (size_t i = 0; i + 2 < attempts.size(); ++i) {
            if (attempts[i].escapes()) return 100 + static_cast<int>(i);
          }
          return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1 ? 0 : 99;
        }};
    const internal::Probed p = internal::ProbeInSandbox(request, 8);
    EXPECT_FALSE(p.failed) << p.text;
    EXPECT_TRUE(p.mime == "image/jpeg" && p.width == 64 && p.height == 48) << p.mime;
  }
}

// The programs as root with a stand-in exploit preloaded (support/
// read_spy.cpp): every process that read the source past its magic number,
// and there must be one, is another account's, without capabilities, under
// no_new_privs and the filter. The sandbox's children are forks: they carry it.
TEST_F(SandboxRootTest, APreloadedExploitReadsTheSourceOnlyUnprivileged) {
  const std::string jpg = t_.mine + "/spy.jpg", jxl = t_.mine + "/spy.jxl", err = t_.top / "spy.err";
  test::MakePhoto(jpg, 1600, 1200, 6);
  test::MustSh("cjxl -q 90 " + Quote(jpg) + " " + Quote(jxl) + " >/dev/null 2>&1");
  for (const auto& [source, command] : {std::pair(jpg, "get --dossiva big"), {jpg, "get --quality big"},
                                        {jxl, "get --quality big"}, {jpg, "index --no-progress --sizes big"}}) {
    const std::string target = std::string(command).find("index") == 0 ? t_.mine : source;
    // Sanitized builds: the preloaded module comes before their runtime.
    test::Sh("rm -rf " + Quote(t_.mine + "/.kovaea") +
             "; ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0 KOVATHUMB_LOG_STDERR=1 "
             "LD_PRELOAD=" KOVATHUMB_READ_SPY " KT_SPY_SOURCE=" + Quote(source) + " " KOVATHUMB_CLI " " + command + " " +
             Quote(target) + " >/dev/null 2>" + Quote(err));
    const std::string spied = "grep -a 'kt-spy:' " + Quote(err);
    EXPECT_NE(test::Capture(spied), "") << command << " " << source;
    EXPECT_EQ(test::Capture(spied + " | grep -Evx 'kt-spy: uid=[1-9][0-9]* euid=[1-9][0-9]* capeff=0 nnp=1 seccomp=2'"), "")
        << command << " " << source;
  }
}

// What a child may answer is checked field by field; and the descriptors a
// tool's arguments name are found wherever the argument puts them.
TEST(SandboxAnswerTest, MalformedAnswersAndPinnedArguments) {
  internal::Probed good;
  good.mime = "image/jpeg";
  good.width = 10;
  good.previewFound = true;
  good.extension = ".jpg";
  good.data = "bytes";
  good.previewsListed = true;
  good.previews = {{"image/jpeg", 160, 120}, {"image/tiff", 1616, 1080}};
  const std::string encoded = internal::Encode(good);
  internal::Probed back;
  ASSERT_TRUE(internal::Decode(encoded, &back));
  EXPECT_TRUE(back.mime == good.mime && back.width == 10 && back.extension == ".jpg" && back.data == "bytes");
  EXPECT_TRUE(back.previewsListed && back.previews.size() == 2 && back.previews[1].mimeType == "image/tiff" &&
              back.previews[1].height == 1080);
  const auto with = [&](const std::function<void(internal::Probed*)>& change) {
    internal::Probed p = good;
    change(&p);
    return internal::Encode(p);
  };
  for (const std::string& bad : {encoded.substr(0, encoded.size() - 1), encoded + "x",
                                 with([](internal::Probed* p) { p->extension = "/../x"; }),
                                 with([](internal::Probed* p) { p->mime = std::string(200, 'm'); }),
                                 with([](internal::Probed* p) { p->index = 65; }),
                                 with([](internal::Probed* p) { p->previews.resize(17); }),
                                 with([](internal::Probed* p) { p->previews[0].mimeType.resize(200, 'm'); }),
                                 std::string()}) {
    EXPECT_FALSE(internal::Decode(bad, &back)) << bad.size();
  }
  const std::string me = "/proc/" + std::to_string(getpid()) + "/fd/";
  EXPECT_EQ(sandbox::PinnedDescriptors({"/usr/bin/convert", "jpeg:" + me + "7[0]", me + "12/out.jpg", me + "7",
                                        "/proc/1/fd/3", me, me + "x", "-scale"}),
            (std::vector<int>{7, 12}));
}

}  // namespace
}  // namespace kovathumb
