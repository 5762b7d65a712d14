// Fuzzes source probing: arbitrary bytes written under a photo, raw or HEIC
// name, then everything a request asks of the record.
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "kovathumb/error.h"
#include "kovathumb/thumb_info.h"
#include "support/test_util.h"

namespace {

const char* const kNames[] = {"p.jpg", "p.png", "p.gif", "p.tif", "p.bmp",
                              "p.dng", "p.cr2", "p.nef", "p.heic", "p.HEIF"};
const char* const kSizes[] = {"small", "big", "large", "original", "__CUSTOM_SIZE__"};

// Under scripts/fuzz.sh's private TMPDIR; removed at exit.
const std::string& Dir() {
  static const kovathumb::test::TempDir dir;
  return dir.path();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string path = Dir() + "/" + kNames[data[0] % 10];
  const char* sizeName = kSizes[data[1] % 5];
  kovathumb::test::WriteFile(path, std::string(reinterpret_cast<const char*>(data + 2), size - 2));
  try {
    kovathumb::ThumbInfo info(path, sizeName, {static_cast<uint32_t>(1 + data[1] * 7), 640});
    info.SetUserRotate(static_cast<int8_t>(data[0]) >> 4);
    info.SetEnableGIF(data[1] & 0x40);
    info.SetCropMode(data[1] & 0x80);
    info.ExtractImgInfo(true);
    const std::string preview = info.GetEXIFPreviewTmpPath();
    if (!preview.empty()) unlink(preview.c_str());
    (void)info.IsNeedConvert();
    (void)info.GetOutputMimeType();
    (void)info.GetXString();
    (void)info.GetDossivaTmpThumbEAName();
    (void)info.GetAvatarThumbEAName();
    (void)info.GetDossivaThumbEAName();
    (void)info.GetPictavoThumbEAName();
  } catch (const kovathumb::Error&) {
  } catch (const std::out_of_range&) {     // a size without a letter
  } catch (const std::invalid_argument&) {  // an orientation that is no number
  }
  unlink(path.c_str());
  return 0;
}
