// The names of stored thumbnails, for every application that stores them,
// built and read back in one place; and the sizes they are stored in.
// Pure: no file is touched.
#ifndef KOVATHUMB_STORE_NAMES_H_
#define KOVATHUMB_STORE_NAMES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "kovathumb/thumb_info.h"

namespace kovathumb {
namespace store {

// A size name, the letter its thumbnails are stored under, and its box.
// "large" and "xlarge" share a letter and a box: one file serves both.
struct SizeRow {
  const char* size;
  const char* letter;  // "" for "original", which is never stored
  ThumbDimension box;
};
// small, medium, big, large, xlarge and original.
const std::vector<SizeRow>& Sizes();
// The row of `size`; null for a name not in the table.
const SizeRow* FindSize(const std::string& size);
// The box stored under `letter`; {0, 0} for none.
ThumbDimension BoxOfLetter(const std::string& letter);

enum class Scheme {
  kPictavo,     // "KOVAPHOTO_THUMB_<L><ext>"
  kPictavoOld,  // "KOVAPHOTO:THUMB_<L><ext>"
  kDossiva,     // "KOVAFILE_THUMB_<L or WxH>[_r<n>]<ext>"
  kAvatar,      // "KOVAAVATAR_<WxH>[_r<n>]<ext>"
  kCinevo,      // "KOVAVIDEO_VIDEO_SCREENSHOT.jpg"
};

// The user's rotation takes quarter turns within this range; the stored
// name carries the sum with the source's own, as its remainder by 4.
constexpr int kMinUserRotate = -3;
constexpr int kMaxUserRotate = 3;

struct StoredName {
  Scheme scheme = Scheme::kDossiva;
  std::string letter;  // a size's letter; empty when `box` names it
  ThumbDimension box = {0, 0};
  int turns = 0;       // -3..3: "_r<turns>", none for 0 (Pictavo's never turn)
  std::string ext = ".jpg";  // ".jpg", ".png" or ".gif" (Cinevo: ".jpg")

  bool operator==(const StoredName& o) const {
    return scheme == o.scheme && letter == o.letter && box.width == o.box.width &&
           box.height == o.box.height && turns == o.turns && ext == o.ext;
  }
};

// The name `n` is stored under; "" when `n` cannot be stored (no letter
// and no box, a turn out of range, an unknown extension).
std::string Build(const StoredName& n);
// Reads a stored name back; false for any name our store does not make
// (a user's file in an EA directory is not ours).
bool Parse(const std::string& name, StoredName* out);

// "" or "_r<n>" for a total of `sum` quarter turns (its remainder by 4,
// with the sign of the sum).
std::string RotateSuffix(int32_t sum);

// A thumbnail of an explicit box (a custom size, an avatar): those are
// kept in bounded numbers and pruned when unused.
bool IsBoxThumb(const StoredName& n);

// The box the thumbnail under `n` was made for: its size's, or its own;
// {0, 0} for the video screenshot, which no box bounds.
ThumbDimension BoxOf(const StoredName& n);

// The media type a thumbnail under extension `ext` must be.
std::string MimeOfExt(const std::string& ext);

// The name a conversion is written under before it is stored: unique to
// the process, never taken for a stored thumbnail.
std::string WorkName(int32_t turnSum, const std::string& ext);

}  // namespace store
}  // namespace kovathumb

#endif  // KOVATHUMB_STORE_NAMES_H_
