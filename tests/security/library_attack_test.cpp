// The library as root against a user who owns a folder of the tree: what
// they plant in EA directories or at temporary names is never followed, what
// the tools read is the file that was checked and only in the format we
// convert, nothing empty or stale is stored, tools and requests end in their
// time, and requests for arbitrary boxes cannot fill the disk.
#include <sys/time.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <array>

#include "convert_cmd/tool_files.h"
#include "front_end/watchdog.h"
#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "libkovathumb/store_rules.h"
#include "support/attacker.h"
#include "support/dng.h"

namespace kovathumb {
namespace {

using namespace test;

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
    EXPECT_TRUE(test::Stat(t_.secret).st_uid == 0 && (test::Stat(t_.secret).st_mode & 07777) == 0600);
    EXPECT_EQ(test::ReadFile(t_.secret), secret_) << "written through a link";
    EXPECT_EQ(test::Capture("ls -A " + Quote(outside_)), "");
    EXPECT_EQ(test::Capture("find " + Quote(t_.tree) + " \\( -name 'KOVAFILETMP*' -o -name '.kovathumb-*' \\) ! -type l"), "");
  }
  // Runs `how` as the attacker in their folder, $E naming the photo's EA directory, $S the secret, $O a
  // folder outside; their own photo as old as can be first: whatever a link reaches is "up to date".
  bool Plant(const std::string& how) {
    const std::string cmd = "cd " + Quote(t_.mine) + " && touch -d @1 photo.jpg && E=.kovaea/photo.jpg S=" +
                            Quote(t_.secret) + " O=" + Quote(outside_) + " && " + how;
    return ShAsAttacker(cmd);
  }

  test::AttackTree t_;
  std::string src_ = t_.mine + "/photo.jpg", ea_ = t_.mine + "/.kovaea/photo.jpg", outside_ = t_.top / "outside", secret_;
};

