// Modules of ours loaded on first use (libkovathumb_heif.so,
// libkovathumb_formats.so): their libraries cost every process that links
// them start-up time, and most processes never meet the files they read.
#ifndef KOVATHUMB_UTIL_MODULES_H_
#define KOVATHUMB_UTIL_MODULES_H_

#include <string>

namespace kovathumb {
namespace internal {

// `symbol` of the module `name` (found in our versioned directory beside
// the object holding this code, else where the install or the build put
// it), or null with `error`. The module stays loaded.
void* ModuleSymbol(const char* name, const char* symbol, std::string* error);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_UTIL_MODULES_H_
