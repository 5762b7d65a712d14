#include "common.h"

#include <cstdio>
#include <iostream>
#include <map>

#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace tool {

namespace {
const std::map<std::string, ThumbDimension>& SizeTable() { return Thumb::strThumbSizeMap_; }
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

int OptionArgs::Bits() const {
  return raw | (pictavo ? kThumbOptPictavoEA : 0) | (dossiva ? kThumbOptDossivaEA : 0) |
         (noOnline ? kThumbOptNoOnline : 0) | (gif ? kThumbOptEnableGIF : 0) |
         (avatar ? kThumbOptAvatar : 0) | (fallback ? kThumbOptSmallerFallback : 0) |
         (quality ? kThumbOptQuality : 0);
}

void AddThumbOptions(CLI::App* cmd, OptionArgs* args) {
  cmd->add_flag("--pictavo", args->pictavo, "try the photo gallery's stored thumbnails (1)");
  cmd->add_flag("--dossiva", args->dossiva, "try the file manager's stored thumbnail (2)");
  cmd->add_flag("--no-online", args->noOnline, "never convert now (4)");
  cmd->add_flag("--gif", args->gif, "animated GIF thumbnails (8)");
  cmd->add_flag("--avatar", args->avatar, "avatar request (32)");
  cmd->add_flag("--fallback", args->fallback, "fall back to smaller sizes (64)");
  cmd->add_flag("--quality", args->quality,
                "quality mode (128): JPEG/PNG/GIF within the box, upright, sRGB");
  cmd->add_option("--options", args->raw, "raw option bits");
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
