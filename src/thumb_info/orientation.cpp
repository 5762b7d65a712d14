// Which way up a photo is: its EXIF orientation, with the cameras' own
// maker-note keys where the standard one says "1".
#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include <cstdint>
#include <exiv2/exiv2.hpp>
#include <string>

#include "kovathumb/thumb_info.h"
#include "thumb_info/decisions.h"

namespace kovathumb {

const Exiv2::ExifKey ThumbInfo::stdOrientationKey("Exif.Image.Orientation");

// The first key present wins, so the repeated Sony key never changes a result.
const std::vector<Exiv2::ExifKey> ThumbInfo::orientationKeyList_ = {
    Exiv2::ExifKey("Exif.Panasonic.Rotation"),     Exiv2::ExifKey("Exif.MinoltaCs5D.Rotation"),
    Exiv2::ExifKey("Exif.MinoltaCs5D.Rotation2"),  Exiv2::ExifKey("Exif.MinoltaCs7D.Rotation"),
    Exiv2::ExifKey("Exif.Sony1MltCsA100.Rotation"), Exiv2::ExifKey("Exif.Sony1Cs.Rotation"),
    Exiv2::ExifKey("Exif.Sony2Cs.Rotation"),       Exiv2::ExifKey("Exif.Sony1Cs2.Rotation"),
    Exiv2::ExifKey("Exif.Sony2Cs2.Rotation"),      Exiv2::ExifKey("Exif.Sony1MltCsA100.Rotation"),
};

// Indexed by EXIF orientation - 1: (clockwise quarter turns, mirror).
const std::vector<std::pair<int, bool>> ThumbInfo::rotateFlopMappingList_ = {
    {0, false}, {0, true}, {2, false}, {2, true}, {1, true}, {1, false}, {3, true}, {3, false},
};

namespace internal {

namespace {

// As std::stoi reads a number, without its exceptions.
bool ParseInt(const std::string& text, int* value) {
  errno = 0;
  char* end = nullptr;
  const long v = strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || errno == ERANGE || v < INT_MIN || v > INT_MAX) return false;
  *value = static_cast<int>(v);
  return true;
}

}  // namespace

int OrientationIndex(const std::string* standard, const std::string* makerNote) {
  if (standard == nullptr) return 0;
  int orientation = 0;
  const std::string* text = *standard != "1" ? standard : makerNote;
  if (text == nullptr || !ParseInt(*text, &orientation)) return 0;
  const uint32_t index = static_cast<uint32_t>(orientation) - 1U;
  return index > 7U ? 0 : static_cast<int>(index);
}

}  // namespace internal

int ThumbInfo::ResolveOrientationIndex(Exiv2::Image& image) const {
  Exiv2::ExifData& exif = image.exifData();
  Exiv2::ExifData::iterator it = exif.findKey(stdOrientationKey);
  if (it == exif.end()) return internal::OrientationIndex(nullptr, nullptr);
  const std::string standard = it->toString();
  if (standard != "1") return internal::OrientationIndex(&standard, nullptr);
  for (const Exiv2::ExifKey& key : orientationKeyList_) {
    Exiv2::ExifData::iterator mk = exif.findKey(key);
    if (mk != exif.end()) {
      const std::string makerNote = mk->toString();
      return internal::OrientationIndex(&standard, &makerNote);
    }
  }
  return internal::OrientationIndex(&standard, nullptr);
}

}  // namespace kovathumb
