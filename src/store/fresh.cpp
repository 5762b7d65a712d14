#include "store/fresh.h"

#include <stdlib.h>

#include <utility>

#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace store {

long long MaxThumbBytes() {
  const char* v = getenv("KOVATHUMB_MAX_THUMB_BYTES");
  const long long n = v != nullptr ? atoll(v) : 0;
  return n > 0 ? n : 16LL << 20;
}

bool Serves(const StoredName& name, const StoredFile& f, time_t sourceMtime, Behaviour b) {
  if (!f.regular || f.size <= 0 || f.size > MaxThumbBytes() || f.mtime < sourceMtime) return false;
  if (b == Behaviour::kAppliance) return true;
  if (f.image.mime != MimeOfExt(name.ext)) return false;
  ThumbDimension box = BoxOf(name);
  if (box.width == 0) return true;  // no box bounds it
  // A box name says the box before the turn; the thumbnail is upright.
  if (IsBoxThumb(name) && (name.turns & 1)) box = {box.height, box.width};
  return f.image.width != 0 && f.image.height != 0 && f.image.width <= box.width && f.image.height <= box.height;
}

bool ServesAt(int ea, const std::string& name, time_t sourceMtime, Behaviour b, safe_fs::Fd* opened,
              struct stat64* st) {
  StoredName parsed;
  if (ea < 0 || !Parse(name, &parsed)) return false;
  // Only a regular file: never a link, FIFO or directory planted there.
  struct stat64 own;
  if (st == nullptr) st = &own;
  safe_fs::Fd fd = safe_fs::OpenRegularAt(ea, name, st);
  if (!fd.valid()) return false;
  StoredFile f;
  f.regular = true;
  f.size = st->st_size;
  f.mtime = st->st_mtime;
  if (b == Behaviour::kQuality) f.image = ReadImageFacts(fd.get());
  if (!Serves(parsed, f, sourceMtime, b)) return false;
  if (opened != nullptr) *opened = std::move(fd);
  return true;
}

}  // namespace store
}  // namespace kovathumb
