// kovathumb convert: runs one conversion command by hand.
#include <unistd.h>

#include <memory>

#include "subcommands.h"
#include "kovathumb/convert_cmd.h"
#include "kovathumb/error.h"
#include "kovathumb/file.h"

namespace kovathumb {
namespace tool {

namespace {

struct ConvertArgs {
  std::string command;
  SizeArgs size;
  int userRotate = 0;
  bool gif = false;
  bool crop = false;
  std::string src;
  std::string dst;
};

Json Report(bool ok, const ThumbConvertCmd& cmd) {
  return {{"ok", ok}, {"argv", cmd.GetArgv()}};
}

// Streams the rotated JPEG to standard output; the report goes to standard
// error so the two never mix.
int RunJpegtranStream(const ThumbInfo& info, const std::string& src) {
  JpegTranCmd cmd(info, src, "", false);
  FILE* stream = cmd.popen();
  bool ok = stream != nullptr;
  if (ok) {
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, stream)) > 0) {
      if (fwrite(buf, 1, n, stdout) != n) ok = false;
    }
    fflush(stdout);
    fclose(stream);
  }
  std::cerr << Report(ok, cmd).dump() << std::endl;
  return ok ? kExitOk : kExitFailed;
}

int RunConvert(const ConvertArgs& args) {
  ThumbInfo info(args.src, SizeName(args.size), SizeBox(args.size));
  info.SetUserRotate(args.userRotate);
  info.SetEnableGIF(args.gif);
  info.SetCropMode(args.crop);
  try {
    info.ExtractImgInfo(false);
  } catch (const Error& e) {
    // Like a request, go on with what is known for an unknown image type.
    if (e.Code() != kErrorUnknownType) throw;
  }
  const std::string& src = args.src;
  const std::string& dst = args.dst;
  Json j;
  bool ok = false;
  if (args.command == "convert") {
    ConvertCmd cmd(info, src, dst);
    ok = cmd.exec();
    j = Report(ok, cmd);
  } else if (args.command == "djpeg") {
    DJpegCmd cmd(info, src, dst);
    ok = cmd.exec();
    j = Report(ok, cmd);
    j["scale"] = "1/" + std::to_string(1 << cmd.GetScale());
    j["convert_bytes"] = cmd.GetConvertBytes();
    j["need_delete"] = cmd.IsNeedDelete();
  } else if (args.command == "gif") {
    GIFConvertCmd cmd(info, src, dst);
    ok = cmd.exec();
    j = Report(ok, cmd);
  } else if (args.command == "dcraw") {
    // The preview is extracted into the source's EA directory, as a request
    // would have made it.
    file::MakeEADir(src);
    DcrawCmd cmd(info, src, dst);
    ok = cmd.exec();
    j = Report(ok, cmd);
  } else if (dst.empty()) {
    return RunJpegtranStream(info, src);
  } else {
    JpegTranCmd cmd(info, src, dst, false);
    ok = cmd.exec();
    j = Report(ok, cmd);
  }
  PrintLine(j);
  return ok ? kExitOk : kExitFailed;
}

}  // namespace

void AddConvertCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<ConvertArgs>();
  CLI::App* cmd = app.add_subcommand("convert", "Run one conversion command on SRC into DST");
  cmd->add_option("COMMAND", args->command, "convert, djpeg, gif, dcraw or jpegtran")
      ->required()
      ->check(CLI::IsMember({"convert", "djpeg", "gif", "dcraw", "jpegtran"}));
  AddSizeOptions(cmd, &args->size);
  AddRotateOption(cmd, "--user-rotate", &args->userRotate);
  cmd->add_flag("--gif", args->gif, "allow animated GIF output");
  cmd->add_flag("--crop", args->crop, "crop mode");
  cmd->add_option("SRC", args->src, "source file")->required();
  cmd->add_option("DST", args->dst, "output file (jpegtran: empty streams to standard output)")
      ->required();
  cmd->callback([args, status] { *status = RunConvert(*args); });
}

}  // namespace tool
}  // namespace kovathumb
