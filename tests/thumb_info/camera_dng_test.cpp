// Raw files laid out as cameras lay them out: a small thumbnail first, the
// raw image in a SubIFD.
#include <gtest/gtest.h>

#include <map>

#include "kovathumb/thumb.h"
#include "support/dng.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

TEST(CameraDngTest, ProbeReadsTheRawAndStoredThumbnailsFitTheirBoxes) {
  test::TempDir dir;
  test::MakeImage(dir / "preview.jpg", 640, 480);
  const std::string preview = test::ReadFile(dir / "preview.jpg");
  const struct {
    std::string name, jpeg;
    int orientation;
  } cases[] = {{"bare.dng", "", 1}, {"preview.dng", preview, 1}, {"turned.dng", preview, 6}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir / c.name;
    test::WriteFile(path, test::MakeCameraDng(1280, 960, c.jpeg, 640, 480, c.orientation));
    ThumbInfo info(path, "small", {120, 120});
    info.ExtractImgInfo(false);
    EXPECT_EQ(info.GetMimeType(), "image/tiff");
    EXPECT_EQ(info.GetWidth(), 1280u);
    EXPECT_EQ(info.GetHeight(), 960u);
    EXPECT_EQ(info.GetRotate(), c.orientation == 6 ? 1 : 0);

    Thumb thumb(path, 0, false);
    EXPECT_TRUE(thumb.ConvertAll());
    const std::string ea = dir.path() + "/.kovaea/" + c.name;
    const std::map<char, unsigned> boxes = {{'S', 120}, {'M', 360}, {'B', 640}, {'X', 1280}};
    EXPECT_EQ(test::ListDir(ea, "KOVAFILE_THUMB_").size(), 4u);
    for (const std::string& name : test::ListDir(ea, "KOVAFILE_THUMB_")) {
      const auto size = test::ImageSize(ea + "/" + name);
      const unsigned box = boxes.at(name[15]);
      EXPECT_TRUE(size.first <= box && size.second <= box) << name << " " << size.first << "x" << size.second;
    }
  }
}

}  // namespace
}  // namespace kovathumb
