// Shared pieces of the kovathumb program's subcommands.
#ifndef KOVATHUMB_TOOLS_SUBCOMMANDS_H_
#define KOVATHUMB_TOOLS_SUBCOMMANDS_H_

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <string>

#include "kovathumb/thumb_info.h"

namespace kovathumb {
namespace tool {

// Keys stay in the order written, so "path" leads each line.
using Json = nlohmann::ordered_json;

// Exit statuses shared by all subcommands.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// The requested size: a size name or an explicit box.
struct SizeArgs {
  std::string size = "big";
  std::string box;  // "WxH"; set means size "__CUSTOM_SIZE__"
};

void AddSizeOptions(CLI::App* cmd, SizeArgs* args);
// Size name and box of `args`; throws CLI::ValidationError for an unknown
// size name or a malformed box.
std::string SizeName(const SizeArgs& args);
ThumbDimension SizeBox(const SizeArgs& args);
// Parses "WxH" (both above 0).
bool ParseBox(const std::string& text, ThumbDimension* box);

// --sizes: names separated by commas, one argument (repeatable), so the
// file names after it are never taken for sizes.
CLI::Option* AddSizesOption(CLI::App* cmd, std::vector<std::string>* sizes, const std::string& help);
// The user's rotation in quarter turns, as option `name`, within the one
// range the library and the web take.
CLI::Option* AddRotateOption(CLI::App* cmd, const std::string& name, int* turns);
// Throws CLI::ValidationError for a name that is not a thumbnail size.
void CheckSizes(const std::vector<std::string>& sizes);

// Why `path` cannot be a source, with the system's reason ("is a
// directory", "No such file or directory"); "" when it may be one.
std::string SourceProblem(const std::string& path);

// The library's reason for the failure of this thread's request since
// ClearLogReason(), or `fallback`.
std::string FailureReason(const std::string& fallback);

Json ErrorJson(const std::string& path, int code, const std::string& what);
// Prints one compact JSON object on its own line and flushes.
void PrintLine(const Json& j);

// The option bits of a Thumb, as flags.
struct OptionArgs {
  bool pictavo = false, dossiva = false, noOnline = false, gif = false, avatar = false;
  bool fallback = false;
  bool quality = false;
  int raw = 0;  // --options N, or-ed with the flags
  int Bits() const;
};
void AddThumbOptions(CLI::App* cmd, OptionArgs* args);

// What became of one source file's thumbnails.
struct Outcome {
  int made = 0, upToDate = 0, original = 0, failed = 0;
  bool skipped = false, interrupted = false;
  std::string error;  // the reason for the last failure
};
// The video application's screenshot: one frame, stored like a thumbnail.
class PinnedFile;
class StoredOf;
void MakeScreenshot(const PinnedFile& pinned, const StoredOf& stored, Outcome* out);

// The canonical path of the directory argument `dir`; throws
// CLI::ValidationError when it is not a directory.
std::string TreeRoot(const std::string& dir);

// Work in the background: a nice value and the I/O scheduling class,
// inherited by the workers and their tools.
struct PriorityArgs {
  int nice = 19;
  std::string ioClass = "idle";  // "idle", "best-effort", or "keep"
};
void AddPriorityOptions(CLI::App* cmd, PriorityArgs* args);
// Says on standard error what could not be set.
void ApplyPriority(const PriorityArgs& args);

// Subcommands register themselves and store their exit status in `status`.
void AddInfoCommand(CLI::App& app, int* status);
void AddConvertCommand(CLI::App& app, int* status);
void AddGetCommand(CLI::App& app, int* status);
void AddMakeCommand(CLI::App& app, int* status);
void AddImportCommand(CLI::App& app, int* status);
void AddIndexCommand(CLI::App& app, int* status);
void AddWatchCommand(CLI::App& app, int* status);
void AddPruneCommand(CLI::App& app, int* status);

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_SUBCOMMANDS_H_
