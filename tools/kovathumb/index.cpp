// kovathumb index: makes the thumbnails of every photo under some trees,
// through the workers (a child process per file, at most -j at a time).
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

#include "subcommands.h"
#include "workers.h"
#include "front_end/tree.h"
#include "kovathumb/log.h"
#include "kovathumb/thumb.h"
#include "kovathumb/thumb_const.h"

namespace kovathumb {
namespace tool {

namespace {

struct IndexArgs {
  int jobs = 0;
  std::vector<std::string> sizes;
  bool json = false;
  bool noProgress = false;
  bool appliance = false;
  std::vector<std::string> dirs;
};

volatile sig_atomic_t g_interrupts = 0;
void OnInterrupt(int) { ++g_interrupts; }

std::string Clock(double seconds) {
  const long s = static_cast<long>(seconds + 0.5);
  char buf[32];
  snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
  return buf;
}

void DrawProgress(size_t done, size_t total, double elapsed) {
  const int width = 30;
  const int filled = total == 0 ? width : static_cast<int>(width * done / total);
  const double rate = elapsed > 0 ? done / elapsed : 0;
  const std::string eta = rate > 0 ? Clock((total - done) / rate) : "-:--";
  fprintf(stderr, "\r[%s%s] %zu/%zu files  %.1f/s  %s left ", std::string(filled, '#').c_str(),
          std::string(width - filled, '.').c_str(), done, total, rate, eta.c_str());
  fflush(stderr);
}

int RunIndex(const IndexArgs& args) {
  std::vector<std::string> sizes = args.sizes;
  if (sizes.empty()) sizes.assign(std::begin(kConvertibleSizes), std::end(kConvertibleSizes));
  CheckSizes(sizes);
  std::vector<FileJob> files;
  size_t tooDeep = 0;
  std::string firstTooDeep;
  for (std::string dir : args.dirs) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    const std::string real = TreeRoot(dir);
    std::vector<TreeFile> found;
    std::string deep;
    const size_t n = WalkTree(real, &found, !args.appliance, &deep);
    if (n > 0 && tooDeep == 0) firstTooDeep = dir + "/" + deep;
    tooDeep += n;
    for (const TreeFile& f : found) files.push_back(FileJob{real, f.rel, dir + "/" + f.rel});
  }
  if (tooDeep > 0) fprintf(stderr, "kovathumb index: %s\n", TooDeepMessage(tooDeep, firstTooDeep).c_str());

  const bool progress = !args.noProgress && isatty(2);
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnInterrupt;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
  WorkerPool pool(args.jobs > 0 ? static_cast<size_t>(args.jobs) : DefaultJobs(), sizes,
                  args.appliance ? 0 : kThumbOptQuality);
  size_t next = 0, done = 0;
  int made = 0, upToDate = 0, original = 0, skipped = 0;
  std::vector<std::pair<std::string, std::string>> failedFiles;  // path, reason
  std::vector<std::string> interruptedFiles;
  int signalled = 0;
  const WorkerPool::Done count = [&](const FileJob& file, const Json& j) {
    made += j.value("made", 0);
    upToDate += j.value("up_to_date", 0);
    original += j.value("original", 0);
    skipped += j.value("skipped", false) ? 1 : 0;
    if (j.value("interrupted", false)) interruptedFiles.push_back(file.path);
    if (j.value("failed", 0) > 0) failedFiles.push_back({file.path, j.value("error", std::string())});
    ++done;
    if (args.json) PrintLine(j);
  };

  while (!pool.Idle() || (g_interrupts == 0 && next < files.size())) {
    if (g_interrupts != signalled) {
      // First: finish the size in hand, then stop. Again: stop now.
      pool.Stop(g_interrupts > 1);
      signalled = g_interrupts;
    }
    while (g_interrupts == 0 && !pool.Full() && next < files.size()) pool.Start(files[next++]);
    pool.Poll(200, nullptr, count);
    if (progress) DrawProgress(done, files.size(), elapsed());
  }
  if (progress) fputc('\n', stderr);

  const bool stopped = g_interrupts != 0;
  Json summary = {{"summary", true},
                  {"files", files.size()},
                  {"done", done},
                  {"made", made},
                  {"up_to_date", upToDate},
                  {"original", original},
                  {"skipped", skipped},
                  {"failed", failedFiles.size()},
                  {"failed_files", Json::array()},
                  {"interrupted", stopped},
                  {"interrupted_files", interruptedFiles},
                  {"too_deep", tooDeep},
                  {"seconds", std::round(elapsed() * 1000) / 1000}};
  for (const auto& f : failedFiles) summary["failed_files"].push_back(f.first);
  if (args.json) {
    PrintLine(summary);
  } else {
    std::printf("%zu files: %d thumbnails made, %d up to date, %d served as the original, %d skipped, "
                "%zu files failed%s in %.1f s\n",
                files.size(), made, upToDate, original, skipped, failedFiles.size(),
                stopped ? (", " + std::to_string(interruptedFiles.size()) + " interrupted").c_str() : "",
                elapsed());
    for (const auto& f : failedFiles) {
      std::printf("failed: %s%s%s\n", f.first.c_str(), f.second.empty() ? "" : ": ", f.second.c_str());
    }
    for (const std::string& f : interruptedFiles) std::printf("interrupted: %s\n", f.c_str());
  }
  if (stopped) return 130;
  return failedFiles.empty() ? kExitOk : kExitFailed;
}

}  // namespace

void AddIndexCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<IndexArgs>();
  CLI::App* cmd = app.add_subcommand("index", "Make the thumbnails of every photo (and video) under DIR");
  cmd->add_option("-j,--jobs", args->jobs, "files worked on at once (default: the number of cores)")
      ->check(CLI::Range(1, 256));
  AddSizesOption(cmd, &args->sizes, "sizes to make, separated by commas (default: all five)");
  cmd->add_flag("--json", args->json, "one JSON line per file and a summary line");
  cmd->add_flag("--no-progress", args->noProgress, "no progress bar on the terminal");
  cmd->add_flag("--appliance", args->appliance, "the appliance's thumbnails instead of quality mode's");
  cmd->add_option("DIR", args->dirs, "directories")->required();
  cmd->callback([args, status] { *status = RunIndex(*args); });
}

}  // namespace tool
}  // namespace kovathumb
