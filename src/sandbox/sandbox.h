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
#include <vector>

namespace kovathumb {
namespace sandbox {

struct Limits {
  unsigned wallSeconds = 60;
  unsigned cpuSeconds = 60;
  uint64_t addressSpace = uint64_t{1} << 30;  // not applied in sanitizer builds
};

struct Spec {
  std::vector<int> keep;  // descriptors the body may use, at their numbers
  Limits limits;
};

// What Run() reports beside the reply.
enum Outcome {
  kExited = 0,    // the body returned; its value is in *status
  kKilled = 1,    // ended by a signal (a crash, a limit)
  kTimedOut = 2,  // wall time up: killed
  kNoChild = 3,   // could not start one
};

// Runs `body` in an isolated child (see above). `reply` may be null.
Outcome Run(const Spec& spec, const std::function<int(int replyFd)>& body, std::string* reply,
            size_t maxReply, int* status);

}  // namespace sandbox
}  // namespace kovathumb

#endif  // KOVATHUMB_SANDBOX_SANDBOX_H_