TEST_F(StoreAttackRootTest, PlantedLinksFifosAndDirectoriesAreNeverFollowed) {
  const std::string mk = "mkdir -p $E && ", work = "KOVAFILETMP_THUMB_" + std::to_string(getpid()) + ".jpg";
  for (auto [how, options, rotate] :
       {std::tuple(mk + "ln -s $S $E/KOVAFILE_THUMB_S.jpg", 2, 0), {mk + "ln -s $S $E/KOVAPHOTO_THUMB_S.jpg", 1, 1},
        {mk + "ln -s $S $E/" + work, 2, 0}, {mk + "mkfifo -m 666 $E/KOVAFILE_THUMB_S.jpg", 2, 0},
        {mk + "mkdir -m 777 $E/KOVAFILE_THUMB_S.jpg", 2, 0}, {mk + ": >$E/KOVAFILE_THUMB_S.jpg", 2, 0},
        {"mkdir .kovaea && ln -s \"$O\" $E", 2, 0}, {"ln -s \"$O\" .kovaea", 2, 0}}) {
    SCOPED_TRACE(how);
    test::MustSh("rm -rf " + Quote(t_.mine + "/.kovaea"));
    ASSERT_TRUE(Plant(how));
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
  // Work of a process that died goes; a user's look-alike is not ours to clear.
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  const std::string left = "/.kovathumb-" + std::to_string(dead) + ".";
  ASSERT_TRUE(Plant("mkdir -p $E$(echo " + Quote(left) + ")mine"));
  test::MustSh("mkdir -m 700 " + Quote(ea_ + left + "ours") + " && touch " + Quote(ea_ + left + "ours/f"));
  Thumb thumb(src_, 2, false);
  ASSERT_FALSE(thumb.CalcOutputFile("small").empty());  // probes the source
  test::MakeImage(t_.top / "ok.jpg", 40, 30);
  const std::string full = test::ReadFile(t_.top / "ok.jpg");
  for (auto [data, stored] : {std::pair(std::string(), false), {full.substr(0, full.size() / 2), false},
                              {"GIF89a;", false}, {full, true}}) {
    test::WriteFile(t_.top / "made.jpg", data);
    EXPECT_EQ(thumb.SaveThumbToEA(t_.top / "made.jpg", ea_ + "/KOVAFILE_THUMB_M.jpg", 0), stored);
  }
  EXPECT_TRUE(!test::Exists(ea_ + left + "ours") && rmdir((ea_ + left + "mine").c_str()) == 0);
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
  for (auto [options, procs] : {std::pair<int, int>(kThumbOptQuality, 4), {kThumbOptQuality, 1}, {0, 1}}) {
    test::MustSh("rm -rf " + Quote(t_.mine + "/.kovaea"));
    for (int p = 0; p < procs; ++p) {
      if (fork() != 0) continue;
      test::CaptureStdout([&] { for (int e = 100 + p; e < 112; e += procs) Thumb(src_, options, false).Output(e); });
      _exit(0);
    }
    while (wait(nullptr) > 0) {}
    EXPECT_EQ(test::ListDir(ea_, "KOVAFILE_THUMB_1").size(), internal::kMaxBoxThumbs) << options << " " << procs;
  }
  EXPECT_TRUE(test::Exists(ea_ + "/KOVAFILE_THUMB_111x111.jpg") && !test::Exists(ea_ + "/KOVAFILE_THUMB_100x100.jpg"));
  Thumb named(src_, 2, false);
  ASSERT_EQ(named.CalcOutputFile("small"), ea_ + "/KOVAFILE_THUMB_S.jpg");
  EXPECT_TRUE(named.DeleteOutputFile() && !test::Exists(ea_ + "/KOVAFILE_THUMB_S.jpg"));
  ASSERT_EQ(named.CalcOutputFile("original"), src_);
  EXPECT_TRUE(!named.DeleteOutputFile() && test::Exists(src_));  // never the source
  ExpectContained();
}

// Attacks on what the library hands its tools, and on the files they make.
ThumbInfo Probe(const std::string& path, bool preview = false) {
  ThumbInfo info(path, "small", {120, 120});
  info.SetEnableGIF(true);
  info.ExtractImgInfo(preview);
  return info;
}

// Links at every name `head` + second + `tail` a predictable temporary could
// take in the next seconds; removed with `plant` false.
bool Links(const std::string& head, const std::string& tail, const std::string& target, bool plant = true) {
  const long now = static_cast<long>(time(nullptr));
  for (long t = plant ? now : now - 30; t < now + 4; ++t) {
    const std::string name = head + std::to_string(t) + tail;
    if (!plant) unlink(name.c_str());
    // Another run of this test on the machine may have planted the same link.
    if (plant && symlink(target.c_str(), name.c_str()) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Class 3: the reader is pinned to the format we convert, whatever the content says.
TEST(ToolAttackRootTest, ConverterReadsOnlyTheFormatsWeConvert) {
  KT_SKIP_UNLESS_ROOT();
  const std::vector<std::array<std::string, 3>> cases = {  // leading bytes, probed type, coder
      {"\xFF\xD8\xFF\xE0", "", "jpeg"}, {"\x89PNG\r\n\x1A\n", "", "png"}, {"GIF89a", "", "gif"},
      {std::string("MM\0*", 4), "", "tiff"}, {"", "image/png", "png"},  // unreadable here: the probe decides
      {"<?xpacket begin", "image/jpeg", ""}, {"<svg ", "", ""}, {"", "application/rdf+xml", ""}};
  for (const auto& c : cases) EXPECT_EQ(internal::MagickCoder(c[0], c[1]), c[2]) << c[0] << c[1];
  test::AttackTree t;
  const std::string svg = "<?xpacket begin=\"\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
                          "<svg xmlns=\"http://www.w3.org/2000/svg\" xmlns:xlink=\"http://www.w3.org/1999/xlink\""
                          " width=\"800\" height=\"600\"><image xlink:href=\"" + t.secret +
                          "\" width=\"800\" height=\"600\"/></svg>\n<?xpacket end=\"w\"?>\n";
  const std::string out = t.top / "out.jpg";
  for (const char* name : {"x.jpg", "x.png", "x.tif"}) {
    const std::string path = t.mine + "/" + name;
    ASSERT_TRUE(AsAttacker([&] { test::WriteFile(path, svg); return true; }));
    try {  // refused by the probe is as good
      EXPECT_FALSE(ConvertCmd(Probe(path), path, out).exec()) << name;
    } catch (const std::exception&) {}
    EXPECT_FALSE(t.Leaks(test::ReadFile(out))) << name;
    unlink(out.c_str());
  }
  // Pattern characters in names change nothing that is read or written.
  for (const char* name : {"50%off.png", "a[1].png", "%d[0].gif"}) {
    const std::string path = t.mine + "/" + name, plain = t.top / (name[0] == '%' ? "plain.gif" : "plain.png");
    test::MakeImage(plain, 200, 100, "xc:green");  // the maker would read the name as a pattern
    ASSERT_EQ(rename(plain.c_str(), path.c_str()), 0);
    EXPECT_TRUE(name[0] == '%' ? GIFConvertCmd(Probe(path), path, out).exec() : ConvertCmd(Probe(path), path, out).exec());
    EXPECT_EQ(test::ImageSize(out).first, 120u) << name;
    unlink(out.c_str());
  }
}

// Class 4: links planted at the temporary names are never written through.
TEST(ToolAttackRootTest, TemporaryFilesAreCreatedExclusively) {
  KT_SKIP_UNLESS_ROOT();
  test::AttackTree t;
  const std::string secret = test::ReadFile(t.secret), gif = t.mine + "/anim.gif", coalesce = "/var/tmp/convert_thumbnail__";
  test::MakeImage(gif, 200, 100, "xc:green");
  ASSERT_TRUE(AsAttacker([&] { return Links(coalesce, "anim.gif", t.secret); }));
  EXPECT_TRUE(GIFConvertCmd(Probe(gif), gif, t.top / "t.gif").exec());
  Links(coalesce, "anim.gif", "", false);
  // The preview's name has a random part; links at every name an unseeded
  // rand() would give are not followed either.
  const std::string cam = t.mine + "/cam.jpg", head = "/tmp/thumb." + std::to_string(getpid()) + ".";
  test::MakeImage(cam, 1600, 1200, "plasma:");
  test::MakeImage(t.mine + "/cam-thumb.jpg", 160, 120, "xc:blue");
  test::MustSh("exiv2 -it " + test::Quote(cam) + " && touch -m -d @67890 " + test::Quote(cam));
  ASSERT_TRUE(AsAttacker([&] {
    return Links(head, ".1804289383.jpg", t.secret) && Links(head, ".846930886.jpg", t.secret);
  }));
  const std::string preview = Probe(cam, true).GetEXIFPreviewTmpPath();
  EXPECT_EQ(test::ImageSize(preview), std::make_pair(160u, 120u));
  EXPECT_EQ(test::Stat(preview).st_mtime, 67890);  // the source's time
  unlink(preview.c_str());
  for (const char* r : {".1804289383.jpg", ".846930886.jpg"}) Links(head, r, "", false);
  // dcraw's preview goes beside dst; a link there is not written through.
  const std::string raw = t.mine + "/r.dng", dst = t.mine + "/t.jpg";
  test::WriteFile(raw, test::MakeDng(256, 192, test::ReadFile(t.mine + "/cam-thumb.jpg"), 160, 120));
  ASSERT_TRUE(AsAttacker([&] { return Links(dst + "_" + std::to_string(getpid()) + "_", "", t.secret); }));
  DcrawCmd(Probe(raw), raw, dst).exec();
  EXPECT_EQ(test::ReadFile(t.secret), secret);
}

// What a program's bounded request answers on standard output.
std::string Answer(const std::function<int()>& request) {
  return test::CaptureStdout([&] { tool::RunBounded(request, "503", "500"); });
}

// Class 5: a tool read through a pipe, and a program's request, end with
// the wall time; a request stopped before it answered still answers.
TEST(ToolAttackRootTest, PipedToolsAndRequestsEndWithTheirWallTime) {
  setenv("KOVAPLATFORM_CHILD_WALL_SECONDS", "2", 1);
  EXPECT_EQ(Answer([] { return printf("200") < 0; }), "200");
  EXPECT_EQ(Answer([] { return sleep(60) > 0; }), "503");
  EXPECT_EQ(Answer([] { return printf("2") + fflush(stdout) + sleep(60) > 0; }), "2");  // no second answer
  EXPECT_EQ(Answer([]() -> int { abort(); }), "500");
  const char* const argv[] = {"/bin/sleep", "60", nullptr};
  FILE* stream = KLIBCPopenv("/bin/sleep", "r", argv);
  char buf[16];
  EXPECT_TRUE(stream != nullptr && fread(buf, 1, sizeof buf, stream) == 0u);
  // Its own alarm ended it, not the end of its sleep.
  EXPECT_TRUE(stream != nullptr && KLIBCPclose(stream) == 1);
  unsetenv("KOVAPLATFORM_CHILD_WALL_SECONDS");
}

}  // namespace
}  // namespace kovathumb
