// The media add-on's converter, switched by a file that is read on every call.
#include <fcntl.h>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include "kovathumb/convert_cmd.h"
#include "support/fake_platform.h"
#include "support/test_util.h"
#include "support/thumb_info_access.h"

namespace kovathumb {
namespace {

// A tmpfs over /var in a private mount namespace: the switch file never
// appears for other processes.
TEST(MedextraRootTest, SwitchIsReadOnEveryCall) {
  const int status = test::WithStandIns({}, [] {
    if (mount("tmpfs", "/var", "tmpfs", 0, "size=1m") != 0) return test::kNoNamespace;
    fake::Reset();
    fake::State().exec_result = 0;
    ConvertCmd cmd(ThumbInfoTestAccess::Make("image/jpeg", 100, 100, 0, "big", {640, 640}), "/s.jpg", "/d.jpg");
    if (cmd.IsMedextraEnabled() || cmd.getConvertPath() != "/usr/bin/convert") return 1;
    if (test::Sh("mkdir -p /var/packages/Medextra && touch /var/packages/Medextra/enabled") != 0) return 5;
    if (!cmd.exec()) return 2;
    const auto& call = fake::State().exec_calls.back();
    if (call[0] != "/var/packages/Medextra/target/usr/bin/convert" || call[1] != "/usr/bin/convert") return 3;
    unlink("/var/packages/Medextra/enabled");
    return cmd.getConvertPath() != "/usr/bin/convert" ? 4 : 0;
  });
  if (status == test::kNoNamespace) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace kovathumb
