// Thumb's response: the cache header, then the chosen file through the
// platform's relay.
#include <cstdio>
#include <string>

#include "kovaplatform/webfile_relay.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/thumb.h"
#include "libkovathumb/pinned.h"
#include "libkovathumb/thumb_shared.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace {
constexpr char kCacheControl[] = "Cache-Control: max-age=300, must-revalidate\r\n";
}  // namespace

bool Thumb::HttpOutputFile(const std::string& mime) {
  // First and unconditionally, and flushed: the relay writes after it.
  fputs(kCacheControl, stdout);
  fflush(stdout);
  WebFileRelay relay;
  if (outputType_ == kThumbOutputPictavo && (info_.GetUserRotate() & 3) != 0) {
    // Stored gallery thumbnails are upright: apply only the user's turn.
    const Pinned& p = *pinned_;
    const bool pinned = p.output.valid() && p.outputPath == outputFile_;
    JpegTranCmd jpegtran(info_, pinned ? safe_fs::ToolPath(p.output.get()) : outputFile_, "", true);
    FILE* stream = jpegtran.popen();
    return relay.Output(stream, internal::BaseName(outputFile_).c_str(), mime.c_str()) == 0;
  }
  // Through the descriptor of the file that was checked.
  return relay.Output(ServePath().c_str(), mime.c_str()) == 0;
}

bool Thumb::OutputOriginalImage() {
  if (!info_.IsWebAcceptable()) return false;
  outputFile_ = path_;
  return HttpOutputFile(info_.GetMimeType());
}

}  // namespace kovathumb
