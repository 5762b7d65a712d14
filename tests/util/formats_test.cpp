#include <gtest/gtest.h>

#include "kovathumb/file.h"
#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace {

TEST(FormatsTest, ExtensionIsLowerCasedTextAfterLastDot) {
  EXPECT_EQ(file::GetFileExt("/x/IMG_0001.JPG"), "jpg");
  EXPECT_EQ(file::GetFileExt("MP4"), "mp4");  // no dot: the whole name
  EXPECT_EQ(file::GetFileExt("/a.b/c"), "b/c");
  EXPECT_EQ(file::GetFileExt("name."), "");
}

TEST(FormatsTest, ImageAndVideoNames) {
  EXPECT_TRUE(IsSupportImage("/x/IMG_0001.JPG"));
  EXPECT_TRUE(IsSupportImage("/x/a.Heic"));
  EXPECT_TRUE(IsSupportImage("jpg"));
  EXPECT_FALSE(IsSupportImage("/x/a."));
  EXPECT_FALSE(IsSupportImage("/x/a.jpeg2000"));
  EXPECT_TRUE(IsSupportVideo("/x/clip.MTS"));
  EXPECT_TRUE(IsSupportVideo("/x/song.m4a"));
  EXPECT_FALSE(IsSupportVideo("/x/a.mp4.jpg"));
  EXPECT_TRUE(IsSupportImage("/x/a.mp4.jpg"));
  // Equal text at another address than the set's literals is still found.
  std::string copy = std::string("/x/a.") + "dng";
  EXPECT_TRUE(IsSupportImage(copy));
}

TEST(FormatsTest, SetsAreComplete) {
  EXPECT_EQ(ImageExtensionSet().size(), 33u);
  EXPECT_EQ(VideoExtensionSet().size(), 48u);
  for (const char* ext : kImageExtensions) EXPECT_FALSE(IsSupportVideo(ext)) << ext;
  for (const char* ext : kVideoExtensions) EXPECT_FALSE(IsSupportImage(ext)) << ext;
}

}  // namespace
}  // namespace kovathumb
