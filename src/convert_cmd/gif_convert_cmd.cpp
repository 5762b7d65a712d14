#include <time.h>
#include <unistd.h>

#include <string>

#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"

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
  const size_t slash = src.rfind('/');
  const std::string base = slash == std::string::npos ? src : src.substr(slash + 1);
  coalescePath = std::string("/var/tmp/convert_thumbnail_") + "_" +
                 std::to_string(static_cast<long>(time(nullptr))) + base;
  const char* coalesce[] = {kConvert.c_str(), src.c_str(), "-coalesce", coalescePath.c_str(), nullptr};
  if (KLIBCExecv(kConvert.c_str(), coalesce, 1) != 0) {
    unlink(coalescePath.c_str());
    coalescePath.clear();
  }
}

bool GIFConvertCmd::exec() {
  if (coalescePath.empty()) return false;
  argv = {kConvert.c_str(), "-strip",    "-colorspace",         "sRGB",
          "-thumbnail",     geometry.c_str(), "-rotate",        rotateDegrees.c_str(),
          "-layers",        "optimize",  coalescePath.c_str()};
  argv.push_back("-rotate");
  argv.push_back(userRotateDegrees.c_str());
  argv.push_back(dst.c_str());
  argv.push_back(nullptr);
  if (KLIBCExecv(kConvert.c_str(), argv.data(), 1) == 0) {
    unlink(coalescePath.c_str());
    return true;
  }
  unlink(dst.c_str());
  return false;
}

}  // namespace kovathumb
