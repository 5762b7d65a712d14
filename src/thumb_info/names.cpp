// File names of stored thumbnails, one scheme per application.
#include <unistd.h>

#include <map>
#include <string>

#include "kovathumb/thumb_const.h"
#include "kovathumb/thumb_info.h"
#include "thumb_info/decisions.h"

namespace kovathumb {

namespace {

// "large" and "xlarge" share a letter: both are stored under one name.
const std::map<std::string, std::string> sizeSuffixMap = {
    {kSizeSmall, kLetterSmall}, {kSizeMedium, kLetterMedium}, {kSizeBig, kLetterBig},
    {kSizeLarge, kLetterXLarge}, {kSizeXLarge, kLetterXLarge},
};

constexpr char kPictavoPrefix[] = "KOVAPHOTO_THUMB_";
constexpr char kPictavoOldPrefix[] = "KOVAPHOTO:THUMB_";
constexpr char kDossivaPrefix[] = "KOVAFILE_THUMB_";
constexpr char kDossivaTmpPrefix[] = "KOVAFILETMP_THUMB";
constexpr char kAvatarPrefix[] = "KOVAAVATAR_";
constexpr char kCinevoName[] = "KOVAVIDEO_VIDEO_SCREENSHOT.jpg";

}  // namespace

namespace internal {

std::string RotateSuffix(int32_t sum) {
  const int32_t r = sum % 4;  // truncates toward zero: the sign of the sum
  return r == 0 ? std::string() : "_r" + std::to_string(r);
}

}  // namespace internal

const std::string& ThumbInfo::SizeLetter() const { return sizeSuffixMap.at(size_); }

std::string ThumbInfo::GetXString() const {
  const ThumbDimension box = GetTargetDimension();
  return std::to_string(box.width) + "x" + std::to_string(box.height);
}

std::string ThumbInfo::GetRotateSuffix() const {
  return internal::RotateSuffix(internal::TurnSum(rotate_, userRotate_));
}

std::string ThumbInfo::GetPictavoThumbEAName() const {
  return kPictavoPrefix + SizeLetter() + GetOutputExtension();
}

std::string ThumbInfo::GetPictavoOldThumbEAName() const {
  return kPictavoOldPrefix + SizeLetter() + GetOutputExtension();
}

std::string ThumbInfo::GetDossivaThumbEAName() const {
  const std::string token = size_ == kSizeCustom ? GetXString() : SizeLetter();
  return kDossivaPrefix + token + GetRotateSuffix() + GetOutputExtension();
}

std::string ThumbInfo::GetDossivaTmpThumbEAName() const {
  return kDossivaTmpPrefix + GetRotateSuffix() + "_" +
         std::to_string(static_cast<int>(getpid())) + GetOutputExtension();
}

std::string ThumbInfo::GetAvatarThumbEAName() const {
  return kAvatarPrefix + GetXString() + GetRotateSuffix() + GetOutputExtension();
}

std::string ThumbInfo::GetCinevoThumbEAName() const { return kCinevoName; }

std::string ThumbInfo::GetEXIFPreviewTmpPath() const { return exifPreviewTmpPath_; }

}  // namespace kovathumb
