#include <time.h>
#include <unistd.h>

#include <string>

#include "convert_cmd/tool_files.h"
#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"
#include "sandbox/sandbox.h"
#include "util/path.h"

namespace kovathumb {

GIFConvertCmd::GIFConvertCmd(ThumbInfo info_, const std::string& src_, const std::string& dst_)
    : ThumbConvertCmd(std::move(info_), src_, dst_) {
  geometry = info.GetXString();
  rotateDegrees = std::to_string(info.GetRotate() * 90);
  userRotateDegrees = std::to_string(info.GetUserRotate() * 90);
  setupCoalesceTmpPath();
}

GIFConvertCmd::~GIFConvertCmd() = default;

void GIFConvertCmd::setupCoalesceTmpPath() {
  // Only characters ImageMagick takes literally, so the name is the file written.
  const std::string base = internal::MagickSafeName(internal::BaseName(src));
  const std::string stamp = std::to_string(static_cast<long>(time(nullptr)));
  // /var/tmp is everyone's: the file is ours only if we create it. Somebody
  // else's file (or link) at the usual name gets a random one beside it.
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 8; ++attempt) {
    const std::string salt = attempt == 0 ? "" : internal::RandomText(8) + "_";
    // The doubled underscore and the name run into the stamp are kept as the
    // appliance writes them.
    coalescePath = std::string("/var/tmp/convert_thumbnail_") + "_" + stamp + salt + base;
    fd = internal::CreateExclusive(coalescePath);
  }
  if (fd < 0) {
    coalescePath.clear();
    return;
  }
  close(fd);
  const std::string in = "gif:" + src;
  const std::string out = "gif:" + coalescePath;
  const char* coalesce[] = {kConvert.c_str(), in.c_str(), "-coalesce", out.c_str(), nullptr};
  if (!sandbox::RunTool(kConvert.c_str(), coalesce)) {
    unlink(coalescePath.c_str());
    coalescePath.clear();
  }
}

bool GIFConvertCmd::exec() {
  if (coalescePath.empty()) return false;
  coalesceInput = "gif:" + coalescePath;
  argv = {kConvert.c_str(), "-strip",    "-colorspace",         "sRGB",
          "-thumbnail",     geometry.c_str(), "-rotate",        rotateDegrees.c_str(),
          "-layers",        "optimize",  coalesceInput.c_str()};
  argv.push_back("-rotate");
  argv.push_back(userRotateDegrees.c_str());
  argv.push_back(dst.c_str());
  argv.push_back(nullptr);
  if (sandbox::RunTool(kConvert.c_str(), argv.data())) {
    unlink(coalescePath.c_str());
    return true;
  }
  unlink(dst.c_str());
  return false;
}

}  // namespace kovathumb
