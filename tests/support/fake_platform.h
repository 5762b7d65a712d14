// A recording fake of the platform library, linked into the test program.
// Each call passes through to the real implementation unless a test sets an
// override; Reset() clears overrides and records.
#ifndef KOVATHUMB_TESTS_FAKE_PLATFORM_H_
#define KOVATHUMB_TESTS_FAKE_PLATFORM_H_

#include <functional>
#include <string>
#include <vector>

namespace kovathumb {
namespace fake {

struct Platform {
  // File-system type answered by KOVAGetFSType; -2 passes through.
  int fs_type = -2;
  // Result of KLIBCExecv (and so KLIBCExecl) without running anything; -2 runs for real.
  int exec_result = -2;
  // Executable path and arguments of every KLIBCExecv and KLIBCPopenv
  // call.
  std::vector<std::vector<std::string>> exec_calls;
  int eamkdir_calls = 0;
  // Runs before each KLIBCExecv, with the call's path and arguments.
  std::function<void(const std::vector<std::string>&)> before_exec;
};

Platform& State();
void Append(const std::vector<std::string>& call);  // records a call, from any process
void Reset();

}  // namespace fake
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_FAKE_PLATFORM_H_
