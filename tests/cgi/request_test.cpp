#include "cgi/request.h"

#include <gtest/gtest.h>

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
  EXPECT_EQ(r.path + " " + r.size, "a b/c d.jpg big");
  EXPECT_TRUE(r.rotate == -1 && r.options == (1 | 64 | 128)) << r.options;
  ASSERT_TRUE(ParseRequest("path=x.jpg&w=300&h=200&avatar=1&gif=1&quality=0", &r, &error));
  EXPECT_TRUE(r.width == 300u && r.options == (2 | 8 | 32)) << r.options;  // boxes never ask for gallery names
  EXPECT_TRUE(ParseRequest("list=1", &r, &error) && r.list);
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

}  // namespace
}  // namespace cgi
}  // namespace kovathumb
