#include "store/ea.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kovaplatform/kovaplatform.h"
#include "util/safe_fs.h"
#include "util/system.h"

namespace kovathumb {
namespace store {

namespace {

constexpr int kPathFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The component between the source's directory and the source's name in
// the EA directory the platform gives "/d/f".
std::string AskEADirName() {
  char buf[256];
  if (KOVAEADirPath(0, "/d/f", buf, sizeof buf) != 0) return std::string();
  const std::string dir = buf;
  if (dir.compare(0, 3, "/d/") != 0 || dir.size() < 5 || dir.compare(dir.size() - 2, 2, "/f") != 0) {
    return std::string();
  }
  return dir.substr(3, dir.size() - 5);
}

bool SafeBase(const std::string& base) {
  return !base.empty() && base.find('/') == std::string::npos && base != "." && base != "..";
}

}  // namespace

const std::string& EADirName() {
  static const std::string name = AskEADirName();
  return name;
}

bool IsEADirName(const std::string& name) { return !EADirName().empty() && name == EADirName(); }

std::vector<std::string> EADirsIn(int dir) {
  if (EADirName().empty()) return {};
  safe_fs::Fd top(openat(dir, EADirName().c_str(), kPathFlags));
  return top.valid() ? safe_fs::Names(top.get()) : std::vector<std::string>();
}

int OpenEADirOf(int dir, const std::string& base) {
  if (EADirName().empty() || !SafeBase(base)) {
    errno = EINVAL;
    return -1;
  }
  safe_fs::Fd top(openat(dir, EADirName().c_str(), kPathFlags));
  return top.valid() ? openat(top.get(), base.c_str(), kPathFlags) : -1;
}

Stored Classify(const std::string& name) {
  StoredName n;
  if (!Parse(name, &n)) return Stored::kNotOurs;
  return IsBoxThumb(n) ? Stored::kBoxThumb : Stored::kThumb;
}

void RemoveStored(int ea, const Pick& pick, bool dryRun, Freed* freed) {
  for (const std::string& name : safe_fs::Names(ea)) {
    const Stored kind = Classify(name);
    struct stat st;
    if (kind == Stored::kNotOurs || fstatat(ea, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode) || !pick(name, kind, st)) {
      continue;
    }
    if (!dryRun && internal::Sys().unlinkat(ea, name.c_str(), 0) != 0) continue;
    ++freed->files;
    freed->bytes += st.st_size;
  }
}

bool RemoveEADir(int dir, const std::string& base, bool dryRun, Freed* freed) {
  safe_fs::Fd ea(OpenEADirOf(dir, base));
  if (!ea.valid()) return errno == ENOENT;
  RemoveStored(ea.get(), [](const std::string&, Stored, const struct stat&) { return true; }, dryRun, freed);
  if (dryRun) return true;
  SweepAbandonedWork(ea.get());
  safe_fs::Fd top(openat(dir, EADirName().c_str(), kPathFlags));
  // Only an empty directory goes: what a user left in it stays.
  return top.valid() && internal::Sys().unlinkat(top.get(), base.c_str(), AT_REMOVEDIR) == 0;
}

bool RemoveIfEmpty(int ea, const std::string& base) {
  if (!SafeBase(base)) return false;
  safe_fs::Fd top(openat(ea, "..", kPathFlags));
  struct stat self, named;
  // Still the directory we made under that name; rmdir takes only an empty one.
  if (!top.valid() || fstat(ea, &self) != 0 || fstatat(top.get(), base.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
      self.st_dev != named.st_dev || self.st_ino != named.st_ino) {
    return false;
  }
  return internal::Sys().unlinkat(top.get(), base.c_str(), AT_REMOVEDIR) == 0;
}

bool MoveEADir(int fromDir, const std::string& from, int toDir, const std::string& to) {
  if (!safe_fs::Fd(OpenEADirOf(fromDir, from)).valid() || !SafeBase(to)) return false;
  Freed replaced;
  RemoveEADir(toDir, to, false, &replaced);
  // Made as the platform makes it.
  if (internal::Sys().mkdirat(toDir, EADirName().c_str(), 0777) != 0 && errno != EEXIST) return false;
  safe_fs::Fd fromTop(openat(fromDir, EADirName().c_str(), kPathFlags));
  safe_fs::Fd toTop(openat(toDir, EADirName().c_str(), kPathFlags));
  return fromTop.valid() && toTop.valid() && safe_fs::RenameAt(fromTop.get(), from, toTop.get(), to);
}

void SweepAbandonedWork(int ea) { safe_fs::SweepAbandoned(ea, safe_fs::kPrivatePrefix); }

}  // namespace store
}  // namespace kovathumb
