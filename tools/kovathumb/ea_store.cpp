#include "ea_store.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "front_end/tree.h"
#include "kovathumb/file.h"


namespace kovathumb {
namespace tool {

namespace {

constexpr int kPathFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool Eat(const std::string& s, size_t* at, const std::string& word) {
  if (s.compare(*at, word.size(), word) != 0) return false;
  *at += word.size();
  return true;
}

bool EatNumber(const std::string& s, size_t* at) {
  const size_t from = *at;
  while (*at < s.size() && isdigit(static_cast<unsigned char>(s[*at]))) ++*at;
  return *at > from;
}

// "<w>x<h>"
bool EatBox(const std::string& s, size_t* at) {
  size_t i = *at;
  if (!EatNumber(s, &i) || !Eat(s, &i, "x") || !EatNumber(s, &i)) return false;
  *at = i;
  return true;
}

// The optional turn ("_r1", "_r-3") and the output extension, to the end.
bool EatTail(const std::string& s, size_t at) {
  if (Eat(s, &at, "_r")) {
    Eat(s, &at, "-");
    if (at >= s.size() || s[at] < '1' || s[at] > '3') return false;
    ++at;
  }
  const std::string ext = s.substr(at);
  return ext == ".jpg" || ext == ".png" || ext == ".gif";
}

bool EatLetter(const std::string& s, size_t* at) {
  return Eat(s, at, "XL") || Eat(s, at, "S") || Eat(s, at, "M") || Eat(s, at, "B");
}

}  // namespace

Stored ClassifyStored(const std::string& name) {
  if (name == "KOVAVIDEO_VIDEO_SCREENSHOT.jpg") return Stored::kThumb;
  size_t at = 0;
  if (Eat(name, &at, "KOVAFILE_THUMB_")) {
    if (EatBox(name, &at)) return EatTail(name, at) ? Stored::kBoxThumb : Stored::kNotOurs;
    return EatLetter(name, &at) && EatTail(name, at) ? Stored::kThumb : Stored::kNotOurs;
  }
  if (Eat(name, &at, "KOVAAVATAR_")) {
    return EatBox(name, &at) && EatTail(name, at) ? Stored::kBoxThumb : Stored::kNotOurs;
  }
  if (Eat(name, &at, "KOVAPHOTO_THUMB_") || Eat(name, &at, "KOVAPHOTO:THUMB_")) {
    const std::string ext = EatLetter(name, &at) ? name.substr(at) : std::string();
    return ext == ".jpg" || ext == ".png" || ext == ".gif" ? Stored::kThumb : Stored::kNotOurs;
  }
  return Stored::kNotOurs;
}

std::vector<std::string> EADirsIn(int dir) {
  const int top =
      EADirName().empty() ? -1 : openat(dir, EADirName().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR* d = TakeDir(top);
  if (d == nullptr) return {};
  std::vector<std::string> names = ReadNames(d);
  closedir(d);
  return names;
}

int OpenEADirOf(int dir, const std::string& base) {
  if (EADirName().empty() || base.empty() || base.find('/') != std::string::npos || base == "." ||
      base == "..") {
    errno = EINVAL;
    return -1;
  }
  const int top = openat(dir, EADirName().c_str(), kPathFlags);
  if (top < 0) return -1;
  const int ea = openat(top, base.c_str(), kPathFlags);
  close(top);
  return ea;
}

StoredOf::StoredOf(const PinnedFile& pinned) {
  if (fstatat(pinned.Dir(), pinned.Base().c_str(), &src_, AT_SYMLINK_NOFOLLOW) == 0) {
    ea_ = OpenEADirOf(pinned.Dir(), pinned.Base());
  }
}

StoredOf::~StoredOf() {
  if (ea_ >= 0) close(ea_);
}

bool StoredOf::Fresh(const std::string& name) const {
  struct stat st;
  return ea_ >= 0 && fstatat(ea_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
         st.st_size > 0 && st.st_mtime >= src_.st_mtime;
}

void RemoveStored(int ea, const Pick& pick, bool dryRun, Freed* freed) {
  DIR* d = TakeDir(openat(ea, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    if (ClassifyStored(e->d_name) != Stored::kNotOurs) names.push_back(e->d_name);
  }
  closedir(d);
  for (const std::string& name : names) {
    struct stat st;
    if (fstatat(ea, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
    if (!pick(name, ClassifyStored(name), st)) continue;
    if (!dryRun && unlinkat(ea, name.c_str(), 0) != 0) continue;
    ++freed->files;
    freed->bytes += st.st_size;
  }
}

bool RemoveEADir(int dir, const std::string& base, bool dryRun, Freed* freed) {
  const int ea = OpenEADirOf(dir, base);
  if (ea < 0) return errno == ENOENT;
  RemoveStored(ea, [](const std::string&, Stored, const struct stat&) { return true; }, dryRun, freed);
  if (!dryRun) file::SweepAbandonedWork(ea);
  close(ea);
  if (dryRun) return true;
  const int top = openat(dir, EADirName().c_str(), kPathFlags);
  if (top < 0) return false;
  // Only an empty directory goes: what a user left in it stays.
  const bool gone = unlinkat(top, base.c_str(), AT_REMOVEDIR) == 0;
  close(top);
  return gone;
}

bool MoveEADir(int fromDir, const std::string& from, int toDir, const std::string& to) {
  const int ea = OpenEADirOf(fromDir, from);
  if (ea < 0) return false;
  close(ea);
  Freed replaced;
  RemoveEADir(toDir, to, false, &replaced);
  // Made as the platform makes it.
  if (mkdirat(toDir, EADirName().c_str(), 0777) != 0 && errno != EEXIST) return false;
  const int fromTop = openat(fromDir, EADirName().c_str(), kPathFlags);
  const int toTop = openat(toDir, EADirName().c_str(), kPathFlags);
  const bool moved = fromTop >= 0 && toTop >= 0 && renameat(fromTop, from.c_str(), toTop, to.c_str()) == 0;
  if (fromTop >= 0) close(fromTop);
  if (toTop >= 0) close(toTop);
  return moved;
}

}  // namespace tool
}  // namespace kovathumb
