// The embedded preview: which one makes a thumbnail, reading it out (in the
// probe's sandboxed child, bounded in time and memory: Exiv2's preview
// reader can loop and grow without end on a crafted file), and keeping the
// bytes it hands back.
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <exiv2/exiv2.hpp>
#include <functional>
#include <string>

#include "convert_cmd/tool_files.h"
#include "kovathumb/thumb_const.h"
#include "kovathumb/thumb_info.h"
#include "libkovathumb/quality.h"
#include "thumb_info/decisions.h"
#include "thumb_info/probe.h"
#include "util/log.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace internal {

int ChoosePreview(const std::vector<PreviewProps>& previews, const std::string& sourceMime,
                  ThumbDimension box) {
  // Products wrap in 32 bits on purpose: an unlimited box (2147483647 on
  // both sides) then skips no preview and takes the largest.
  const uint32_t maxW = 2U * box.width;
  const uint32_t maxH = 2U * box.height;
  int best = -1;
  uint32_t bestArea = 0;
  for (size_t i = 0; i < previews.size(); ++i) {
    const PreviewProps& p = previews[i];
    if (p.mimeType == kMimeTiff && sourceMime == "image/x-canon-cr2") continue;
    if (p.width > maxW && p.height > maxH) continue;
    const uint32_t area = p.width * p.height;
    if (best < 0 || area > bestArea) {
      best = static_cast<int>(i);
      bestArea = area;
    }
  }
  if (best < 0) return -1;
  const uint32_t boxArea = box.width * box.height;
  if (static_cast<double>(bestArea) < 0.75 * static_cast<double>(boxArea)) return -1;
  return best;
}

}  // namespace internal

namespace internal {

namespace {
std::vector<PreviewProps> PropsOf(const Exiv2::PreviewPropertiesList& list) {
  std::vector<PreviewProps> props;
  props.reserve(list.size());
  for (const Exiv2::PreviewProperties& p : list) props.push_back({p.mimeType_, p.width_, p.height_});
  return props;
}
}  // namespace

bool ListPreviews(Exiv2::Image& image, size_t max, std::vector<PreviewProps>* props) {
  const Exiv2::PreviewPropertiesList list = Exiv2::PreviewManager(image).getPreviewProperties();
  if (list.size() > max) return false;
  *props = PropsOf(list);
  return true;
}

bool ReadChosenPreview(Exiv2::Image& image, const std::function<int(const std::vector<PreviewProps>&)>& choose,
                       std::string* extension, std::string* data) {
  Exiv2::PreviewManager manager(image);
  const Exiv2::PreviewPropertiesList list = manager.getPreviewProperties();
  const int best = choose(PropsOf(list));
  if (best < 0) return false;
  Exiv2::PreviewImage preview = manager.getPreviewImage(list[static_cast<size_t>(best)]);
  *extension = preview.extension();
  data->assign(reinterpret_cast<const char*>(preview.pData()), preview.size());
  return true;
}

}  // namespace internal

void ThumbInfo::StoreEXIFPreview(const std::string& extension, const std::string& data) {
  // /tmp is everyone's: the file is ours only if we create it, and its name
  // must not be guessable.
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 8; ++attempt) {
    exifPreviewTmpPath_ = "/tmp/thumb." + std::to_string(static_cast<int>(getpid())) + "." +
                          std::to_string(static_cast<long>(time(nullptr))) + "." +
                          std::to_string(internal::RandomNumber()) + extension;
    fd = internal::CreateExclusive(exifPreviewTmpPath_);
  }
  bool written = false;
  if (fd >= 0) {
    // An empty preview is no preview.
    written = !data.empty() && safe_fs::WriteAll(fd, data.data(), data.size());
    if (close(fd) != 0) written = false;
  }
  if (written) {
    UpdateAMTime(exifPreviewTmpPath_);
  } else {
    if (fd >= 0) unlink(exifPreviewTmpPath_.c_str());
    exifPreviewTmpPath_.clear();
    KT_LOG("Write preview to file failed, %s", path_.c_str());
  }
}

}  // namespace kovathumb
