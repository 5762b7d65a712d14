#include "common.h"

#include <cstdio>
#include <iostream>
#include <map>

#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace tool {

namespace {
const std::map<std::string, ThumbDimension>& SizeTable() {
  static const std::map<std::string, ThumbDimension> table = {
      {kSizeSmall, {120, 120}},   {kSizeMedium, {360, 360}},  {kSizeBig, {640, 640}},
      {kSizeLarge, {1280, 1280}}, {kSizeXLarge, {1280, 1280}},
      {kSizeOriginal, {2147483647, 2147483647}},
  };
  return table;
}
}  // namespace

void AddSizeOptions(CLI::App* cmd, SizeArgs* args) {
  auto* size = cmd->add_option("--size", args->size,
                               "size name: small, medium, big, large, xlarge, original");
  auto* box = cmd->add_option("--box", args->box, "explicit box WxH");
  size->excludes(box);
}

bool ParseBox(const std::string& text, ThumbDimension* box) {
  unsigned long w = 0, h = 0;
  char x = 0, rest = 0;
  if (std::sscanf(text.c_str(), "%lu%c%lu%c", &w, &x, &h, &rest) != 3 || x != 'x') return false;
  if (w == 0 || h == 0 || w > 2147483647UL || h > 2147483647UL) return false;
  *box = ThumbDimension{static_cast<uint32_t>(w), static_cast<uint32_t>(h)};
  return true;
}

std::string SizeName(const SizeArgs& args) {
  if (!args.box.empty()) return kSizeCustom;
  if (SizeTable().count(args.size) == 0) throw CLI::ValidationError("--size", "unknown size name " + args.size);
  return args.size;
}

ThumbDimension SizeBox(const SizeArgs& args) {
  if (args.box.empty()) return SizeTable().at(SizeName(args));
  ThumbDimension box{};
  if (!ParseBox(args.box, &box)) throw CLI::ValidationError("--box", "expected WxH, got " + args.box);
  return box;
}

Json ErrorJson(const std::string& path, int code, const std::string& what) {
  return {{"path", path}, {"error", {{"code", code}, {"what", what}}}};
}

void PrintLine(const Json& j) {
  // Replacement keeps odd bytes in file names from aborting the output.
  std::cout << j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

}  // namespace tool
}  // namespace kovathumb
