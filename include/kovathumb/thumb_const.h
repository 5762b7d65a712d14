// Names shared across libkovathumb and its callers: the size names, the sizes
// a thumbnail is made in, their letters in stored thumbnail names, the media
// types of the photos we convert, and the file-name extensions of supported
// photos and videos. Constants only; safe to use from any thread.
//
//   // Every stored size of a photo, as ConvertAll makes them:
//   std::vector<std::string> sizes(std::begin(kovathumb::kConvertibleSizes),
//                                  std::end(kovathumb::kConvertibleSizes));
#ifndef KOVATHUMB_THUMB_CONST_H_
#define KOVATHUMB_THUMB_CONST_H_

namespace kovathumb {

inline constexpr char kSizeSmall[] = "small";
inline constexpr char kSizeMedium[] = "medium";
inline constexpr char kSizeBig[] = "big";
inline constexpr char kSizeLarge[] = "large";
inline constexpr char kSizeXLarge[] = "xlarge";
inline constexpr char kSizeOriginal[] = "original";
// Size name of a request made with explicit dimensions.
inline constexpr char kSizeCustom[] = "__CUSTOM_SIZE__";

// The sizes made and stored for a photo, smallest first ("original" is the
// source itself, never made).
inline constexpr const char* kConvertibleSizes[] = {kSizeSmall, kSizeMedium, kSizeBig, kSizeLarge,
                                                    kSizeXLarge};

inline constexpr char kLetterSmall[] = "S";
inline constexpr char kLetterMedium[] = "M";
inline constexpr char kLetterBig[] = "B";
inline constexpr char kLetterLarge[] = "L";  // defined, but "large" is stored as "XL"
inline constexpr char kLetterXLarge[] = "XL";

// Media types as the probe names them; outputs are JPEG, PNG or GIF.
inline constexpr char kMimeJpeg[] = "image/jpeg";
inline constexpr char kMimePng[] = "image/png";
inline constexpr char kMimeGif[] = "image/gif";
inline constexpr char kMimeBmp[] = "image/x-ms-bmp";  // the probe's name, not "image/bmp"
inline constexpr char kMimeTiff[] = "image/tiff";

inline constexpr const char* kImageExtensions[] = {
    "jpg", "jpeg", "jpe", "bmp", "png", "tif", "tiff", "gif",  "arw", "srf", "sr2",
    "dcr", "k25",  "kdc", "cr2", "crw", "nef", "mrw",  "ptx",  "pef", "raf", "3fr",
    "erf", "mef",  "mos", "orf", "rw2", "dng", "x3f",  "raw",  "heic", "heif",
    "hif"};  // cameras' name for HEIF; read only in quality mode

// Audio-only and disc names ("m4a", "ac3", "iso", ...) count as videos.
inline constexpr const char* kVideoExtensions[] = {
    "3gp",  "3g2",  "asf",  "dat",  "divx", "dvr-ms", "m2t",   "m2ts",  "mk3d",   "mka",
    "mks",  "m4a",  "m4v",  "mkv",  "mp4",  "mts",    "m4p",   "m4b",   "m4r",    "mov",
    "qt",   "tp",   "trp",  "ts",   "vob",  "wmv",    "xvid",  "ac3",   "amr",    "rm",
    "rmvb", "ifo",  "mpeg", "mpg",  "mpe",  "m1v",    "m2v",   "mpeg1", "mpeg2",  "mpeg4",
    "ogv",  "webm", "flv",  "f4v",  "avi",  "swf",    "vdr",   "iso"};

}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_CONST_H_
