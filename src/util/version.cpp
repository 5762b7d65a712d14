#include "kovathumb/version.h"

namespace kovathumb {

const char* Version() { return KOVATHUMB_VERSION_STRING; }

}  // namespace kovathumb
