// Switches the effective user and group to root's for a scope and back.
// Failures are logged to the authorisation facility; the scope goes on
// without the switch (Switched() false).
#ifndef KOVATHUMB_LIBKOVATHUMB_RUN_AS_ROOT_GUARD_H_
#define KOVATHUMB_LIBKOVATHUMB_RUN_AS_ROOT_GUARD_H_

#include <sys/types.h>

#include "util/log.h"

namespace kovathumb {
namespace internal {

class RunAsRootGuard {
 public:
  // `site` is the place its log lines name.
  explicit RunAsRootGuard(const LogSite& site);
  ~RunAsRootGuard();
  RunAsRootGuard(const RunAsRootGuard&) = delete;
  RunAsRootGuard& operator=(const RunAsRootGuard&) = delete;

  bool Switched() const { return switched_; }

 private:
  bool Open();

  uid_t savedUid_;
  gid_t savedGid_;
  const char* file_;
  int line_;
  const char* tag_;
  bool switched_;
};

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_LIBKOVATHUMB_RUN_AS_ROOT_GUARD_H_
