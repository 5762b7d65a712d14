// Thumb's response: the cache header, then the chosen file through the
// platform's relay.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>

#include "kovaplatform/webfile_relay.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/thumb.h"
#include "libkovathumb/pinned.h"
#include "libkovathumb/thumb_shared.h"
#include "store/fresh.h"
#include "thumb_info/thumb_info_access.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace {

constexpr char kCache[] = "max-age=300, must-revalidate";

// A gallery thumbnail turned by the user's rotation, made now from the
// stored file `stored` into a file of its own; none when the tool fails or
// writes more than a thumbnail can be.
safe_fs::Fd Turned(const ThumbInfo& info, const std::string& stored) {
  JpegTranCmd jpegtran(info, stored, "", true);
  FILE* stream = jpegtran.popen();  // made whole, in memory
  if (stream == nullptr) return safe_fs::Fd();
  safe_fs::Fd turned(fcntl(fileno(stream), F_DUPFD_CLOEXEC, 0));
  fclose(stream);
  struct stat st;
  const bool ok = turned.valid() && fstat(turned.get(), &st) == 0 && st.st_size <= MaxThumbBytes();
  return ok ? std::move(turned) : safe_fs::Fd();
}

}  // namespace

long long MaxThumbBytes() { return store::MaxThumbBytes(); }

bool Thumb::HttpOutputFile(const std::string& mime) {
  // First and unconditionally, and flushed: the relay writes after it.
  fprintf(stdout, "Cache-Control: %s\r\n", kCache);
  fflush(stdout);
  WebFileRelay relay;
  if (outputType_ == kThumbOutputPictavo && (info_.GetUserRotate() & 3) != 0) {
    // Stored gallery thumbnails are upright: apply only the user's turn.
    const Pinned& p = *pinned_;
    const bool pinned = p.output.valid() && p.outputPath == outputFile_;
    // Streamed as the relay streams a tool's output, but only once it is
    // known to be no more than a thumbnail: none at all (a 500) otherwise.
    const safe_fs::Fd turned = Turned(info_, pinned ? safe_fs::ToolPath(p.output.get()) : outputFile_);
    FILE* stream = turned.valid() && lseek(turned.get(), 0, SEEK_SET) == 0 ? fdopen(dup(turned.get()), "r") : nullptr;
    return relay.Output(stream, internal::BaseName(outputFile_).c_str(), mime.c_str()) == 0;
  }
  // Through the descriptor of the file that was checked.
  return relay.Output(ServePath().c_str(), mime.c_str()) == 0;
}

bool Thumb::Answer(ThumbAnswer* answer) {
  *answer = ThumbAnswer();
  if (outputFile_.empty()) return false;
  Pinned& p = *pinned_;
  answer->source = outputFile_ == path_;
  answer->mime = GetOutputMimeType();
  answer->name = internal::BaseName(outputFile_);
  answer->cache = kCache;
  answer->remove = needDelete_;
  if (answer->source) {
    const int* fd = internal::ThumbInfoAccess::SourceFd(info_);
    answer->fd = fd != nullptr ? *fd : -1;
  } else {
    if (!p.output.valid() || p.outputPath != outputFile_) {
      // Made now and stored: the stored file, never a link in its place.
      struct stat64 st;
      const int ea = EADir(false);
      safe_fs::Fd fd = ea < 0 ? safe_fs::Fd() : safe_fs::OpenRegularAt(ea, answer->name, &st);
      if (!fd.valid()) return false;
      p.SetOutput(outputFile_, std::move(fd), st);
    }
    answer->fd = p.output.get();
    answer->stored = outputType_ == kThumbOutputPictavo || outputType_ == kThumbOutputDossiva ||
                     outputType_ == kThumbOutputCinevo;
    if (outputType_ == kThumbOutputPictavo && (info_.GetUserRotate() & 3) != 0) {
      // Stored gallery thumbnails are upright: the user's turn, made now.
      p.turned = Turned(info_, safe_fs::ToolPath(p.output.get()));
      if (!p.turned.valid()) return false;
      answer->fd = p.turned.get();
      answer->stored = false;
    }
  }
  if (answer->fd < 0 || fstat(answer->fd, &answer->st) != 0 || !S_ISREG(answer->st.st_mode)) return false;
  return answer->source || answer->st.st_size <= MaxThumbBytes();
}

bool Thumb::OutputOriginalImage() {
  if (!info_.IsWebAcceptable()) return false;
  outputFile_ = path_;
  return HttpOutputFile(info_.GetMimeType());
}

}  // namespace kovathumb
