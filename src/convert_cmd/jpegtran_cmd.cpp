#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "kovathumb/convert_cmd.h"
#include "kovathumb/thumb.h"
#include "sandbox/sandbox.h"
#include "thumb_info/decisions.h"

namespace kovathumb {

JpegTranCmd::JpegTranCmd(ThumbInfo info_, const std::string& src_, const std::string& dst_,
                         bool userRotateOnly)
    : ThumbConvertCmd(std::move(info_), src_, dst_) {
  const int rotate = userRotateOnly ? 0 : info.GetRotate();
  const int total = internal::TurnSum(rotate, info.GetUserRotate());
  angle = std::to_string((total % 4) * 90);  // keeps the sign: -1 turn is -90
  argv = {kJpegtran.c_str(), "-trim", "-rotate", angle.c_str()};
  if (!dst.empty()) {
    argv.push_back("-outfile");
    argv.push_back(dst.c_str());
  }
  argv.push_back(src.c_str());
  argv.push_back(nullptr);
}

JpegTranCmd::~JpegTranCmd() = default;

bool JpegTranCmd::exec() { return sandbox::RunTool(kJpegtran.c_str(), argv.data()); }

FILE* JpegTranCmd::popen() {
  // jpegtran parses the file: it runs in the sandbox, and what it writes is
  // kept in memory, bounded, until it has ended well.
  const int out = memfd_create("kovathumb-jpegtran", MFD_CLOEXEC);
  if (out < 0) return nullptr;
  FILE* stream = sandbox::RunTool(kJpegtran.c_str(), argv.data(), out, -1, 4 * MaxThumbBytes()) &&
                         lseek(out, 0, SEEK_SET) == 0
                     ? fdopen(out, "r")
                     : nullptr;
  if (stream == nullptr) close(out);
  return stream;
}

}  // namespace kovathumb
