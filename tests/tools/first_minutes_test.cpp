// What a new user meets first: the version, usage mistakes named, failures
// with the library's reason, Ctrl-C during index, and the pkg-config file of
// a Debian-style install.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

#include "kovathumb/version.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using nlohmann::json;
using test::Quote;

std::vector<json> Lines(const std::string& out) {
  std::vector<json> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line));
  return lines;
}

struct Result {
  int status;
  std::string out, err;
  std::vector<json> Lines() const { return kovathumb::Lines(out); }
};

Result Cli(const std::string& args) {
  test::TempDir tmp;
  const int status = test::Sh(std::string(KOVATHUMB_CLI) + " " + args + " >" + Quote(tmp / "out") + " 2>" +
                              Quote(tmp / "err"));
  return {status, test::ReadFile(tmp / "out"), test::ReadFile(tmp / "err")};
}

TEST(FirstMinutesTest, VersionAndUsageMistakes) {
  EXPECT_STREQ(Version(), KOVATHUMB_VERSION_STRING);
  for (const char* flag : {"--version", "-V"}) EXPECT_EQ(Cli(flag).out, "kovathumb " KOVATHUMB_VERSION_STRING "\n");
  Result r = Cli("thumbs a.jpg");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("unknown subcommand 'thumbs'; the subcommands are: info, convert, get, make, import, index"),
            std::string::npos) << r.err;
  for (const char* args : {"info --user-rotate 4 a.jpg", "info --keep-preview a.jpg"}) EXPECT_EQ(Cli(args).status, 2);
}

TEST(FirstMinutesTest, SizeListsTakeCommasOnly) {
  test::TempDir dir;
  test::MakeImage(dir / "a.png", 300, 200);
  test::MakeImage(dir / "b.png", 300, 200);
  Result r = Cli("make --sizes small " + Quote(dir / "a.png") + " " + Quote(dir / "b.png"));
  ASSERT_EQ(r.Lines().size(), 2u) << r.err;
  EXPECT_EQ(r.Lines()[1]["made"], 1);
  for (const std::string sub : {"make", "index"}) {
    r = Cli(sub + " --sizes small,huge " + Quote(dir.path()));
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("not a thumbnail size: huge"), std::string::npos) << sub << ": " << r.err;
  }
}

TEST(FirstMinutesTest, FailuresSayWhy) {
  test::TempDir dir;
  test::WriteFile(dir / "broken.jpg", "not a photo at all");
  Result r = Cli("info " + Quote(dir.path()) + " " + Quote(dir / "gone.jpg"));
  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(r.Lines().size(), 2u);
  EXPECT_EQ(r.Lines()[0]["error"]["what"], dir.path() + ": is a directory");
  EXPECT_EQ(r.Lines()[1]["error"]["what"], dir / "gone.jpg" + ": No such file or directory");

  r = Cli("make --sizes small " + Quote(dir / "broken.jpg"));
  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(r.Lines().size(), 1u) << r.out;
  EXPECT_EQ(r.Lines()[0]["failed"], 1);
  EXPECT_FALSE(r.Lines()[0].value("error", std::string()).empty()) << r.out;

  r = Cli("index --no-progress --sizes small " + Quote(dir.path()));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("failed: " + dir / "broken.jpg" + ": "), std::string::npos) << r.out;
}

// Ctrl-C twice stops the files in hand at once: they are interrupted, and a
// re-run makes them, so none is reported as failed.
TEST(FirstMinutesTest, CtrlCInterruptsAndFailsNothing) {
  test::TempDir dir;
  for (int i = 0; i < 6; ++i) test::MakeImage(dir / (std::to_string(i) + ".png"), 2000, 2000);
  const std::string out = dir / "out.json";
  EXPECT_EQ(test::Sh(std::string(KOVATHUMB_CLI) + " index --json -j 2 " + Quote(dir.path()) + " >" + Quote(out) +
                     " & sleep 0.7; kill -INT $!; sleep 0.05; kill -INT $!; wait $!"),
            130);
  const json summary = Lines(test::ReadFile(out)).back();
  EXPECT_EQ(summary["failed"], 0) << summary;
  EXPECT_FALSE(summary["interrupted_files"].empty()) << summary;
}

// A /usr install with a multiarch library directory: the .pc file finds
// its headers and library wherever the tree is, here under a staging root.
TEST(FirstMinutesTest, PkgConfigForADebianInstall) {
  test::TempDir dir;
  const std::string stage = dir / "stage";
  test::MustSh("cmake -S " + Quote(KOVATHUMB_SOURCE_DIR) + " -B " + Quote(dir / "b") +
               " -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib/x86_64-linux-gnu"
               " -DKOVATHUMB_BUILD_TESTS=OFF -DKOVATHUMB_BUILD_TOOLS=OFF -DKOVATHUMB_BUILD_BENCH=OFF >/dev/null");
  const std::string pcdir = stage + "/usr/lib/x86_64-linux-gnu/pkgconfig";
  test::MustSh("mkdir -p " + Quote(pcdir) + " && cp " + Quote(dir / "b/kovathumb.pc") + " " + Quote(pcdir));
  // The flags are made of these two.
  const std::string pc = "realpath -m $(PKG_CONFIG_PATH=" + Quote(pcdir) + " pkg-config --variable=";
  EXPECT_EQ(test::Capture(pc + "includedir kovathumb)"), stage + "/usr/include\n");
  EXPECT_EQ(test::Capture(pc + "libdir kovathumb)"), stage + "/usr/lib/x86_64-linux-gnu\n");
}

}  // namespace
}  // namespace kovathumb
