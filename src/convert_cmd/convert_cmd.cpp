#include <unistd.h>

#include <string>

#include "kovaplatform/kovaplatform.h"
#include "convert_cmd/tool_files.h"
#include "kovathumb/convert_cmd.h"
#include "sandbox/sandbox.h"

namespace kovathumb {

namespace {
constexpr char kMedextraEnabled[] = "/var/packages/Medextra/enabled";
constexpr char kMedextraConvert[] = "/var/packages/Medextra/target/usr/bin/convert";
}  // namespace

ConvertCmd::ConvertCmd(ThumbInfo info_, const std::string& src_, const std::string& dst_)
    : ThumbConvertCmd(std::move(info_), src_, dst_), input_(-1) {
  geometry = info.GetXString();
  rotateDegrees = std::to_string(info.GetRotate() * 90);
  userRotateDegrees = std::to_string(info.GetUserRotate() * 90);
  // The converter reads the very file whose bytes chose its coder, by a name
  // in which it sees no pattern ("50%off.png", "a[1].png").
  input_ = internal::OpenInput(src);
  coder_ = internal::MagickCoder(internal::ReadHead(input_), info.GetMimeType());
  if (input_ >= 0) src = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(input_);
  if (!coder_.empty()) src.insert(0, coder_ + ":");
  src.append("[0]");  // first frame, page or layer only
  argv = {kConvert.c_str(), "-strip", "-colorspace", "sRGB", src.c_str()};

  const ThumbDimension box = info.GetDimension();
  const bool userOdd = info.GetUserRotate() & 1;
  const uint32_t cropW = userOdd ? box.height : box.width;
  const uint32_t cropH = userOdd ? box.width : box.height;
  if (info.GetCropMode()) {
    argv.push_back("-crop");
    // Unsigned on purpose: a source narrower than the box wraps, and the
    // converter decides what to make of it.
    const uint32_t x = (info.GetWidth() - cropW) >> 1;
    const uint32_t y = (info.GetHeight() - cropH) >> 1;
    geometry += "+" + std::to_string(x) + "+" + std::to_string(y);
  } else {
    argv.push_back("-thumbnail");
  }
  argv.push_back(geometry.c_str());
  argv.push_back("-rotate");
  argv.push_back(rotateDegrees.c_str());
  if (info.GetFlop()) argv.push_back("-flop");
  argv.push_back("-rotate");
  argv.push_back(userRotateDegrees.c_str());
  argv.push_back(dst.c_str());
  argv.push_back(nullptr);
}

ConvertCmd::~ConvertCmd() {
  if (input_ >= 0) close(input_);
}

bool ConvertCmd::IsMedextraEnabled() { return access(kMedextraEnabled, F_OK) == 0; }

std::string ConvertCmd::getConvertPath() {
  return IsMedextraEnabled() ? std::string(kMedextraConvert) : kConvert;
}

bool ConvertCmd::exec() {
  // Not a format we convert: fails like a converter that cannot read it.
  const std::string path = getConvertPath();
  if (!coder_.empty() && sandbox::RunTool(path.c_str(), argv.data())) return true;
  unlink(dst.c_str());
  return false;
}

}  // namespace kovathumb
