// kovathumb prune: removes stored thumbnails nobody needs any more.
//
// The tree is walked through directory descriptors, never through a link,
// and only files under our store's names are removed (see ea_store.h).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>

#include "ea_store.h"
#include "front_end/pin.h"
#include "front_end/tree.h"
#include "subcommands.h"
#include "upkeep_rules.h"

namespace kovathumb {
namespace tool {

namespace {

struct PruneArgs {
  bool dryRun = false;
  double retentionDays = 30;
  PriorityArgs priority;
  std::vector<std::string> dirs;
};

struct Pruned {
  Freed freed;
  long eaDirs = 0;
  size_t tooDeep = 0;
  std::string firstTooDeep;
};

// Takes `fd`, a directory opened without following a link.
void PruneTree(int fd, const PruneArgs& args, time_t now, Pruned* out) {
  const long retention = static_cast<long>(args.retentionDays * 86400);
  std::string deep;
  const size_t tooDeep = WalkFolders(fd, kMaxTreeDepth, [&](const Folder& folder, const std::vector<Entry>& entries) {
    std::set<std::string> files;
    for (const Entry& e : entries) {
      if (S_ISREG(e.st.st_mode)) files.insert(e.name);
    }
    for (const std::string& n : EADirsIn(folder.fd)) {
      const bool gone = files.count(n) == 0;
      if (gone) {
        if (RemoveEADir(folder.fd, n, args.dryRun, &out->freed)) ++out->eaDirs;
        continue;
      }
      const int ea = OpenEADirOf(folder.fd, n);
      if (ea < 0) continue;
      RemoveStored(ea,
                   [&](const std::string&, Stored kind, const struct stat& st) {
                     return PruneRemoves(kind, false, LastWanted(st.st_atime, st.st_ctime), now, retention);
                   },
                   args.dryRun, &out->freed);
      close(ea);
    }
  }, &deep);
  if (tooDeep > 0 && out->tooDeep == 0) out->firstTooDeep = deep;
  out->tooDeep += tooDeep;
}

int RunPrune(const PruneArgs& args) {
  std::vector<std::string> roots;
  for (const std::string& dir : args.dirs) roots.push_back(TreeRoot(dir));
  ApplyPriority(args.priority);
  Pruned pruned;
  const time_t now = time(nullptr);
  for (size_t i = 0; i < roots.size(); ++i) {
    const int fd = open(roots[i].c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const size_t before = pruned.tooDeep;
    if (fd >= 0) PruneTree(fd, args, now, &pruned);
    if (before == 0 && pruned.tooDeep > 0) pruned.firstTooDeep = args.dirs[i] + "/" + pruned.firstTooDeep;
  }
  if (pruned.tooDeep > 0) {
    fprintf(stderr, "kovathumb prune: %s\n", TooDeepMessage(pruned.tooDeep, pruned.firstTooDeep).c_str());
  }
  PrintLine(Json{{"dry_run", args.dryRun},
                 {"ea_dirs", pruned.eaDirs},
                 {"files", pruned.freed.files},
                 {"bytes", pruned.freed.bytes},
                 {"retention_days", args.retentionDays},
                 {"too_deep", pruned.tooDeep}});
  return kExitOk;
}

}  // namespace

void AddPruneCommand(CLI::App& app, int* status) {
  auto args = std::make_shared<PruneArgs>();
  CLI::App* cmd = app.add_subcommand(
      "prune", "Remove the thumbnails of photos that are gone, and box thumbnails nobody asked for lately, under DIR");
  cmd->add_flag("-n,--dry-run", args->dryRun, "only count what would be removed");
  cmd->add_option("--retention", args->retentionDays,
                  "days a thumbnail of an explicit box is kept after it was last stored or read (default 30)")
      ->check(CLI::Range(0.0, 36500.0));
  AddPriorityOptions(cmd, &args->priority);
  cmd->add_option("DIR", args->dirs, "directories")->required();
  cmd->callback([args, status] { *status = RunPrune(*args); });
}

}  // namespace tool
}  // namespace kovathumb
