// Files handed to and made for the tools.
//
// What ImageMagick is told an input is. Its reader would otherwise pick a
// coder from the content (an SVG or MVG behind a .jpg name can pull other
// files into the picture), so every input gets the coder of one of the few
// formats we convert, named as a prefix, and anything else is not converted.
#ifndef KOVATHUMB_CONVERT_CMD_TOOL_FILES_H_
#define KOVATHUMB_CONVERT_CMD_TOOL_FILES_H_

#include <string>

namespace kovathumb {
namespace internal {

// The coder for a probed type ("jpeg", "png", "gif", "bmp", "tiff", "heic"),
// or "" for a type we do not convert.
std::string CoderFor(const std::string& mime);

// The coder for an input whose first bytes are `head` ("jpeg", "png", "gif",
// "bmp", "tiff", "ppm", "heic"), or "" for a format we do not convert. With an
// empty `head` (the input cannot be read here) the probed `mime` decides.
std::string MagickCoder(const std::string& head, const std::string& mime);

// A regular file opened for reading (without blocking on a FIFO), or -1.
int OpenInput(const std::string& path);

// Up to 16 leading bytes of the file open as `fd`; "" when none.
std::string ReadHead(int fd);

// `name` with every character ImageMagick may read as a pattern or a frame
// selector ('%', '[', ']', ...) replaced by '_'.
std::string MagickSafeName(const std::string& name);

// Creates `path` exclusively, never through a link; -1 when it exists.
int CreateExclusive(const std::string& path);

// Letters and digits from the kernel's random source.
std::string RandomText(size_t n);

// A number from 0 to 2^31-1 from the kernel's random source.
int RandomNumber();

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_CONVERT_CMD_TOOL_FILES_H_
