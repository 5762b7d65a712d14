#include <ctype.h>
#include <string.h>

#include <string>

#include "kovathumb/file.h"
#include "kovathumb/thumb_const.h"

namespace kovathumb {

namespace file {

std::string GetFileExt(const std::string& path) {
  std::string lower(path);
  for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  size_t dot = lower.rfind('.');
  return dot == std::string::npos ? lower : lower.substr(dot + 1);
}

}  // namespace file

const ExtensionSet& ImageExtensionSet() {
  static const ExtensionSet set(std::begin(kImageExtensions), std::end(kImageExtensions));
  return set;
}

namespace {
// Beyond the appliance's list, read only in quality mode.
constexpr const char* kQualityOnlyExtensions[] = {
    "webp", "avif", "jxl", "cr3",
    // Raws LibRaw reads that the appliance's list leaves out.
    "nrw", "srw", "rwl", "iiq", "fff", "mdc", "gpr", "cap", "eip", "bay"};
}  // namespace

const ExtensionSet& QualityImageExtensionSet() {
  static const ExtensionSet set = [] {
    ExtensionSet s(std::begin(kImageExtensions), std::end(kImageExtensions));
    s.insert(std::begin(kQualityOnlyExtensions), std::end(kQualityOnlyExtensions));
    return s;
  }();
  return set;
}

const ExtensionSet& VideoExtensionSet() {
  static const ExtensionSet set(std::begin(kVideoExtensions), std::end(kVideoExtensions));
  return set;
}

// The sets hash pointers, so equal text at another address is not found by
// hashing: walk and compare contents.
bool IsSupportExt(const ExtensionSet& set, const std::string& path) {
  const std::string ext = file::GetFileExt(path);
  for (const char* candidate : set) {
    if (ext == candidate) return true;
  }
  return false;
}

bool IsSupportImage(const std::string& path) { return IsSupportExt(ImageExtensionSet(), path); }

bool IsQualityImage(const std::string& path) { return IsSupportExt(QualityImageExtensionSet(), path); }

bool IsSupportVideo(const std::string& path) { return IsSupportExt(VideoExtensionSet(), path); }

}  // namespace kovathumb
