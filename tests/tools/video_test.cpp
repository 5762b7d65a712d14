// Which container a video is, told from its bytes, and how ffmpeg is
// held to it: the real containers are in IndexTest, the attack in
// ProgramAttackRootTest.
#include <gtest/gtest.h>

#include <algorithm>

#include "front_end/video.h"

namespace kovathumb {
namespace {

std::string Bytes(const char* s, size_t n) { return std::string(s, n); }

std::string Ts(size_t packet, size_t packets) {
  std::string s(packet * packets, '\0');
  for (size_t k = 0; k < packets; ++k) s[packet - 188 + k * packet] = '\x47';
  return s;
}

TEST(VideoTest, ContainerFromTheBytesAndNothingElse) {
  const std::pair<std::string, const char*> cases[] = {
      {Bytes("\0\0\0\x20" "ftypisom", 12), "mov"}, {Bytes("\0\0\0\x08" "wide\0\0\0\x10mdat", 16), "mov"},
      {Bytes("\0\0\0\x01" "mdat", 8), "mov"},
      {Bytes("\0\0\0\x04" "ftyp", 8), ""},  // a box smaller than its own header
      {Bytes("\x1A\x45\xDF\xA3\x9f\x42", 6), "matroska"}, {Bytes("RIFF\0\0\0\0AVI LIST", 16), "avi"},
      {Bytes("RIFF\0\0\0\0WAVEfmt ", 16), ""},
      {Bytes("\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16), "asf"},
      {"FLV\x01\x05", "flv"}, {"OggS\0", "ogg"}, {".RMF\0\0\0\x12", "rm"},
      {Bytes("\0\0\x01\xBA\x21", 5), "mpeg"}, {Bytes("\0\0\x01\xB3\x0b", 5), "mpegvideo"},
      {Ts(188, 3), "mpegts"}, {Ts(192, 3), "mpegts"}, {Ts(188, 2), ""},  // two syncs may be chance
      // What ffmpeg would otherwise guess from the content.
      {"#EXTM3U\n#EXTINF:1,\n../../secret.ts\n", ""}, {"ffconcat version 1.0\nfile /root/secret.mp4\n", ""}, {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(tool::VideoDemuxer(c.first), c.second) << testing::PrintToString(c.first);
}

TEST(VideoTest, FfmpegGetsTheOneDemuxerAndTheOneFile) {
  for (const char* demuxer : {"mov", "mpegts"}) {
    const std::vector<std::string> a = tool::ScreenshotArgs(demuxer, "/proc/1/fd/3", "/w/out.jpg");
    const auto at = [&](const std::string& s) { return std::find(a.begin(), a.end(), s) - a.begin(); };
    const long input = at("-i");
    ASSERT_LT(input + 1, static_cast<long>(a.size()));
    EXPECT_EQ(a[static_cast<size_t>(input) + 1], "file:/proc/1/fd/3");
    EXPECT_EQ(a.back(), "/w/out.jpg");
    // Input options, so they come before the input.
    const std::pair<const char*, std::string> options[] = {
        {"-f", demuxer}, {"-format_whitelist", demuxer}, {"-protocol_whitelist", "file"}};
    for (const auto& option : options) {
      EXPECT_LT(at(option.first), input) << option.first;
      EXPECT_EQ(a[static_cast<size_t>(at(option.first)) + 1], option.second) << option.first;
    }
    const bool mov = std::string(demuxer) == "mov";
    EXPECT_EQ(at("-enable_drefs") < input && a[static_cast<size_t>(at("-enable_drefs")) + 1] == "0", mov);
    EXPECT_EQ(at("-use_absolute_path") < input, mov);
  }
}

}  // namespace
}  // namespace kovathumb
