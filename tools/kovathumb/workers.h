// Making the thumbnails of many files, a child process per file.
//
// Each file is worked on in a child of its own, at most N at a time, so a
// conversion that crashes or hangs costs that file only. The children run in
// process groups of their own: a Ctrl-C on the terminal reaches only us, and
// Stop() asks them to finish the size in hand first, so nothing is left
// half-made. index and watch share this.
#ifndef KOVATHUMB_TOOLS_KOVATHUMB_WORKERS_H_
#define KOVATHUMB_TOOLS_KOVATHUMB_WORKERS_H_

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "subcommands.h"

namespace kovathumb {
namespace tool {

// One file: `rel` beneath the trusted directory `root`, shown as `path`.
struct FileJob {
  std::string root, rel, path;
  // Drop its stored thumbnails that do not carry the source's time first:
  // a file rewritten with an older time would otherwise look up to date.
  bool restamp = false;
};

// The per-file result line: path, made, up_to_date, original, failed, ...
Json OutcomeJson(const std::string& path, const Outcome& o);

class WorkerPool {
 public:
  // Results come back as OutcomeJson lines.
  using Done = std::function<void(const FileJob&, const Json&)>;

  WorkerPool(size_t jobs, std::vector<std::string> sizes, int thumbOptions);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  bool Full() const { return running_.size() >= jobs_; }
  bool Idle() const { return running_.empty(); }
  bool InFlight(const std::string& path) const;
  void Start(const FileJob& job);
  // Waits up to `timeoutMs` (-1: for ever) for results or for `extra`
  // descriptors (their revents are filled in), and reports each finished file.
  void Poll(int timeoutMs, std::vector<pollfd>* extra, const Done& done);
  // Asks the workers to stop after the size in hand; `now` ends their tools
  // at once, so each worker clears its work away and stops, and kills what
  // is left a few seconds later. Results of stopped files say "interrupted".
  void Stop(bool now);

 private:
  struct Worker {
    pid_t pid;
    int fd;
    FileJob job;
    std::string output;
    std::chrono::steady_clock::time_point start;
  };
  void Reap(Worker& w, const Done& done);

  size_t jobs_;
  std::vector<std::string> sizes_;
  int thumbOptions_;
  bool stopping_ = false;
  std::chrono::steady_clock::time_point killAt_ = std::chrono::steady_clock::time_point::max();
  std::vector<Worker> running_;
};

// Default for -j: the number of cores.
size_t DefaultJobs();

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_KOVATHUMB_WORKERS_H_
