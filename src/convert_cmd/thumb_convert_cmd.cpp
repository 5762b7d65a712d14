#include <string>

#include "kovathumb/convert_cmd.h"

namespace kovathumb {

const std::string ThumbConvertCmd::kConvert = "/usr/bin/convert";
const std::string ThumbConvertCmd::kDcraw = "/usr/bin/dcraw";
const std::string ThumbConvertCmd::kDjpeg = "/usr/bin/djpeg";
const std::string ThumbConvertCmd::kJpegtran = "/usr/bin/jpegtran";

ThumbConvertCmd::ThumbConvertCmd(ThumbInfo info_, const std::string& src_, const std::string& dst_)
    : info(std::move(info_)), src(src_), dst(dst_) {}

ThumbConvertCmd::~ThumbConvertCmd() = default;

std::vector<std::string> ThumbConvertCmd::GetArgv() const {
  std::vector<std::string> args;
  for (const char* a : argv) {
    if (a != nullptr) args.emplace_back(a);
  }
  return args;
}

}  // namespace kovathumb
