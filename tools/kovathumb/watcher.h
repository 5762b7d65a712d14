// kovathumb watch's state: the watched trees, the events' bookkeeping and
// the queue of files for the workers. watch.cpp has the main loop and the
// events, watch_tree.cpp the walks and the tree's bookkeeping.
#ifndef KOVATHUMB_TOOLS_KOVATHUMB_WATCHER_H_
#define KOVATHUMB_TOOLS_KOVATHUMB_WATCHER_H_

#include <sys/stat.h>

#include <deque>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "subcommands.h"
#include "upkeep_rules.h"
#include "workers.h"

namespace kovathumb {
namespace tool {

struct WatchArgs {
  int jobs = 0;
  std::vector<std::string> sizes;
  bool appliance = false;
  bool json = false;
  double settle = 2;
  double rescanMinutes = 10;
  PriorityArgs priority;
  std::vector<std::string> dirs;
};

class Watcher {
 public:
  Watcher(const WatchArgs& args, std::vector<std::string> sizes);
  ~Watcher();
  int Run();

 private:
  struct Root {
    std::string real, shown;
    int fd;  // O_PATH
    bool limited;
    double nextRescan;
  };
  struct Node {
    int parent;  // -1 for a root
    std::string name;
    size_t root;
    unsigned seen;  // the scan that last met it
  };
  struct Move {
    int wd;
    std::string name;
    uint32_t cookie, mask;
  };

  void Rescan(size_t root);
  void AddTree(size_t root, int parent, const std::string& name, int fd, const std::string& rel, bool catchUp);
  bool NeedsWork(int ea, const struct stat& src) const;
  void NewDir(int parent, const std::string& name);
  void ForgetTree(int wd);
  bool RelOf(int wd, std::string* rel) const;
  int DirFd(int wd) const;
  int FindChild(int parent, const std::string& name) const;
  void ReadEvents();
  void Handle(int wd, uint32_t mask, const std::string& name);
  void Rename(const Move& from, int toWd, const std::string& toName);
  void RemoveEA(int wd, const std::string& name);
  void Queue(size_t root, const std::string& rel, bool restamp);
  void Settled(const Settler::Key& key);
  void Report(const FileJob& job, const Json& j);
  void SayOnce(bool* said, const std::string& what);
  static double Now();
  bool IsPhoto(const std::string& name) const;

  const WatchArgs& args_;
  const std::set<std::string> letters_;
  int ifd_ = -1;
  std::vector<Root> roots_;
  std::unordered_map<int, Node> nodes_;
  unsigned scan_ = 0;
  Settler settler_;
  std::deque<FileJob> ready_;
  std::set<std::string> readyPaths_;
  WorkerPool pool_;
  bool moving_ = false;
  Move move_;
  bool saidOverflow_ = false, saidLimit_ = false, saidDeep_ = false;
};

}  // namespace tool
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_KOVATHUMB_WATCHER_H_
