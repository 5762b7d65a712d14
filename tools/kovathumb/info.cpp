// kovathumb info: what the library knows about each source file.
#include <unistd.h>

#include <stdexcept>

#include "subcommands.h"
#include "kovathumb/error.h"

namespace kovathumb {
namespace tool {

namespace {

struct InfoArgs {
  SizeArgs size;
  int userRotate = 0;
  bool gif = false;
  bool crop = false;
  bool preview = false;
  bool keepPreview = false;
  std::vector<std::string> files;
};

// A name, or null when it cannot be built for this size.
template <typename F>
Json NameOrNull(F build) {
  try {
    return build();
  } catch (const std::out_of_range&) {
    return nullptr;
  }
}

Json Describe(const ThumbInfo& info, const std::string& path) {
  const ThumbDimension target = info.GetTargetDimension();
  Json j = {
      {"path", path},
      {"mime", info.GetMimeType()},
      {"width", info.GetWidth()},
      {"height", info.GetHeight()},
      {"file_size", info.GetFileSize()},
      {"rotate", info.GetRotate()},
      {"flop", info.GetFlop()},
      {"good", info.IsGood()},
      {"heic", info.IsHeic()},
      {"web_acceptable", info.IsWebAcceptable()},
      {"need_convert", info.IsNeedConvert()},
      {"output_mime", info.GetOutputMimeType()},
      {"output_ext", info.GetOutputExtension()},
      {"target", {target.width, target.height}},
  };
  j["names"] = {
      {"pictavo", NameOrNull([&] { return info.GetPictavoThumbEAName(); })},
      {"pictavo_old", NameOrNull([&] { return info.GetPictavoOldThumbEAName(); })},
      {"dossiva", NameOrNull([&] { return info.GetDossivaThumbEAName(); })},
      {"dossiva_tmp", NameOrNull([&] { return info.GetDossivaTmpThumbEAName(); })},
      {"avatar", NameOrNull([&] { return info.GetAvatarThumbEAName(); })},
      {"cinevo", NameOrNull([&] { return info.GetCinevoThumbEAName(); })},
  };
  return j;
}

int RunInfo(const InfoArgs& args) {
  const std::string sizeName = SizeName(args.size);
  const ThumbDimension box = SizeBox(args.size);
  int status = kExitOk;
  for (const std::string& path : args.files) {
    const std::string problem = SourceProblem(path);
    if (!problem.empty()) {
      PrintLine(ErrorJson(path, kErrorCannotExamine, problem));
      status = kExitFailed;
      continue;
    }
    try {
      ThumbInfo info(path, sizeName, box);
      info.SetUserRotate(args.userRotate);
      info.SetEnableGIF(args.gif);
      info.SetCropMode(args.crop);
      info.ExtractImgInfo(args.preview);
      Json j = Describe(info, path);
      if (args.preview) {
        const std::string preview = info.GetEXIFPreviewTmpPath();
        j["preview"] = preview.empty() ? Json(nullptr) : Json(preview);
        PrintLine(j);
        if (!preview.empty() && !args.keepPreview) unlink(preview.c_str());
      } else {
        PrintLine(j);
      }
    } catch (const Error& e) {
      PrintLine(ErrorJson(path, e.Code(), e.what()));
      status = kExitFailed;
    } catch (const std::exception& e) {
      PrintLine(ErrorJson(path, 0, e.what()));
      status = kExitFailed;
    }
  }
  return status;
}

}  // namespace

void AddInfoCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<InfoArgs>();
  CLI::App* cmd = app.add_subcommand("info", "Print what the library reads from each file, as JSON lines");
  AddSizeOptions(cmd, &args->size);
  AddRotateOption(cmd, "--user-rotate", &args->userRotate);
  cmd->add_flag("--gif", args->gif, "allow animated GIF thumbnails");
  cmd->add_flag("--crop", args->crop, "crop mode");
  auto* preview = cmd->add_flag("--preview", args->preview, "write the embedded preview and report its path");
  cmd->add_flag("--keep-preview", args->keepPreview, "keep the preview file")->needs(preview);
  cmd->add_option("FILE", args->files, "source files")->required();
  cmd->callback([args, status] { *status = RunInfo(*args); });
}

}  // namespace tool
}  // namespace kovathumb
