// kovathumb::ThumbInfo: what the library knows about one source file and one
// requested thumbnail size. It takes the file's status when built, reads the
// image type, pixel size, orientation and embedded preview on request
// (ExtractImgInfo), and answers the questions that choose and drive a
// conversion, including the file names of stored thumbnails.
//
// A ThumbInfo is a plain value: copy it freely. It owns only its strings; the
// preview file that ExtractImgInfo(true) may write belongs to the caller
// (Thumb removes it). One record belongs to one thread; all use of the
// metadata reader in the process is serialised by exiv2_mutex_, so records
// may be probed from several threads at once.
//
// Errors: the constructor and ExtractImgInfo throw kovathumb::Error (codes in
// kovathumb/error.h); the thumbnail-name builders throw std::out_of_range
// ("map::at") for a size without a letter. Everything else reports by its
// result.
#ifndef KOVATHUMB_THUMB_INFO_H_
#define KOVATHUMB_THUMB_INFO_H_

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kovathumb/export.h"

namespace Exiv2 {
class Image;
class ExifKey;
}  // namespace Exiv2

namespace kovathumb {

namespace internal {
class ThumbInfoAccess;
struct PreviewProps;
}  // namespace internal

// Width then height in pixels; 2147483647 in both means no limit.
struct ThumbDimension {
  uint32_t width;
  uint32_t height;
};

class KOVATHUMB_EXPORT ThumbInfo {
 public:
  // Pixel area from which a "large" thumbnail is always converted (1280 x 1280).
  static const uint32_t LARGE_ORIG_THRESHOLD = 1638400;

  // Opens `path` once (a link in its last component is not followed) and
  // takes its status; throws Error kErrorCannotExamine "Can't stat <path>"
  // when it is not a regular file. All later readings go through that open
  // file.
  ThumbInfo(const std::string& path, const std::string& size, const ThumbDimension& dim);
  ~ThumbInfo();

  // Reads type, pixel size and orientation; with `withPreview` also writes the
  // best embedded preview to a file under /tmp. Videos (by name) are skipped.
  void ExtractImgInfo(bool withPreview);

  bool IsGood() const;
  bool IsHeic() const;
  const std::string& GetMimeType() const;
  const std::string& GetSize() const;
  ThumbDimension GetDimension() const;
  unsigned GetWidth() const;
  unsigned GetHeight() const;
  // Low 32 bits of the source's size in bytes (kept as the appliance has it).
  unsigned GetFileSize() const;
  int GetRotate() const;
  int GetUserRotate() const;
  bool GetFlop() const;
  bool GetEnableGIF() const;
  bool GetCropMode() const;
  std::string GetOutputMimeType() const;
  std::string GetOutputExtension() const;
  // The requested box turned into the source's axes, capped at its size.
  ThumbDimension GetTargetDimension() const;
  bool IsNeedConvert() const;
  bool IsWebAcceptable() const;
  bool IsThumbUptoDate(const std::string& thumbPath) const;

  // The caller's options, which the record only reads.
  void SetUserRotate(int quarterTurns);
  void SetEnableGIF(bool enable);
  void SetCropMode(bool crop);
  // Quality mode: HEIFs are taken whenever libheif reads them (".hif" too),
  // turned by their Exif orientation where libheif does not turn them.
  void SetQuality(bool quality);

  // Gives `file` the source's access and modification times; utime's result.
  int UpdateAMTime(const std::string& file) const;

  // Stored-thumbnail names (no directory).
  std::string GetXString() const;
  std::string GetRotateSuffix() const;
  std::string GetPictavoThumbEAName() const;
  std::string GetPictavoOldThumbEAName() const;
  std::string GetDossivaThumbEAName() const;
  std::string GetDossivaTmpThumbEAName() const;
  std::string GetAvatarThumbEAName() const;
  std::string GetCinevoThumbEAName() const;
  std::string GetEXIFPreviewTmpPath() const;

  static std::mutex exiv2_mutex_;
  static const Exiv2::ExifKey stdOrientationKey;
  static const std::vector<Exiv2::ExifKey> orientationKeyList_;
  static const std::vector<std::pair<int, bool>> rotateFlopMappingList_;

 private:
  // The library's writers (the request, the raw converter) and its tests
  // go through this internal type.
  friend class internal::ThumbInfoAccess;

  // Writes the embedded preview a probe read out to a file of ours.
  KOVATHUMB_LOCAL void StoreEXIFPreview(const std::string& extension, const std::string& data);
  // Reads the facts (type, size, orientation), the embedded preview, or
  // both, from one opening of the source; ExtractImgInfo's errors.
  KOVATHUMB_LOCAL void Read(bool facts, bool preview);
  KOVATHUMB_LOCAL int ResolveOrientationIndex(Exiv2::Image& image) const;
  // Which of the embedded previews `props` makes this size, by the mode's
  // rules; -1 for none.
  KOVATHUMB_LOCAL int ChoosePreview(const std::vector<internal::PreviewProps>& props) const;
  KOVATHUMB_LOCAL void CheckAndGetHeif();
  // Quality mode's types beyond the metadata reader's (AVIF, JPEG XL, CR3):
  // true when read (with `facts`), or read already (without).
  KOVATHUMB_LOCAL bool ProbeModern(bool facts);
  KOVATHUMB_LOCAL const std::string& SizeLetter() const;
  // The opened source as a path ("/proc/self/fd/N"); `path_` when it could
  // not be opened for reading.
  KOVATHUMB_LOCAL std::string PinnedSource() const;

  std::string path_;
  std::string size_;
  std::string mimeType_;
  std::string exifPreviewTmpPath_;
  ThumbDimension dimension_;
  uint32_t width_;
  uint32_t height_;
  int32_t rotate_;
  int32_t userRotate_;
  bool good_;
  bool heic_;
  bool flop_;
  bool enableGIF_;
  bool cropMode_;
  bool quality_ = false;  // set by Thumb: choose previews by quality mode's rules
  struct stat64 fileStat_;
  std::shared_ptr<const int> sourceFd_;  // shared by copies
  // The embedded previews the facts' reading listed; null when not listed.
  std::shared_ptr<const std::vector<internal::PreviewProps>> previews_;
};

}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_INFO_H_
