// Attacks on what the library hands its tools, and on the files they make,
// by an ordinary user who owns one folder of the tree, against root.
#include <gtest/gtest.h>

#include <array>
#include <chrono>

#include "convert_cmd/tool_files.h"
#include "front_end/watchdog.h"
#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"
#include "support/attacker.h"
#include "support/dng.h"
#include "support/http.h"

namespace kovathumb {
namespace {

using test::AsAttacker;

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
    if (plant && symlink(target.c_str(), name.c_str()) != 0) return false;
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
    try {
      EXPECT_FALSE(ConvertCmd(Probe(path), path, out).exec()) << name;
    } catch (const std::exception&) {  // refused by the probe: as good
    }
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
  test::MustSh("exiv2 -it " + test::Quote(cam));
  ASSERT_TRUE(AsAttacker([&] {
    return Links(head, ".1804289383.jpg", t.secret) && Links(head, ".846930886.jpg", t.secret);
  }));
  const std::string preview = Probe(cam, true).GetEXIFPreviewTmpPath();
  EXPECT_EQ(test::ImageSize(preview), std::make_pair(160u, 120u));
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
  const auto start = std::chrono::steady_clock::now();
  FILE* stream = KLIBCPopenv("/bin/sleep", "r", argv);
  ASSERT_NE(stream, nullptr);
  char buf[16];
  EXPECT_EQ(fread(buf, 1, sizeof buf, stream), 0u);
  KLIBCPclose(stream);
  unsetenv("KOVAPLATFORM_CHILD_WALL_SECONDS");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

}  // namespace
}  // namespace kovathumb
