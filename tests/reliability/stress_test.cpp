// Eight processes asking for the same thumbnail, not yet made, at once.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/response.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

// A whole JPEG or BMP, by its structure.
bool WholeImage(const std::string& body) {
  if (body.size() > 4 && body.compare(0, 2, "\xFF\xD8") == 0) return body.compare(body.size() - 2, 2, "\xFF\xD9") == 0;
  if (body.size() > 54 && body.compare(0, 2, "BM") == 0) {
    uint32_t size = 0;
    for (int i = 0; i < 4; ++i) size |= static_cast<uint32_t>(static_cast<unsigned char>(body[2 + i])) << (8 * i);
    return size == body.size();
  }
  return false;
}

TEST(StressTest, ConcurrentRequestsForTheSameThumbnail) {
  const char* env = std::getenv("KOVATHUMB_STRESS_ROUNDS");
  const int rounds = env != nullptr ? std::atoi(env) : 200;
  const int clients = 8;
  test::TempDir dir;
  const std::string src = dir / "photo.jpg";
  test::MustSh("/usr/bin/convert -size 1200x900 xc:gray +noise Random -quality 95 " + Quote(src));
  test::SetExif(src, "Exif.Image.Orientation", "6");
  int bad = 0;
  for (int round = 0; round < rounds; ++round) {
    test::MustSh("rm -rf " + Quote(dir.path() + "/.kovaea"));
    std::vector<pid_t> pids;
    for (int c = 0; c < clients; ++c) {
      pid_t pid = fork();
      if (pid == 0) {
        const std::string out = dir / ("r" + std::to_string(c));
        freopen(out.c_str(), "w", stdout);
        execl(KOVATHUMB_CLI, "kovathumb", "get", "--dossiva", "medium", src.c_str(), static_cast<char*>(nullptr));
        _exit(127);
      }
      pids.push_back(pid);
    }
    for (size_t c = 0; c < pids.size(); ++c) {
      int status = 0;
      waitpid(pids[c], &status, 0);
      test::Response r = test::ParseResponse(test::ReadFile(dir / ("r" + std::to_string(c))));
      const bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 && r.complete &&
                      r.headers["Content-Length"] == std::to_string(r.body.size()) && WholeImage(r.body);
      if (!ok && ++bad < 5) ADD_FAILURE() << "round " << round << " client " << c;
    }
  }
  EXPECT_EQ(bad, 0);
  const std::string stored = dir.path() + "/.kovaea/photo.jpg/KOVAFILE_THUMB_M_r1.jpg";
  EXPECT_EQ(test::ImageSize(stored), std::make_pair(270u, 360u));
  EXPECT_EQ(test::Capture("find " + Quote(dir.path()) + " -name 'KOVAFILETMP*' -o -name '*.jpg_*'"), "");
}

}  // namespace
}  // namespace kovathumb
