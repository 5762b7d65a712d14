// Writes small DNGs laid out as cameras lay them out: IFD0 a 160 x 120 RGB
// thumbnail carrying the orientation, the 16-bit CFA raw image in a SubIFD
// and, when given, a JPEG preview in a second SubIFD.
#ifndef KOVATHUMB_TESTS_DNG_H_
#define KOVATHUMB_TESTS_DNG_H_

#include <string>

namespace kovathumb {
namespace test {

// The DNG's bytes; `jpeg` (a whole JPEG file, or none when empty) is the
// preview of `previewW` x `previewH`.
std::string MakeDng(unsigned rawW, unsigned rawH, const std::string& jpeg, unsigned previewW,
                    unsigned previewH, int orientation = 1);

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_DNG_H_
