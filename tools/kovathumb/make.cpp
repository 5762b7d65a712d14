// kovathumb make and kovathumb import: make or store thumbnails now.
#include <errno.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>

#include "subcommands.h"
#include "ea_store.h"
#include "front_end/pin.h"
#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/log.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace tool {

namespace {

struct MakeArgs {
  OptionArgs options;
  std::vector<std::string> sizes;
  bool all = false;
  std::vector<std::string> boxes;
  std::vector<std::string> files;
};

int RunMake(const MakeArgs& args) {
  std::vector<std::string> sizes = args.sizes;
  std::vector<ThumbDimension> boxes;
  for (const std::string& text : args.boxes) {
    ThumbDimension box{};
    if (!ParseBox(text, &box)) throw CLI::ValidationError("--box", "expected WxH, got " + text);
    boxes.push_back(box);
  }
  CheckSizes(sizes);
  if (args.all || (sizes.empty() && boxes.empty())) {
    sizes.assign(std::begin(kConvertibleSizes), std::end(kConvertibleSizes));
  }
  int status = kExitOk;
  for (const std::string& path : args.files) {
    const std::string problem = SourceProblem(path);
    if (!problem.empty()) {
      PrintLine(ErrorJson(path, kErrorCannotExamine, problem));
      status = kExitFailed;
      continue;
    }
    PinnedFile pinned;
    if (const int err = PinGiven(path, &pinned)) {
      PrintLine(ErrorJson(path, kErrorCannotExamine, err == ELOOP ? "a symbolic link: refused" : std::strerror(err)));
      status = kExitFailed;
      continue;
    }
    if (IsSupportVideo(path)) {
      // As index does: a video's one thumbnail is its screenshot.
      Outcome o;
      MakeScreenshot(pinned, StoredOf(pinned), &o);
      Json j = {{"path", path}, {"made", o.made}, {"up_to_date", o.upToDate}, {"failed", o.failed}};
      if (o.skipped) j["skipped"] = "no ffmpeg";
      if (!o.error.empty()) j["error"] = o.error;
      PrintLine(j);
      if (o.failed > 0) status = kExitFailed;
      continue;
    }
    try {
      // A size not made because the source itself serves (it is small
      // enough already) is no failure. A request keeps its output type from
      // one call to the next, so each size gets a request of its own.
      int made = 0, original = 0, failed = 0;
      std::string error;
      // In quality mode one request makes every size, largest first, each
      // from the one before.
      const bool quality = args.options.Bits() & kThumbOptQuality;
      std::unique_ptr<Thumb> shared;
      if (quality) shared.reset(new Thumb(pinned.Path(), args.options.Bits(), false));
      auto count = [&](auto convert) {
        ClearLogReason();
        std::unique_ptr<Thumb> own;
        if (!quality) own.reset(new Thumb(pinned.Path(), args.options.Bits(), false));
        Thumb& thumb = quality ? *shared : *own;
        if (convert(thumb) > 0) {
          ++made;
        } else if (thumb.GetOutputType() == "Original") {
          ++original;
        } else {
          ++failed;
          error = FailureReason("no thumbnail made");
        }
      };
      std::vector<std::string> order = sizes;
      if (quality) {
        std::stable_sort(order.begin(), order.end(), [](const std::string& x, const std::string& y) {
          return Thumb::strThumbSizeMap_.at(x).width > Thumb::strThumbSizeMap_.at(y).width;
        });
      }
      for (const std::string& size : order) count([&](Thumb& t) { return t.Convert({size}); });
      for (const ThumbDimension& box : boxes) count([&](Thumb& t) { return t.Convert({box}); });
      Json j = {{"path", path}, {"made", made}, {"original", original}, {"failed", failed}};
      if (!error.empty()) j["error"] = error;
      PrintLine(j);
      if (failed > 0) status = kExitFailed;
    } catch (const Error& e) {
      PrintLine(ErrorJson(path, e.Code(), pinned.Unpinned(e.what(), path)));
      status = kExitFailed;
    }
  }
  return status;
}

struct ImportArgs {
  OptionArgs options;
  long mtime = 0;
  bool checkMime = false;
  std::string file;
  std::vector<std::string> thumbs;
};

int RunImport(const ImportArgs& args) {
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const std::string& item : args.thumbs) {
    const size_t eq = item.find('=');
    if (eq == std::string::npos || Thumb::strThumbSizeMap_.count(item.substr(0, eq)) == 0) {
      throw CLI::ValidationError("SIZE=THUMB", "expected a size name, '=' and a file: " + item);
    }
    pairs.emplace_back(item.substr(0, eq), item.substr(eq + 1));
  }
  PinnedFile pinned;
  if (const int err = PinGiven(args.file, &pinned)) {
    PrintLine(ErrorJson(args.file, kErrorCannotExamine, err == ELOOP ? "a symbolic link: refused" : std::strerror(err)));
    return kExitFailed;
  }
  try {
    Thumb thumb(pinned.Path(), args.options.Bits(), false);
    const bool ok = thumb.SaveExistingThumbsToEA(pairs, args.mtime, args.checkMime);
    PrintLine({{"path", args.file}, {"ok", ok}});
    return ok ? kExitOk : kExitFailed;
  } catch (const Error& e) {
    PrintLine(ErrorJson(args.file, e.Code(), pinned.Unpinned(e.what(), args.file)));
    return kExitFailed;
  }
}

}  // namespace

void AddMakeCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<MakeArgs>();
  CLI::App* cmd = app.add_subcommand("make", "Make and store thumbnails now; one JSON line per file");
  AddThumbOptions(cmd, &args->options);
  auto* sizes = AddSizesOption(cmd, &args->sizes, "size names, separated by commas");
  auto* all = cmd->add_flag("--all", args->all, "small, medium, big, large and xlarge (the default)");
  sizes->excludes(all);
  cmd->add_option("--box", args->boxes, "an explicit box WxH (repeatable)");
  cmd->add_option("FILE", args->files, "source files")->required();
  cmd->callback([args, status] { *status = RunMake(*args); });
}

void AddImportCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<ImportArgs>();
  CLI::App* cmd = app.add_subcommand("import", "Store ready thumbnails of FILE (they are moved)");
  AddThumbOptions(cmd, &args->options);
  cmd->add_option("--mtime", args->mtime, "modification time to give them (default: the source's)");
  cmd->add_flag("--check-mime", args->checkMime, "skip thumbnails whose type is not the output type");
  cmd->add_option("FILE", args->file, "source file")->required();
  cmd->add_option("SIZE=THUMB", args->thumbs, "size name and thumbnail file")->required();
  cmd->callback([args, status] { *status = RunImport(*args); });
}

}  // namespace tool
}  // namespace kovathumb
