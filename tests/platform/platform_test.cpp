// The platform library: EA paths, copies, the children it runs, files sent as responses.
#include "kovaplatform/kovaplatform.h"
#include "kovaplatform/webfile_relay.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "front_end/send.h"
#include "support/test_util.h"

namespace {

using namespace kovathumb::test;
namespace tool = kovathumb::tool;

TEST(PlatformEATest, PathsAndRefusals) {
  char buf[4096];
  for (auto [src, path] : {std::pair("/dir/photo.jpg", "/dir/.kovaea/photo.jpg/NAME"), {"photo.jpg", ".kovaea/photo.jpg/NAME"}}) {
    ASSERT_GE(KOVAEAPath(0, src, "NAME", buf, sizeof buf, 0), 0);
    EXPECT_STREQ(buf, path);
  }
  ASSERT_EQ(KOVAEADirPath(0, "/dir/photo.jpg", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "/dir/.kovaea/photo.jpg");
  for (auto c : {std::make_pair("/dir/", "NAME"), {"", "NAME"}, {"/d/a.jpg", "../../etc/passwd"}, {"/d/a.jpg", ".."},
                 {"/d/a.jpg", ""}}) {
    EXPECT_LT(KOVAEAPath(0, c.first, c.second, buf, sizeof buf, 0), 0) << c.first << " " << c.second;
  }
  EXPECT_LT(KOVAEAPath(0, "/dir/a.jpg", "NAME", buf, 10, 0), 0);
  EXPECT_NE(KOVAEADirPath(0, "/dir/..", buf, sizeof buf), 0);
  TempDir dir;
  const std::string ea = dir.path() + "/.kovaea/a.jpg";
  EXPECT_NE(KOVAEAMKDir(0, ea.c_str()), 0);  // without flag 1 the parent must exist
  EXPECT_EQ(KOVAEAMKDir(1, ea.c_str()) + KOVAEAMKDir(1, ea.c_str()), 0);  // made, then there already
  WriteFile(dir.path() + "/.kovaea/b.jpg", "x");
  EXPECT_NE(KOVAEAMKDir(1, (dir.path() + "/.kovaea/b.jpg").c_str()), 0);
  EXPECT_EQ(KOVAGetFSType("/dev/shm", 0), KOVA_FS_TMPFS);
  EXPECT_EQ(KOVAGetFSType("/no/such/path", 0), -1);
}

TEST(PlatformCopyTest, CopyMoveAcrossFileSystemsAndNoTemporaryLeft) {
  TempDir dir;
  KOVA_FILE_COPY_OPT copy = {}, move = {};
  move.move = 1;
  WriteFile(dir / "a", "alpha", 0640);
  ASSERT_EQ(KOVAFileCopy((dir / "a").c_str(), (dir / "b").c_str(), &copy), 0);
  EXPECT_TRUE(ReadFile(dir / "b") == "alpha" && Exists(dir / "a") && (Stat(dir / "b").st_mode & 0777) == 0640u);
  ASSERT_EQ(KOVAFileCopy((dir / "a").c_str(), (dir / "c").c_str(), &move), 0);
  EXPECT_FALSE(Exists(dir / "a"));
  // /dev/shm is a tmpfs, a file system of its own: rename fails with EXDEV.
  const std::string shm = "/dev/shm/kovathumb_test_" + std::to_string(getpid());
  ASSERT_EQ(KOVAFileCopy((dir / "c").c_str(), shm.c_str(), &move), 0);
  EXPECT_TRUE(!Exists(dir / "c") && ReadFile(shm) == "alpha");
  EXPECT_NE(KOVAFileCopy((dir / "missing").c_str(), (dir / "d").c_str(), &copy), 0);
  EXPECT_NE(KOVAFileCopy(dir.path().c_str(), (dir / "d").c_str(), &copy), 0);  // a directory
  // The temporary copy is made, then cannot take the place of a directory.
  MustSh("mkdir -p " + Quote(dir / "full/x"));
  EXPECT_NE(KOVAFileCopy(shm.c_str(), (dir / "full").c_str(), &move), 0);
  EXPECT_TRUE(Exists(shm));
  unlink(shm.c_str());
  EXPECT_EQ(ListDir(dir.path(), ".kovacopy").size(), 0u);
  // Links planted at the names its temporary file may take are never written through.
  WriteFile(dir / "victim", "kept");
  const std::string head = dir / (".kovacopy." + std::to_string(getpid()) + ".");
  for (time_t t = time(nullptr); t < time(nullptr) + 5; ++t) symlink("victim", (head + std::to_string(t)).c_str());
  KOVAFileCopy((dir / "b").c_str(), (dir / "e").c_str(), &copy);
  EXPECT_EQ(ReadFile(dir / "victim"), "kept");
}

// A shell script's output through KLIBCPopenv, then its KLIBCPclose result.
std::string Popen(const char* script) {
  const char* argv[] = {"sh", "-c", script, nullptr};
  FILE* f = KLIBCPopenv("/bin/sh", "r", argv);
  std::string out;
  char buf[4096];
  for (size_t n; f != nullptr && (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
  return f == nullptr ? "<failed>" : out + std::to_string(KLIBCPclose(f));
}

bool NoChildren() {
  errno = 0;
  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

TEST(ExecTest, ResultsOfExitsSignalsMissingProgramsAndStreams) {
  const char *t[] = {"true", nullptr}, *f[] = {"false", nullptr}, *killed[] = {"sh", "-c", "kill -9 $$", nullptr};
  EXPECT_EQ(std::vector<int>({KLIBCExecv("/bin/true", t, 1), KLIBCExecv("/bin/false", f, 1), KLIBCExecv("/bin/sh", killed, 1)}),
            std::vector<int>({0, 1, 1}));
  EXPECT_TRUE(KLIBCExecv("/no/such/tool", t, 1) == -1 && errno == ENOENT);
  EXPECT_EQ(KLIBCExecl("/bin/sh", 0, "sh", "-c", "test \"$0\" = 'a b'", "a b", nullptr), 0);
  EXPECT_EQ(KLIBCExecv("/bin/true", t, 0), 0);  // detached: reaped by no one of ours
  EXPECT_TRUE(kovathumb::test::WaitFor(NoChildren, 10));
  EXPECT_EQ(Popen("echo hi; exit 3"), "hi\n1");
  EXPECT_TRUE(KLIBCPopenv("/no/such/tool", "r", t) == nullptr && KLIBCPopenv("/bin/sh", "w", t) == nullptr);
  EXPECT_EQ(KLIBCPclose(stdin), -1);
  // Closing before the child finished writing still reaps it.
  const char* yes[] = {"yes", nullptr};
  FILE* y = KLIBCPopenv("/usr/bin/yes", "r", yes);
  char c;
  ASSERT_TRUE(y != nullptr && fread(&c, 1, 1, y) == 1u);
  EXPECT_EQ(KLIBCPclose(y), 1);
  EXPECT_TRUE(NoChildren());
}

TEST(ExecTest, ChildSeesNullInputNoDescriptorsOfOursLimitsAndNoStdout) {
  int leaked = open("/dev/null", O_RDONLY);  // not close-on-exec
  EXPECT_EQ(Popen("readlink /proc/self/fd/0"), "/dev/null\n0");
  EXPECT_EQ(Popen("ls /proc/$$/fd"), "0\n1\n2\n0");
  close(leaked);
  EXPECT_EQ(Popen("ulimit -t"), std::to_string(KOVA_CHILD_CPU_SECONDS) + "\n0");
  EXPECT_EQ(Popen("ulimit -v"), std::to_string(KOVA_CHILD_ADDRESS_SPACE / 1024) + "\n0");
  EXPECT_EQ(Popen("env | grep '^MAGICK_.*_LIMIT=' | sort | tr '\\n' ' '"),
            "MAGICK_AREA_LIMIT=128MP MAGICK_DISK_LIMIT=1GiB MAGICK_HEIGHT_LIMIT=16KP MAGICK_MAP_LIMIT=512MiB "
            "MAGICK_MEMORY_LIMIT=256MiB MAGICK_TIME_LIMIT=60 MAGICK_WIDTH_LIMIT=16KP 0");
  // A tool's output goes to our standard error, never into a response.
  TempDir dir;
  if (fork() == 0) {
    dup2(open((dir / "out").c_str(), O_WRONLY | O_CREAT, 0600), 1);
    dup2(open((dir / "err").c_str(), O_WRONLY | O_CREAT, 0600), 2);
    const char* echo[] = {"echo", "tool output", nullptr};
    _exit(KLIBCExecv("/bin/echo", echo, 1));
  }
  wait(nullptr);
  EXPECT_EQ(ReadFile(dir / "out") + "|" + ReadFile(dir / "err"), "|tool output\n");
}

class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* v : {"REQUEST_METHOD", "HTTP_IF_NONE_MATCH", "HTTP_IF_MODIFIED_SINCE"}) unsetenv(v);
    WriteFile(file_, "JPEGDATA");
  }
  Response Send(const std::string& path) {
    return ParseResponse(CaptureStdout([&] { result_ = WebFileRelay().Output(path.c_str(), "image/jpeg"); }));
  }
  Response Send(FILE* f) {
    return ParseResponse(CaptureStdout([&] { result_ = WebFileRelay().Output(f, "r.jpg", "image/jpeg"); }));
  }
  TempDir dir_;
  std::string file_ = dir_ / "a \"quoted\" name.jpg";
  int result_ = -1;
};

TEST_F(RelayTest, FileWithHeadersValidatorsAndBody) {
  Response r = Send(file_);
  EXPECT_TRUE(result_ == 0 && r.firstLine == "Content-Type: image/jpeg" && r.headers["content-length"] == "8");
  EXPECT_EQ(r.headers["content-disposition"],
            "inline; filename=\"a _quoted_ name.jpg\"; filename*=UTF-8''a%20%22quoted%22%20name.jpg");
  EXPECT_EQ(r.body, "JPEGDATA");
  // A matching tag or date costs no body: only `*` alone or our exact tag
  // (weak or not) matches; a date in the future is no date; a tag that
  // does not match wins over a date that does.
  const std::string etag = r.headers["etag"], date = r.headers["last-modified"];
  for (auto [inm, ims, status] : std::initializer_list<std::tuple<std::string, std::string, int>>{
           {etag, "", 304}, {"\"other\"", "", 200}, {"*", "", 304}, {"\"x\", W/" + etag, "", 304},
           {"\"abc*def\"", "", 200}, {"\"x" + etag.substr(1), "", 200}, {"", date, 304},
           {"", "Thu, 01 Jan 1970 00:00:00 GMT", 200}, {"", "Fri, 01 Jan 2100 00:00:00 GMT", 200},
           {"\"other\"", date, 200}}) {
    if (!inm.empty()) setenv("HTTP_IF_NONE_MATCH", inm.c_str(), 1);
    if (!ims.empty()) setenv("HTTP_IF_MODIFIED_SINCE", ims.c_str(), 1);
    Response again = Send(file_);
    EXPECT_EQ(std::to_string(again.status) + again.body, std::to_string(status) + (status == 304 ? "" : "JPEGDATA")) << inm << ims;
    unsetenv("HTTP_IF_NONE_MATCH"), unsetenv("HTTP_IF_MODIFIED_SINCE");
    // Our answers' headers, the request given, are the relay's byte for byte.
    tool::Validators given;
    given.ifNoneMatch = inm.empty() ? nullptr : inm.c_str();
    given.ifModifiedSince = ims.empty() ? nullptr : ims.c_str();
    EXPECT_EQ(tool::AnswerHead(Stat(file_), "a \"quoted\" name.jpg", "image/jpeg", given),
              again.raw.substr(0, again.raw.size() - again.body.size())) << inm << ims;
  }
  setenv("REQUEST_METHOD", "HEAD", 1);
  Response head = Send(file_);
  EXPECT_TRUE(head.headers["content-length"] == "8" && head.body.empty());
  // Handed to the web server: the copy's name in place of a length.
  Response handed = ParseResponse(tool::AnswerHead(Stat(file_), "a.jpg", "image/jpeg", {}, "/srv/copy"));
  EXPECT_TRUE(handed.headers["x-sendfile"] == "/srv/copy" && handed.headers.count("content-length") == 0) << handed.raw;
}

TEST_F(RelayTest, FailuresEndTheHeaderBlockWithAStatusAndStreamsHaveNoLength) {
  Response missing = Send(dir_ / "missing.jpg");
  EXPECT_TRUE(result_ != 0 && missing.complete && missing.firstLine == "Status: 404 Not Found") << missing.raw;
  EXPECT_EQ(Send(dir_.path()).status, 500);  // a directory
  EXPECT_NE(result_, 0);
  // Never through a link, never a FIFO (which would block); a file we hold
  // open goes out under its own name.
  ASSERT_EQ(symlink(file_.c_str(), (dir_ / "link.jpg").c_str()), 0);
  EXPECT_EQ(Send(dir_ / "link.jpg").status, 404);
  ASSERT_EQ(mkfifo((dir_ / "fifo.jpg").c_str(), 0666), 0);
  EXPECT_EQ(Send(dir_ / "fifo.jpg").status, 500);
  const int fd = open(file_.c_str(), O_RDONLY);
  Response held = Send("/proc/self/fd/" + std::to_string(fd));
  close(fd);
  EXPECT_EQ(held.body, "JPEGDATA");
  EXPECT_EQ(held.headers["content-disposition"].find("filename=\"a _quoted_ name.jpg\""), 8u);
  Response null = Send(static_cast<FILE*>(nullptr));
  EXPECT_TRUE(result_ != 0 && null.complete && null.firstLine == "Status: 500 Internal Server Error") << null.raw;
  Response stream = Send(fopen(file_.c_str(), "r"));
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(stream.headers.count("content-length"), 0u);
  EXPECT_EQ(stream.body, "JPEGDATA");
  EXPECT_EQ(Send(fopen("/dev/null", "r")).status, 500);
}

}  // namespace
