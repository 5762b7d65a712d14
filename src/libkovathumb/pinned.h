// Thumb's open files of the current request, shared by its source files.
#ifndef KOVATHUMB_LIBKOVATHUMB_PINNED_H_
#define KOVATHUMB_LIBKOVATHUMB_PINNED_H_

#include <sys/stat.h>

#include <string>
#include <utility>

#include "kovathumb/thumb.h"
#include "store/ea.h"
#include "util/safe_fs.h"

namespace kovathumb {

// What the current request holds open: the EA directory it looked in, the
// output file it chose (sent and deleted through this very descriptor), and
// the tools' private work directory.
struct Thumb::Pinned {
  safe_fs::Fd eaDir;
  safe_fs::Fd output;
  std::string outputPath;  // the output file this descriptor stands for
  struct stat64 outputStat;
  safe_fs::PrivateDir work;
  safe_fs::Fd turned;  // a turned gallery thumbnail of Answer()
  // The type of a stored thumbnail chosen before the probe (its name's);
  // "" to take the probe's.
  std::string unprobedMime;
  // The EA directory's name when this request made it, "" when it was there.
  std::string madeEADir;

  // A request that stored nothing leaves no EA directory of its own behind.
  ~Pinned() {
    work.Remove();
    if (!madeEADir.empty() && eaDir.valid()) store::RemoveIfEmpty(eaDir.get(), madeEADir);
  }

  void SetOutput(const std::string& path, safe_fs::Fd fd, const struct stat64& st) {
    output = std::move(fd);
    outputPath = path;
    outputStat = st;
  }
};

}  // namespace kovathumb

#endif  // KOVATHUMB_LIBKOVATHUMB_PINNED_H_
