#include "util/system.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kovathumb {
namespace internal {

namespace {
const System kReal = {::fchmod,  ::fchown,  ::futimens,  ::renameat, ::unlinkat,
                      ::geteuid, ::getegid, ::setresuid, ::setresgid, ::mkdirat};
}  // namespace

System& Sys() {
  static System calls = kReal;
  return calls;
}

void ResetSystem() { Sys() = kReal; }

}  // namespace internal
}  // namespace kovathumb
