#include "libkovathumb/run_as_root_guard.h"

#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "util/log.h"
#include "util/system.h"

namespace kovathumb {
namespace internal {

namespace {
constexpr char kTag[] = "IF_RUN_AS2";
constexpr char kAccount[] = "root";
const uid_t kNoUid = static_cast<uid_t>(-1);
const gid_t kNoGid = static_cast<gid_t>(-1);

// Sets the effective ids to (uid, gid), passing through root when the
// current effective user is not root. False on any failure.
bool SwitchTo(uid_t uid, gid_t gid) {
  const System& sys = Sys();
  const uid_t curUid = sys.geteuid();
  const gid_t curGid = sys.getegid();
  if (uid != curUid && curUid != 0 && sys.setresuid(kNoUid, 0, kNoUid) < 0) return false;
  if (gid != kNoGid && gid != curGid && sys.setresgid(kNoGid, gid, kNoGid) != 0) return false;
  if (uid != kNoUid && uid != curUid && sys.setresuid(kNoUid, uid, kNoUid) != 0) return false;
  return true;
}
}  // namespace

RunAsRootGuard::RunAsRootGuard(const LogSite& site)
    : savedUid_(Sys().geteuid()),
      savedGid_(Sys().getegid()),
      file_(site.file),
      line_(site.line),
      tag_(kTag),
      switched_(false) {
  switched_ = Open();
  if (!switched_) LogRaw(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(\"%s\")", file_, line_, tag_, kAccount);
}

bool RunAsRootGuard::Open() {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  if (size == -1) size = 16384;
  char errText[1024];
  memset(errText, 0, sizeof errText);
  char* buf = static_cast<char*>(malloc(static_cast<size_t>(size)));
  if (buf == nullptr) {
    LogRaw(LOG_AUTH | LOG_ERR, "%s:%d ERROR: malloc(%ld) [%s]", file_, line_, size,
           strerror_r(errno, errText, sizeof errText));
    return false;
  }
  struct passwd pw;
  struct passwd* found = nullptr;
  const int err = getpwnam_r(kAccount, &pw, buf, static_cast<size_t>(size), &found);
  const uid_t uid = found != nullptr ? pw.pw_uid : kNoUid;
  const gid_t gid = found != nullptr ? pw.pw_gid : kNoGid;
  free(buf);
  if (found == nullptr) {
    LogRaw(LOG_AUTH | LOG_ERR, "%s:%d ERROR: getpwnam(%s) [%s]", file_, line_, kAccount,
           err != 0 ? strerror_r(err, errText, sizeof errText) : "Name not found");
    return false;
  }
  if (Sys().geteuid() == uid && Sys().getegid() == gid) return true;
  return SwitchTo(uid, gid);
}

RunAsRootGuard::~RunAsRootGuard() {
  if (Sys().geteuid() == savedUid_ && Sys().getegid() == savedGid_) return;
  if (!SwitchTo(savedUid_, savedGid_)) {
    LogRaw(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", file_, line_, tag_,
           static_cast<int>(savedUid_), static_cast<int>(savedGid_));
  }
}

}  // namespace internal
}  // namespace kovathumb
