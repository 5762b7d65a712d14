// Running code that parses untrusted bytes in a child process that holds
// no privilege: the probe, preview extraction, the decoders we link and the
// tools we start. Root keeps opening, checking and storing; whatever reads
// the content of a source runs through Run().
//
// Contract: Run() forks; the child keeps only the descriptors named in
// `Spec::keep` (plus the reply pipe), gives up root and everything else the
// isolation in force takes away, is bounded by `Spec::limits`, then calls
// `body`. The body writes its answer to the descriptor it is given; the
// parent reads at most `maxReply` bytes of it until the child ends or its
// wall time is up, then kills and reaps it. Thread-safe as fork() is: the
// body runs in a copy of this process and may only use what it set up
// itself or was handed, never locks another thread may hold.
//
//   std::string facts;
//   sandbox::Spec spec;
//   spec.keep = {sourceFd};
//   int rc = sandbox::Run(spec, [&](int reply) {
//     return ProbeInto(sourceFd, reply) ? 0 : 1;
//   }, &facts, 1 << 20);
//   if (rc == 0) UseFacts(facts);  // still untrusted data: check it
#ifndef KOVATHUMB_SANDBOX_SANDBOX_H_
#define KOVATHUMB_SANDBOX_SANDBOX_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace kovathumb {
namespace sandbox {

struct Limits {
  unsigned wallSeconds = 60;
  unsigned cpuSeconds = 60;
  uint64_t addressSpace = uint64_t{1} << 30;  // not applied in sanitizer builds
};

// What isolation a child entered (Spec::applied), one bit each.
enum Mechanism : unsigned {
  kUnprivileged = 1u << 0,   // runs as the sandbox account (or was never root)
  kNoCapabilities = 1u << 1, // none left, bounding set included
  kNoNewPrivs = 1u << 2,
  kSyscallFilter = 1u << 3,  // the seccomp filter
  kNamespaces = 1u << 4,     // own mount, network, IPC and host-name namespaces
  kPidNamespace = 1u << 5,   // its processes die with it
  kFileView = 1u << 6,       // a root holding only the libraries, tools and its files
  kNoChildren = 1u << 7,     // may neither fork nor exec: nothing outlives it (Spec::opensNothing)
};

struct Spec {
  std::vector<int> keep;  // descriptors the body may use, at their numbers
  Limits limits;
  // Descriptors of this process the body's tools reach by their pinned
  // paths (safe_fs::ToolPath: "/proc/<our pid>/fd/N"): the same names
  // resolve inside the body's view, read-only. Closed in the child unless
  // also kept.
  std::vector<int> visible;
  // Directories among those pinned paths the body writes into. For the run
  // they belong to the sandbox account; afterwards everything in them but
  // regular files with one link is removed and they are given back.
  std::vector<int> writable;
  // Descriptors shown at other names (absolute paths) in the view; a
  // writable one is a directory, lent as those above are.
  struct Shown {
    int fd;
    std::string path;
    bool writable;
  };
  std::vector<Shown> shown;
  // The body starts no process and opens nothing by name: all it reads and
  // writes is in `keep`, its code already loaded. Its view is then an empty
  // root, and the filter refuses fork and exec (threads stay), so no keeper
  // or PID namespace is needed, nor a network namespace beside the filter's
  // refusal of sockets: a cheaper child. `visible`, `shown` and `cwd` must
  // be empty; `writable` directories are still lent, reached by descriptor.
  bool opensNothing = false;
  // Where the body starts in the view (a caller's relative names resolve
  // there); "" for its root.
  std::string cwd;
  // Set to the Mechanism bits the child entered, when not null.
  unsigned* applied = nullptr;
};

// What Run() reports beside the reply.
enum Outcome {
  kExited = 0,    // the body returned; its value is in *status
  kKilled = 1,    // ended by a signal (a crash, a limit)
  kTimedOut = 2,  // wall time up: killed
  kNoChild = 3,   // could not start one
  kRefused = 4,   // isolation could not be entered (root could not be given up): the body did not run
};

// The pinned paths of this process's descriptors in `args` (each a tool
// argument such as "ppm:/proc/<pid>/fd/7/a.ppm"): the descriptor numbers,
// files and directories alike, in order of appearance, without repeats.
std::vector<int> PinnedDescriptors(const std::vector<std::string>& args);

// Starts the tool `path` with `argv` through the platform's launcher inside
// Run(): descriptors named by pinned paths in argv are visible, directories
// among them writable. With `out` >= 0 the tool's standard output is copied
// there, at most `maxOut` bytes of it when that is not negative (more fails
// the tool); with `err` >= 0 its standard error goes there. True when the
// tool ran and succeeded.
bool RunTool(const char* path, const char* const argv[], int out = -1, int err = -1, long long maxOut = -1);

// Runs `body` in an isolated child (see above). `reply` may be null.
Outcome Run(const Spec& spec, const std::function<int(int replyFd)>& body, std::string* reply,
            size_t maxReply, int* status);

// Run() for a body whose answer is one fixed-size record: `fill` fills a
// zeroed one in the child, and it comes back as its bytes. True, with
// `*out` set, when the child ended well and answered exactly one record;
// `*out` is untouched otherwise. What comes back is untrusted data.
bool RunForRecord(const Spec& spec, const std::function<bool(void* record)>& fill, void* out, size_t size);
template <typename Record>
bool RunForRecord(const Spec& spec, const std::function<bool(Record*)>& fill, Record* out) {
  static_assert(std::is_trivially_copyable<Record>::value, "a record is sent as its bytes");
  return RunForRecord(spec, [&](void* r) { return fill(static_cast<Record*>(r)); }, out, sizeof(Record));
}

}  // namespace sandbox
}  // namespace kovathumb

#endif  // KOVATHUMB_SANDBOX_SANDBOX_H_
