// kovathumb get: answers one thumbnail request; standard output carries the
// CGI response.
#include <errno.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "subcommands.h"
#include "front_end/pin.h"
#include "front_end/send.h"
#include "kovathumb/error.h"
#include "kovathumb/thumb.h"

namespace kovathumb {
namespace tool {

namespace {

struct GetArgs {
  OptionArgs options;
  int rotate = 0;
  bool allowHeicOriginal = false;
  bool deleteIfNeeded = false;
  std::string size;
  std::string file;
};

int RunGet(const GetArgs& args) {
  const bool named = Thumb::strThumbSizeMap_.count(args.size) != 0;
  ThumbDimension box{};
  unsigned long edge = 0;
  char rest = 0;
  const bool isBox = !named && ParseBox(args.size, &box);
  const bool isEdge = !named && !isBox && std::sscanf(args.size.c_str(), "%lu%c", &edge, &rest) == 1 &&
                      edge > 0 && edge <= 2147483647UL;
  if (!named && !isBox && !isEdge) throw CLI::ValidationError("SIZE", "unknown size " + args.size);

  PinnedFile pinned;
  const int err = PinGiven(args.file, &pinned);
  if (err != 0) {
    std::cerr << "kovathumb: " << args.file << ": "
              << (err == ELOOP ? "a symbolic link: refused" : std::strerror(err)) << std::endl;
    return kExitFailed;
  }
  Wanted wanted;
  wanted.size = named ? args.size : std::string();
  wanted.width = static_cast<int>(box.width);
  wanted.height = static_cast<int>(box.height);
  wanted.edge = isEdge ? static_cast<int>(edge) : 0;
  wanted.fallback = args.options.fallback;
  bool sent;
  try {
    Thumb thumb(pinned.Path(), args.options.Bits(), args.allowHeicOriginal);
    thumb.Rotate(args.rotate);
    sent = SendThumbnail(thumb, wanted, args.deleteIfNeeded);
  } catch (const Error& e) {
    throw Error(e.Code(), pinned.Unpinned(e.what(), args.file));
  }
  if (!sent) std::cerr << "kovathumb: no thumbnail sent for " << args.file << std::endl;
  return sent ? kExitOk : kExitFailed;
}

}  // namespace

void AddGetCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<GetArgs>();
  CLI::App* cmd = app.add_subcommand("get", "Send one thumbnail as a CGI response on standard output");
  AddThumbOptions(cmd, &args->options);
  AddRotateOption(cmd, "--rotate", &args->rotate);
  cmd->add_flag("--allow-heic-original", args->allowHeicOriginal, "a HEIC may be sent as it is");
  cmd->add_flag("--delete-if-needed", args->deleteIfNeeded, "remove the output file when the library says so");
  cmd->add_option("SIZE", args->size, "size name, WxH or an edge")->required();
  cmd->add_option("FILE", args->file, "source file")->required();
  cmd->callback([args, status] { *status = RunGet(*args); });
}

}  // namespace tool
}  // namespace kovathumb
