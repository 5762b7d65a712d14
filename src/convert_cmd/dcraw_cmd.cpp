#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "convert_cmd/tool_files.h"
#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/error.h"
#include "kovathumb/log.h"
#include "sandbox/sandbox.h"
#include "thumb_info/thumb_info_access.h"

namespace kovathumb {

namespace {

// The size name of the records that probe dcraw's output; kept as the
// appliance writes it (not kSizeCustom).
constexpr char kProbeSizeName[] = "__CUSTOM__";

// dcraw is a first attempt: what it says of a file it cannot read (every
// HEIC "has no thumbnail") is noise before the converter's try, so it shows
// only where the library's own log lines do. Its output goes to `out`.
bool RunQuietly(const char* path, const char* const argv[], int out) {
  if (LogsToStderr()) return sandbox::RunTool(path, argv, out);
  const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const bool ok = devnull >= 0 && sandbox::RunTool(path, argv, out, devnull);
  if (devnull >= 0) close(devnull);
  return ok;
}

}  // namespace

DcrawCmd::DcrawCmd(ThumbInfo info_, const std::string& src_, const std::string& dst_)
    : ThumbConvertCmd(std::move(info_), src_, dst_), pipe(nullptr), outFile(nullptr) {
  // "-e -c": the embedded thumbnail, to standard output.
  argv = {kDcraw.c_str(), "-6", "-w", "-c", "-e", src_.c_str(), nullptr};
  setupRawThumbPath();
}

DcrawCmd::~DcrawCmd() {
  if (pipe != nullptr) KLIBCPclose(pipe);
  if (outFile != nullptr) fclose(outFile);
}

void DcrawCmd::setupRawThumbPath() {
  // Beside the output, never beside the source (which may be a descriptor's
  // path); created here, so no planted file or link is written through.
  rawThumbPath = dst + "_" + std::to_string(static_cast<int>(getpid())) + "_" +
                 std::to_string(static_cast<long>(time(nullptr)));
  try {
    const int fd = internal::CreateExclusive(rawThumbPath);
    if (fd < 0) throw Error(kErrorUnknownType);
    outFile = fdopen(fd, "wb");
    if (outFile == nullptr) {
      close(fd);
      unlink(rawThumbPath.c_str());
      throw Error(kErrorUnknownType);
    }
    if (!RunQuietly(kDcraw.c_str(), argv.data(), fileno(outFile))) {
      unlink(rawThumbPath.c_str());
      throw Error(kErrorUnknownType);
    }
    if (info.GetWidth() != 0 && info.GetHeight() != 0) return;
    // The raw's own size is unknown: scale from the preview's.
    ThumbInfo preview(rawThumbPath, kProbeSizeName, {0, 0});
    preview.ExtractImgInfo(false);
    internal::ThumbInfoAccess::SetPixelSize(&info, preview.GetWidth(), preview.GetHeight());
  } catch (const Error&) {
    rawThumbPath.clear();
    if (pipe != nullptr) {
      KLIBCPclose(pipe);
      pipe = nullptr;
    }
    if (outFile != nullptr) {
      fclose(outFile);
      outFile = nullptr;
    }
  }
}

bool DcrawCmd::checkTmpExif() {
  if (dst.empty()) return false;
  try {
    ThumbInfo thumb(dst, kProbeSizeName, {2147483647, 2147483647});
    thumb.ExtractImgInfo(false);
    return thumb.GetWidth() != 0 && thumb.GetHeight() != 0;
  } catch (...) {
    return false;
  }
}

bool DcrawCmd::exec() {
  if (rawThumbPath.empty()) return false;
  if (info.IsGood()) {
    DJpegCmd djpeg(info, rawThumbPath, dst);
    bool ok = djpeg.exec();
    if (!ok) {
      ConvertCmd convert(info, rawThumbPath, dst);
      ok = convert.exec();
    }
    if (ok) {
      const bool result = checkTmpExif();
      unlink(rawThumbPath.c_str());
      return result;
    }
  }
  // No scaling possible: the preview itself becomes the thumbnail.
  bool result = false;
  if (rename(rawThumbPath.c_str(), dst.c_str()) == 0) result = checkTmpExif();
  unlink(rawThumbPath.c_str());
  return result;
}

}  // namespace kovathumb
