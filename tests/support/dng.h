// Writes a minimal DNG: a small 16-bit CFA raw image and, optionally, an
// embedded JPEG preview in a second IFD, as cameras store them.
#ifndef KOVATHUMB_TESTS_DNG_H_
#define KOVATHUMB_TESTS_DNG_H_

#include <string>

namespace kovathumb {
namespace test {

// The DNG's bytes; `jpeg` (a whole JPEG file) becomes the preview of
// `previewW` x `previewH`, none when empty.
std::string MakeDng(unsigned rawW, unsigned rawH, const std::string& jpeg, unsigned previewW,
                    unsigned previewH);

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_DNG_H_
