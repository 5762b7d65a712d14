// ThumbInfo's stored names: the store builds them from its facts.
#include <map>
#include <string>

#include "kovathumb/thumb_const.h"
#include "kovathumb/thumb_info.h"
#include "store/names.h"
#include "thumb_info/decisions.h"

namespace kovathumb {

namespace {

store::StoredName Named(store::Scheme scheme, const std::string& letter, ThumbDimension box, int32_t turnSum,
                        const std::string& ext) {
  store::StoredName n;
  n.scheme = scheme;
  n.letter = letter;
  n.box = letter.empty() ? box : ThumbDimension{0, 0};
  n.turns = turnSum % 4;
  n.ext = ext;
  return n;
}

}  // namespace

namespace internal {

std::string RotateSuffix(int32_t sum) { return store::RotateSuffix(sum); }

}  // namespace internal

const std::string& ThumbInfo::SizeLetter() const {
  // Throws std::out_of_range, as the size table does, for a size never stored.
  static const std::map<std::string, std::string> letters = [] {
    std::map<std::string, std::string> m;
    for (const store::SizeRow& row : store::Sizes()) {
      if (*row.letter != '\0') m[row.size] = row.letter;
    }
    return m;
  }();
  return letters.at(size_);
}

std::string ThumbInfo::GetXString() const {
  const ThumbDimension box = GetTargetDimension();
  return std::to_string(box.width) + "x" + std::to_string(box.height);
}

std::string ThumbInfo::GetRotateSuffix() const {
  return internal::RotateSuffix(internal::TurnSum(rotate_, userRotate_));
}

std::string ThumbInfo::GetPictavoThumbEAName() const {
  return store::Build(Named(store::Scheme::kPictavo, SizeLetter(), {0, 0}, 0, GetOutputExtension()));
}

std::string ThumbInfo::GetPictavoOldThumbEAName() const {
  return store::Build(Named(store::Scheme::kPictavoOld, SizeLetter(), {0, 0}, 0, GetOutputExtension()));
}

std::string ThumbInfo::GetDossivaThumbEAName() const {
  const std::string letter = size_ == kSizeCustom ? std::string() : SizeLetter();
  return store::Build(Named(store::Scheme::kDossiva, letter, GetTargetDimension(),
                            internal::TurnSum(rotate_, userRotate_), GetOutputExtension()));
}

std::string ThumbInfo::GetDossivaTmpThumbEAName() const {
  return store::WorkName(internal::TurnSum(rotate_, userRotate_), GetOutputExtension());
}

std::string ThumbInfo::GetAvatarThumbEAName() const {
  return store::Build(Named(store::Scheme::kAvatar, std::string(), GetTargetDimension(),
                            internal::TurnSum(rotate_, userRotate_), GetOutputExtension()));
}

std::string ThumbInfo::GetCinevoThumbEAName() const {
  return store::Build(Named(store::Scheme::kCinevo, std::string(), {0, 0}, 0, ".jpg"));
}

std::string ThumbInfo::GetEXIFPreviewTmpPath() const { return exifPreviewTmpPath_; }

}  // namespace kovathumb
