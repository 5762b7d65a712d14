#include "cgi/request.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "common/tree.h"
#include "support/test_util.h"

namespace kovathumb {
namespace cgi {
namespace {

int Status(const std::string& query) {
  Request r;
  std::string error;
  return ParseRequest(query, &r, &error) ? 200 : 400;
}

TEST(CgiRequestTest, ParsesSizesFlagsAndApps) {
  Request r;
  std::string error;
  ASSERT_TRUE(ParseRequest("path=a%20b/c+d.jpg&size=big&rotate=-1&fallback=1&app=pictavo", &r, &error)) << error;
  EXPECT_EQ(r.path, "a b/c d.jpg");
  EXPECT_EQ(r.size, "big");
  EXPECT_EQ(r.rotate, -1);
  EXPECT_EQ(r.options, 1 | 64);
  ASSERT_TRUE(ParseRequest("path=x.jpg&w=300&h=200&avatar=1&gif=1", &r, &error));
  EXPECT_EQ(r.width, 300u);
  EXPECT_EQ(r.options, 2 | 8 | 32);  // boxes never ask for gallery names
  ASSERT_TRUE(ParseRequest("list=1", &r, &error));
  EXPECT_TRUE(r.list);
}

TEST(CgiRequestTest, RefusesMalformedAndAmbiguousQueries) {
  for (const char* q : {"", "size=big", "path=&size=big", "path=a.jpg", "path=a.jpg&size=huge",
                        "path=a.jpg&size=big&edge=10", "path=a.jpg&w=10", "path=a.jpg&edge=0",
                        "path=a.jpg&edge=99999", "path=a.jpg&edge=1e3", "path=a.jpg&size=big&rotate=4",
                        "path=a%00.jpg&size=big", "path=a%2.jpg&size=big", "path=a%zz.jpg&size=big",
                        "path=a.jpg&path=b.jpg&size=big", "path=a.jpg&size=big&debug=1", "=x&path=a&size=big",
                        "path=a.jpg&edge=10&app=pictavo", "path=a.jpg&size=big&app=other",
                        "path=a.jpg&edge=10&fallback=1", "path=a.jpg&size=big&gif=yes"}) {
    EXPECT_EQ(Status(q), 400) << q;
  }
  EXPECT_EQ(Status("path=a.jpg&size=big&" + std::string(kMaxQuery, 'x')), 400);
}

TEST(CgiResolveTest, ConfinesPathsToTheRootNotToItsNamePrefix) {
  EXPECT_TRUE(tool::Inside("/srv/photos/a.jpg", "/srv/photos"));
  EXPECT_TRUE(tool::Inside("/srv/photos", "/srv/photos"));
  EXPECT_FALSE(tool::Inside("/srv/photos2/a.jpg", "/srv/photos"));
  EXPECT_FALSE(tool::Inside("/srv/photos2", "/srv/photos"));
  EXPECT_TRUE(tool::Inside("/a", "/"));
  test::TempDir dir;
  const std::string root = dir / "root";
  test::MustSh("mkdir -p " + test::Quote(root + "/sub/.kovaea/x.jpg") + " " + test::Quote(root + "2"));
  test::WriteFile(root + "/sub/a.jpg", "a");
  test::WriteFile(root + "/sub/.kovaea/x.jpg/KOVAFILE_THUMB_S.jpg", "t");
  test::WriteFile(root + "2/secret.jpg", "s");
  ASSERT_EQ(symlink((root + "2/secret.jpg").c_str(), (root + "/link.jpg").c_str()), 0);
  std::string out;
  EXPECT_EQ(Resolve(root, "sub/a.jpg", &out), 200);
  EXPECT_EQ(out, root + "/sub/a.jpg");
  for (auto c : {std::make_pair("link.jpg", 403), {"../root2/secret.jpg", 403}, {"sub/../../root2/secret.jpg", 403},
                 {"sub/.kovaea/x.jpg/KOVAFILE_THUMB_S.jpg", 403}, {"/etc/passwd", 400}, {"sub/missing.jpg", 404},
                 {"sub", 404}}) {
    EXPECT_EQ(Resolve(root, c.first, &out), c.second) << c.first;
  }
}

}  // namespace
}  // namespace cgi
}  // namespace kovathumb
