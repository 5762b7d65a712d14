// The C library's calls that set a stored thumbnail's owner, mode, times and
// place, and switch the effective user for it, reached through one table so
// that tests replace them in-process and check those rules without root.
// Internal to the library (hidden, never exported).
#ifndef KOVATHUMB_UTIL_SYSTEM_H_
#define KOVATHUMB_UTIL_SYSTEM_H_

#include <sys/types.h>
#include <time.h>

namespace kovathumb {
namespace internal {

struct System {
  int (*fchmod)(int fd, mode_t mode);
  int (*fchown)(int fd, uid_t uid, gid_t gid);
  int (*futimens)(int fd, const struct timespec times[2]);
  int (*renameat)(int fromDir, const char* from, int toDir, const char* to);
  int (*unlinkat)(int dir, const char* name, int flags);
  uid_t (*geteuid)();
  gid_t (*getegid)();
  int (*setresuid)(uid_t ruid, uid_t euid, uid_t suid);
  int (*setresgid)(gid_t rgid, gid_t egid, gid_t sgid);
  int (*mkdirat)(int dir, const char* name, mode_t mode);
};

// The calls in force: the C library's unless a test has replaced some.
System& Sys();
// Back to the C library's.
void ResetSystem();

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_UTIL_SYSTEM_H_
