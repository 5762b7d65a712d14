// Attacks for tests: the code under test runs as root in this process (or
// in programs it starts); the attacker is an ordinary user, played by a
// forked child that dropped to uid/gid 65534. Tests that use these skip
// when not run as root.
#ifndef KOVATHUMB_TESTS_ATTACKER_H_
#define KOVATHUMB_TESTS_ATTACKER_H_

#include "support/test_util.h"

namespace kovathumb {
namespace test {

constexpr uid_t kAttackerId = 65534;

// Runs `attack` in a child as the attacker; true when it returned true.
bool AsAttacker(const std::function<bool()>& attack);
// Runs the shell `command` as the attacker; whether it exited 0.
bool ShAsAttacker(const std::string& command);

// Repeats `step` as the attacker in a child until destroyed.
class AttackerLoop {
 public:
  explicit AttackerLoop(const std::function<void()>& step);
  ~AttackerLoop();
  AttackerLoop(const AttackerLoop&) = delete;
  AttackerLoop& operator=(const AttackerLoop&) = delete;
  long Rounds() const { return *rounds_; }  // how many times `step` has run

 private:
  pid_t pid_;
  volatile long* rounds_;
};

// A served tree as the appliance has it: `tree` is root's (0755) and holds
// `mine`, a folder the attacker owns; `secret` is a root-only (0600) JPEG
// outside the tree that no thumbnail or response may ever show.
struct AttackTree {
  AttackTree();
  TempDir top;
  std::string tree = top / "tree", mine = top / "tree/alice", secret = top / "secret.jpg";
  // Whether `data` holds the secret's bytes or a thumbnail of it.
  bool Leaks(const std::string& data) const;
};

}  // namespace test
}  // namespace kovathumb

#endif  // KOVATHUMB_TESTS_ATTACKER_H_
