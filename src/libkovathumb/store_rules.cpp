#include "libkovathumb/store_rules.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "kovathumb/thumb_const.h"
#include "store/ea.h"
#include "store/image_facts.h"

namespace kovathumb {
namespace internal {

namespace {

// A JPEG ends with its EOI marker; some writers pad after it.
bool JpegEnds(std::string tail) {
  while (!tail.empty() && (tail.back() == '\0' || tail.back() == '\xff')) tail.pop_back();
  return tail.size() >= 1 && tail.back() == '\xd9' &&
         (tail.size() >= 2 ? tail[tail.size() - 2] == '\xff' : true);
}

uint32_t Le32(const std::string& s, size_t at) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i) v |= static_cast<uint32_t>(static_cast<unsigned char>(s[at + i])) << (8 * i);
  return v;
}

}  // namespace

bool IsStorableImage(const std::string& head, const std::string& tail, off_t size,
                     const std::string& outputMime) {
  if (size <= 0 || head.size() < 8) return false;
  const bool jpegOut = outputMime != kMimePng && outputMime != kMimeGif;
  const std::string type = store::SniffType(head);
  if (type == "jpeg") return jpegOut && JpegEnds(tail);
  if (type == "bmp" && head.size() >= 6) return jpegOut && Le32(head, 2) <= static_cast<uint64_t>(size);
  if (type == "png") {
    return outputMime == kMimePng && tail.size() >= 8 && tail.compare(tail.size() - 8, 4, "IEND") == 0;
  }
  if (type == "gif") return outputMime == kMimeGif && !tail.empty() && tail.back() == ';';
  return false;
}

bool IsBoxThumbName(const std::string& name) { return store::Classify(name) == store::Stored::kBoxThumb; }

std::vector<std::string> BoxThumbsToRemove(std::vector<StoredThumb> stored, const std::string& keep) {
  stored.erase(std::remove_if(stored.begin(), stored.end(),
                              [](const StoredThumb& t) { return !IsBoxThumbName(t.name); }),
               stored.end());
  // Newest first; the one just stored before all.
  std::sort(stored.begin(), stored.end(), [&](const StoredThumb& a, const StoredThumb& b) {
    if ((a.name == keep) != (b.name == keep)) return a.name == keep;
    if (a.changed.tv_sec != b.changed.tv_sec) return a.changed.tv_sec > b.changed.tv_sec;
    return a.changed.tv_nsec > b.changed.tv_nsec;
  });
  std::vector<std::string> remove;
  off_t bytes = 0;
  for (size_t i = 0; i < stored.size(); ++i) {
    bytes += stored[i].size;
    if (i > 0 && (i >= kMaxBoxThumbs || bytes > kMaxBoxThumbBytes)) remove.push_back(stored[i].name);
  }
  return remove;
}

}  // namespace internal
}  // namespace kovathumb
