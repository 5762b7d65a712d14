#include "store/names.h"

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace store {

namespace {

constexpr uint32_t kUnlimited = 2147483647;  // "original": no bound

constexpr char kPictavoPrefix[] = "KOVAPHOTO_THUMB_";
constexpr char kPictavoOldPrefix[] = "KOVAPHOTO:THUMB_";
constexpr char kDossivaPrefix[] = "KOVAFILE_THUMB_";
constexpr char kAvatarPrefix[] = "KOVAAVATAR_";
constexpr char kCinevoName[] = "KOVAVIDEO_VIDEO_SCREENSHOT.jpg";
constexpr char kWorkPrefix[] = "KOVAFILETMP_THUMB";

bool Eat(const std::string& s, size_t* at, const std::string& word) {
  if (s.compare(*at, word.size(), word) != 0) return false;
  *at += word.size();
  return true;
}

// A positive decimal without leading zeros that fits 32 bits: what
// std::to_string writes for a box's side.
bool EatSide(const std::string& s, size_t* at, uint32_t* value) {
  size_t i = *at;
  uint64_t v = 0;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9' && i - *at < 10) v = v * 10 + static_cast<uint64_t>(s[i++] - '0');
  if (i == *at || s[*at] == '0' || v > UINT32_MAX || (i < s.size() && s[i] >= '0' && s[i] <= '9')) return false;
  *value = static_cast<uint32_t>(v);
  *at = i;
  return true;
}

bool EatBox(const std::string& s, size_t* at, ThumbDimension* box) {
  size_t i = *at;
  if (!EatSide(s, &i, &box->width) || !Eat(s, &i, "x") || !EatSide(s, &i, &box->height)) return false;
  *at = i;
  return true;
}

bool EatLetter(const std::string& s, size_t* at, std::string* letter) {
  for (const SizeRow& row : Sizes()) {  // no letter begins another
    const std::string l = row.letter;
    if (!l.empty() && Eat(s, at, l)) {
      *letter = l;
      return true;
    }
  }
  return false;
}

bool KnownExt(const std::string& ext) { return ext == ".jpg" || ext == ".png" || ext == ".gif"; }

// The optional turn and the extension, to the end of the name.
bool EatTail(const std::string& s, size_t at, StoredName* n) {
  n->turns = 0;
  if (Eat(s, &at, "_r")) {
    const bool negative = Eat(s, &at, "-");
    if (at >= s.size() || s[at] < '1' || s[at] > '3') return false;
    n->turns = (negative ? -1 : 1) * (s[at] - '0');
    ++at;
  }
  n->ext = s.substr(at);
  return KnownExt(n->ext);
}

}  // namespace

const std::vector<SizeRow>& Sizes() {
  static const std::vector<SizeRow> rows = {
      {kSizeSmall, kLetterSmall, {120, 120}},     {kSizeMedium, kLetterMedium, {360, 360}},
      {kSizeBig, kLetterBig, {640, 640}},         {kSizeLarge, kLetterXLarge, {1280, 1280}},
      {kSizeXLarge, kLetterXLarge, {1280, 1280}}, {kSizeOriginal, "", {kUnlimited, kUnlimited}},
  };
  return rows;
}

const SizeRow* FindSize(const std::string& size) {
  for (const SizeRow& row : Sizes()) {
    if (size == row.size) return &row;
  }
  return nullptr;
}

ThumbDimension BoxOfLetter(const std::string& letter) {
  for (const SizeRow& row : Sizes()) {
    if (!letter.empty() && letter == row.letter) return row.box;
  }
  return {0, 0};
}

std::string RotateSuffix(int32_t sum) {
  const int32_t r = sum % 4;  // truncates toward zero: the sign of the sum
  return r == 0 ? std::string() : "_r" + std::to_string(r);
}

std::string Build(const StoredName& n) {
  if (n.turns < -3 || n.turns > 3) return std::string();
  if (n.scheme == Scheme::kCinevo) return n.ext == ".jpg" && n.turns == 0 ? kCinevoName : std::string();
  if (!KnownExt(n.ext)) return std::string();
  const bool hasLetter = BoxOfLetter(n.letter).width != 0;
  const bool hasBox = n.box.width != 0 && n.box.height != 0;
  const std::string box = std::to_string(n.box.width) + "x" + std::to_string(n.box.height);
  switch (n.scheme) {
    case Scheme::kPictavo:
    case Scheme::kPictavoOld:
      if (!hasLetter || n.turns != 0) return std::string();
      return (n.scheme == Scheme::kPictavo ? kPictavoPrefix : kPictavoOldPrefix) + n.letter + n.ext;
    case Scheme::kDossiva:
      if (hasLetter == hasBox) return std::string();
      return kDossivaPrefix + (hasLetter ? n.letter : box) + RotateSuffix(n.turns) + n.ext;
    case Scheme::kAvatar:
      if (!hasBox || hasLetter) return std::string();
      return kAvatarPrefix + box + RotateSuffix(n.turns) + n.ext;
    case Scheme::kCinevo:
      break;
  }
  return std::string();
}

bool Parse(const std::string& name, StoredName* out) {
  StoredName n;
  size_t at = 0;
  if (name == kCinevoName) {
    n.scheme = Scheme::kCinevo;
  } else if (Eat(name, &at, kDossivaPrefix)) {
    n.scheme = Scheme::kDossiva;
    if (!EatBox(name, &at, &n.box) && !EatLetter(name, &at, &n.letter)) return false;
    if (!EatTail(name, at, &n)) return false;
  } else if (Eat(name, &at, kAvatarPrefix)) {
    n.scheme = Scheme::kAvatar;
    if (!EatBox(name, &at, &n.box) || !EatTail(name, at, &n)) return false;
  } else if (Eat(name, &at, kPictavoPrefix) || Eat(name, &at, kPictavoOldPrefix)) {
    n.scheme = name[9] == ':' ? Scheme::kPictavoOld : Scheme::kPictavo;
    if (!EatLetter(name, &at, &n.letter)) return false;
    n.ext = name.substr(at);
    if (!KnownExt(n.ext)) return false;
  } else {
    return false;
  }
  *out = n;
  return true;
}

bool IsBoxThumb(const StoredName& n) { return n.scheme == Scheme::kAvatar || (n.scheme == Scheme::kDossiva && n.letter.empty()); }

ThumbDimension BoxOf(const StoredName& n) {
  if (n.scheme == Scheme::kCinevo) return {0, 0};  // a frame as wide as 1280, as tall as it comes
  return n.letter.empty() ? n.box : BoxOfLetter(n.letter);
}

std::string MimeOfExt(const std::string& ext) {
  if (ext == ".png") return kMimePng;
  if (ext == ".gif") return kMimeGif;
  return kMimeJpeg;
}

std::string WorkName(int32_t turnSum, const std::string& ext) {
  return kWorkPrefix + RotateSuffix(turnSum) + "_" + std::to_string(static_cast<int>(getpid())) + ext;
}

}  // namespace store
}  // namespace kovathumb
