// Where the library's reasons go. Every line goes to the system log; where
// there is none to read (a container, a fresh machine) a program may also
// have the lines on standard error, as KOVATHUMB_LOG_STDERR=1 in the
// environment does for any program.
#ifndef KOVATHUMB_LOG_H_
#define KOVATHUMB_LOG_H_

#include <string>

#include "kovathumb/export.h"

namespace kovathumb {

KOVATHUMB_EXPORT void SetLogToStderr(bool on);
KOVATHUMB_EXPORT bool LogsToStderr();

// The message of the first error line the calling thread logged since
// ClearLogReason(), "" when none: why the request made since then failed
// (what follows the first line is mostly its consequence).
KOVATHUMB_EXPORT std::string LogReason();
KOVATHUMB_EXPORT void ClearLogReason();

}  // namespace kovathumb

#endif  // KOVATHUMB_LOG_H_
