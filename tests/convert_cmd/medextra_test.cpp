// The media add-on's converter, switched by a file that is read on every call.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kovathumb/convert_cmd.h"
#include "support/fake_platform.h"
#include "support/thumb_info_access.h"

namespace kovathumb {
namespace {

// Runs in a child with a private mount namespace and a tmpfs over /var, so
// the switch file never appears for other processes.
int CheckSwitchInPrivateVar() {
  if (unshare(CLONE_NEWNS) != 0) return 77;
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 77;
  if (mount("tmpfs", "/var", "tmpfs", 0, "size=1m") != 0) return 77;
  fake::Reset();
  fake::State().exec_result = 0;
  ConvertCmd cmd(ThumbInfoTestAccess::Make("image/jpeg", 100, 100, 0, "big", {640, 640}), "/s.jpg",
                 "/d.jpg");
  if (cmd.IsMedextraEnabled() || cmd.getConvertPath() != "/usr/bin/convert") return 1;
  mkdir("/var/packages", 0755);
  mkdir("/var/packages/Medextra", 0755);
  close(creat("/var/packages/Medextra/enabled", 0644));
  if (!cmd.exec()) return 2;
  const auto& call = fake::State().exec_calls.back();
  if (call[0] != "/var/packages/Medextra/target/usr/bin/convert" || call[1] != "/usr/bin/convert") return 3;
  unlink("/var/packages/Medextra/enabled");
  if (cmd.getConvertPath() != "/usr/bin/convert") return 4;
  return 0;
}

TEST(MedextraRootTest, SwitchIsReadOnEveryCall) {
  pid_t pid = fork();
  if (pid == 0) _exit(CheckSwitchInPrivateVar());
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace kovathumb
