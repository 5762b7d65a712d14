// Writes minimal DNGs: a small 16-bit CFA raw image and, optionally, an
// embedded JPEG preview.
#ifndef KOVATHUMB_TESTS_DNG_H_
#define KOVATHUMB_TESTS_DNG_H_

#include <string>

namespace kovathumb {
namespace test {

// The DNG's bytes; `jpeg` (a whole JPEG file) becomes the preview of
// `previewW` x `previewH`, none when empty.
std::string MakeDng(unsigned rawW, unsigned rawH, const std::string& jpeg, unsigned previewW,
                    unsigned previewH);

// The same laid out as cameras lay it out: IFD0 a 160 x 120 RGB thumbnail
// (NewSubfileType 1) carrying `orientation`, the raw image in a SubIFD and
// the JPEG preview, when given, in a second SubIFD.
std::string MakeCameraDng(unsigned rawW, unsigned rawH, const std::string& jpeg,
                          unsigned previewW, unsigned previewH, int orientation = 1);

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_DNG_H_
