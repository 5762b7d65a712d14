#include "subcommands.h"

#include <errno.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <map>

#include "front_end/tree.h"
#include "kovathumb/log.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"
#include "store/names.h"

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

CLI::Option* AddSizesOption(CLI::App* cmd, std::vector<std::string>* sizes, const std::string& help) {
  return cmd
      ->add_option_function<std::string>(
          "--sizes",
          [sizes](const std::string& list) {
            for (size_t begin = 0, comma;; begin = comma + 1) {
              comma = list.find(',', begin);
              sizes->push_back(list.substr(begin, comma - begin));
              if (comma == std::string::npos) break;
            }
          },
          help)
      ->type_name("NAME[,NAME...]");
}

CLI::Option* AddRotateOption(CLI::App* cmd, const std::string& name, int* turns) {
  return cmd->add_option(name, *turns, "user rotation in quarter turns")
      ->check(CLI::Range(store::kMinUserRotate, store::kMaxUserRotate));
}

void CheckSizes(const std::vector<std::string>& sizes) {
  for (const std::string& size : sizes) {
    if (size == kSizeOriginal || SizeTable().count(size) == 0) {
      throw CLI::ValidationError("--sizes", "not a thumbnail size: " + size);
    }
  }
}

std::string SourceProblem(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return path + ": " + strerror(errno);
  if (S_ISDIR(st.st_mode)) return path + ": is a directory";
  if (!S_ISREG(st.st_mode)) return path + ": not a regular file";
  return std::string();
}

std::string FailureReason(const std::string& fallback) {
  const std::string reason = LogReason();
  return reason.empty() ? fallback : reason;
}

Json ErrorJson(const std::string& path, int code, const std::string& what) {
  return {{"path", path}, {"error", {{"code", code}, {"what", what}}}};
}

void PrintLine(const Json& j) {
  // Replacement keeps odd bytes in file names from aborting the output.
  std::cout << j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

std::string TreeRoot(const std::string& dir) {
  const std::string real = RealPath(dir);
  struct stat st;
  if (real.empty() || stat(real.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    throw CLI::ValidationError("DIR", "not a directory: " + dir);
  }
  return real;
}

namespace {
// From linux/ioprio.h, which not every libc's headers carry.
constexpr int kIoprioWhoProcess = 1;
constexpr int kIoprioClassShift = 13;
constexpr int kIoprioClassBestEffort = 2;
constexpr int kIoprioClassIdle = 3;
}  // namespace

void AddPriorityOptions(CLI::App* cmd, PriorityArgs* args) {
  cmd->add_option("--nice", args->nice, "scheduling niceness (default 19: the lowest priority)")
      ->check(CLI::Range(-20, 19));
  cmd->add_option("--io-class", args->ioClass, "I/O scheduling class: idle (default), best-effort, keep")
      ->check(CLI::IsMember({"idle", "best-effort", "keep"}));
}

void ApplyPriority(const PriorityArgs& args) {
  if (setpriority(PRIO_PROCESS, 0, args.nice) != 0) {
    std::cerr << "kovathumb: cannot set niceness " << args.nice << ": " << strerror(errno) << std::endl;
  }
  if (args.ioClass == "keep") return;
  // Best effort at its lowest level (7) still yields to everyone else's.
  const int prio = args.ioClass == "idle" ? kIoprioClassIdle << kIoprioClassShift
                                          : (kIoprioClassBestEffort << kIoprioClassShift) | 7;
  if (syscall(SYS_ioprio_set, kIoprioWhoProcess, 0, prio) != 0) {
    std::cerr << "kovathumb: cannot set the I/O class " << args.ioClass << ": " << strerror(errno) << std::endl;
  }
}

}  // namespace tool
}  // namespace kovathumb
