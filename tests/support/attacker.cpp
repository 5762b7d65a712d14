#include "support/attacker.h"

#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

namespace kovathumb {
namespace test {

namespace {

void BecomeAttacker() {
  if (setgroups(0, nullptr) != 0 || setresgid(kAttackerId, kAttackerId, kAttackerId) != 0 ||
      setresuid(kAttackerId, kAttackerId, kAttackerId) != 0) {
    _exit(99);
  }
}

}  // namespace

bool AsAttacker(const std::function<bool()>& attack) {
  const pid_t pid = fork();
  if (pid == 0) {
    BecomeAttacker();
    _exit(attack() ? 0 : 1);
  }
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool ShAsAttacker(const std::string& command) { return AsAttacker([&] { return Sh(command) == 0; }); }

AttackerLoop::AttackerLoop(const std::function<void()>& step) {
  void* shared = mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) abort();
  rounds_ = static_cast<volatile long*>(shared);
  *rounds_ = 0;
  pid_ = fork();
  if (pid_ == 0) {
    BecomeAttacker();
    for (;;) {
      step();
      *rounds_ = *rounds_ + 1;
    }
  }
}

AttackerLoop::~AttackerLoop() {
  if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
  munmap(const_cast<long*>(rounds_), sizeof(long));
}

AttackTree::AttackTree() {
  chmod(top.path().c_str(), 0755);
  mkdir(tree.c_str(), 0755);
  mkdir(mine.c_str(), 0755);
  if (chown(mine.c_str(), kAttackerId, kAttackerId) != 0) abort();
  MakeImage(secret, 800, 600, "xc:magenta");
  chmod(secret.c_str(), 0600);
}

bool AttackTree::Leaks(const std::string& data) const {
  if (data.empty()) return false;
  if (data.find(ReadFile(secret)) != std::string::npos) return true;
  // A thumbnail of the secret: the secret is the only magenta picture around.
  TempDir scratch;
  WriteFile(scratch / "probe", data);
  const std::string colour = Capture("/usr/bin/convert " + Quote(scratch / "probe") + "'[0]' -scale '1x1!' -format "
                                     "'%[fx:int(255*r)],%[fx:int(255*g)],%[fx:int(255*b)]' info: 2>/dev/null");
  int r = 0, g = 0, b = 0;
  return sscanf(colour.c_str(), "%d,%d,%d", &r, &g, &b) == 3 && r > 200 && g < 60 && b > 200;
}

}  // namespace test
}  // namespace kovathumb
