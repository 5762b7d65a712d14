// Eight processes asking for the same thumbnail, not yet made, at once.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/http.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

TEST(StressTest, ConcurrentRequestsForTheSameThumbnail) {
  const char* env = std::getenv("KOVATHUMB_STRESS_ROUNDS");
  const int rounds = env != nullptr ? std::atoi(env) : 30, clients = 8;
  test::TempDir dir;
  const std::string src = dir / "photo.jpg";
  test::MakePhoto(src, 1200, 900, 6);
  int bad = 0;
  for (int round = 0; round < rounds; ++round) {
    test::MustSh("rm -rf " + test::Quote(dir.path() + "/.kovaea"));
    std::vector<pid_t> pids;
    for (int c = 0; c < clients; ++c) {
      pids.push_back(fork());
      if (pids.back() == 0) {
        freopen((dir / ("r" + std::to_string(c))).c_str(), "w", stdout);
        execl(KOVATHUMB_CLI, "kovathumb", "get", "--dossiva", "medium", src.c_str(), static_cast<char*>(nullptr));
        _exit(127);
      }
    }
    for (int c = 0; c < clients; ++c) {
      int status = 0;
      waitpid(pids[c], &status, 0);
      test::Response r = test::ParseResponse(test::ReadFile(dir / ("r" + std::to_string(c))));
      // A whole JPEG: its length as announced, its end marker last.
      const bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                      r.headers["content-length"] == std::to_string(r.body.size()) && r.body.size() > 4 &&
                      r.body.compare(0, 2, "\xFF\xD8") == 0 && r.body.compare(r.body.size() - 2, 2, "\xFF\xD9") == 0;
      if (!ok && ++bad < 5) ADD_FAILURE() << "round " << round << " client " << c;
    }
  }
  EXPECT_EQ(bad, 0);
  EXPECT_EQ(test::ImageSize(dir.path() + "/.kovaea/photo.jpg/KOVAFILE_THUMB_M_r1.jpg"), std::make_pair(270u, 360u));
  EXPECT_EQ(test::Capture("find " + test::Quote(dir.path()) + " -name 'KOVAFILETMP*' -o -name '*.jpg_*'"), "");
}

}  // namespace
}  // namespace kovathumb
