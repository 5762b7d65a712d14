// Bounds one request of a program in wall time and memory, as every tool
// the library runs is bounded, so that a source that makes a library loop
// or grow still gets a complete answer.
#ifndef KOVATHUMB_TOOLS_COMMON_WATCHDOG_H_
#define KOVATHUMB_TOOLS_COMMON_WATCHDOG_H_

#include <functional>
#include <string>

#include "util/safe_fs.h"

namespace kovathumb {
namespace tool {

// Runs `request` in a forked child with the tools' address-space limit and
// relays what it writes on standard output. A child that outlives the tools'
// wall-time limit is killed; when it had written nothing, `timedOut` is
// written in its place, and `failed` when it died by a signal (a memory
// limit). Returns the child's exit status (1 when it did not exit).
int RunBounded(const std::function<int()>& request, const std::string& timedOut,
               const std::string& failed);
// The same, relaying to `sink` instead, which says false once nobody reads
// any more, what `request` writes to the descriptor it is given (standard
// output is left alone).
int RunBounded(const std::function<int(int out)>& request, const std::string& timedOut,
               const std::string& failed, const std::function<bool(const char*, size_t)>& sink);

// Writes all bytes, going on after interruptions and short writes; false
// once a write fails (the reader is gone).
using safe_fs::WriteAll;

// The wall time, in seconds, a request may take: a tool's.
int WallSeconds();

// Limits this process's address space as the tools' is (not in sanitizer
// builds, which reserve far more).
void LimitAddressSpace();

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_COMMON_WATCHDOG_H_
