// Fuzzes the CGI query parser and path confinement: whatever the query, a
// path that resolves must lie inside the root.
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "cgi/request.h"
#include "front_end/tree.h"
#include "support/test_util.h"

namespace {

struct Tree {
  std::string root;
  Tree() {
    const char* tmp = getenv("TMPDIR");  // scripts/fuzz.sh gives a private one
    std::string tmpl = std::string(tmp != nullptr ? tmp : "/tmp") + "/kovathumb_fuzz_cgi_XXXXXX";
    const std::string dir = mkdtemp(&tmpl[0]);
    root = dir + "/root";
    kovathumb::test::Sh("mkdir -p '" + root + "/album/.kovaea/a.jpg' '" + dir + "/outside'");
    kovathumb::test::WriteFile(root + "/album/a.jpg", "a");
    kovathumb::test::WriteFile(root + "/album/.kovaea/a.jpg/KOVAFILE_THUMB_S.jpg", "t");
    kovathumb::test::WriteFile(dir + "/outside/secret.jpg", "s");
    (void)!symlink((dir + "/outside/secret.jpg").c_str(), (root + "/leak.jpg").c_str());
    (void)!symlink((dir + "/outside").c_str(), (root + "/out").c_str());
    (void)!symlink("album/a.jpg", (root + "/inner.jpg").c_str());
    root = kovathumb::tool::RealPath(root);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Tree tree;
  const std::string query(reinterpret_cast<const char*>(data), size);
  kovathumb::cgi::Request request;
  std::string error;
  if (!kovathumb::cgi::ParseRequest(query, &request, &error) || request.list) return 0;
  kovathumb::tool::PinnedFile pinned;
  const int status = kovathumb::cgi::Resolve(tree.root, request.path, &pinned);
  const std::string resolved = status == 200 ? kovathumb::tool::RealPath(pinned.Path()) : std::string();
  if (status == 200 && (!kovathumb::tool::Inside(resolved, tree.root) ||
                        resolved.find("/.kovaea/") != std::string::npos ||
                        resolved.find("outside") != std::string::npos)) {
    __builtin_trap();  // escaped the root
  }
  if (status != 200 && status != 400 && status != 403 && status != 404) __builtin_trap();
  return 0;
}
