// How ffmpeg is let at a video. A file in the tree is whatever its owner
// wrote under whatever name: ffmpeg left to guess reads a text file named
// "clip.mp4" as a playlist and opens every file it lists, as root. So the
// container is told from the file's own bytes, ffmpeg gets that one
// demuxer and nothing else, and only the one file.
#ifndef KOVATHUMB_TOOLS_COMMON_VIDEO_H_
#define KOVATHUMB_TOOLS_COMMON_VIDEO_H_

#include <string>
#include <vector>

namespace kovathumb {
namespace tool {

// How much of a file's head VideoDemuxer wants.
constexpr size_t kVideoHeadBytes = 1024;

// ffmpeg's demuxer for the container that starts with `head`, or "" for
// anything that is not one of the containers of our video names (playlists,
// concat lists, pictures, text...).
std::string VideoDemuxer(const std::string& head);

// ffmpeg's arguments, after the program's name, for a screenshot of the
// file at `input` (a path, read through the file protocol only) read by
// `demuxer` alone, into the JPEG `output`.
std::vector<std::string> ScreenshotArgs(const std::string& demuxer, const std::string& input,
                                        const std::string& output);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_VIDEO_H_
