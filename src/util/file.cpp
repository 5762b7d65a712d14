#include "kovathumb/file.h"

#include <errno.h>
#include <libgen.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "kovaplatform/kovaplatform.h"
#include "store/ea.h"
#include "util/ea_dir.h"
#include "util/log.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace file {

namespace {
constexpr size_t kPathMax = 4096;
// Code of the platform's file system that cannot hold EA directories.
constexpr int kFSTypeNoEADir = 12;

std::string PidTimeSuffix() {
  return "_" + std::to_string(static_cast<int>(getpid())) + "_" +
         std::to_string(static_cast<long>(time(nullptr)));
}
}  // namespace

std::string GetEAPath(const std::string& path, const std::string& name) {
  char buf[kPathMax];
  if (KOVAEAPath(0, path.c_str(), name.c_str(), buf, sizeof buf, 0) < 0) {
    KT_LOG("Get EA path for %s failed", name.c_str());
    return std::string();
  }
  return std::string(buf);
}

safe_fs::Fd OpenEADir(const std::string& path) {
  char eadir[kPathMax];
  if (KOVAEADirPath(0, path.c_str(), eadir, sizeof eadir) != 0) return safe_fs::Fd();
  return safe_fs::OpenDirBeneath(Dirname(path), eadir);
}

bool MakeEADir(const std::string& path) {
  char eadir[kPathMax];
  if (KOVAEADirPath(0, path.c_str(), eadir, sizeof eadir) != 0) return false;
  // Users may plant a link or a file where the directory belongs: checked
  // and made without following any.
  if (safe_fs::OpenDirBeneath(Dirname(path), eadir).valid()) return true;
  return KOVAEAMKDir(1, eadir) == 0 && safe_fs::OpenDirBeneath(Dirname(path), eadir).valid();
}

bool IsDestSupportEAWrite(const std::string& path) {
  int type = KOVAGetFSType(path.c_str(), 0);
  if (type == -1) {
    KT_LOG("failed to statfs %s, reason=[(%d)%m]", path.c_str(), errno);
    return true;
  }
  if (KOVAFSIsRemoteFS(type)) return false;
  return KOVAFSIsImageFS(type) == 0 && type != kFSTypeNoEADir;
}

bool SDKMoveFile(const std::string& src, const std::string& dst) {
  KOVA_FILE_COPY_OPT opt;
  memset(&opt, 0, sizeof opt);
  opt.move = 1;
  if (KOVAFileCopy(src.c_str(), dst.c_str(), &opt) == 0) return true;
  KT_LOG("KOVAFileCopy failed");
  return false;
}

std::string Dirname(const std::string& path) {
  char buf[kPathMax] = {0};
  strncpy(buf, path.c_str(), kPathMax - 1);
  return std::string(dirname(buf));
}

std::string GetEATmpPath(const std::string& path, const std::string& name) {
  std::string ea = GetEAPath(path, name);
  if (ea.empty()) return ea;
  return ea + PidTimeSuffix();
}

std::string GetVarTmpPath(const std::string& name) {
  static const char kPrefix[] = "/var/tmp/kovathumb_";
  std::string tmp;
  tmp.reserve(sizeof kPrefix + name.size());
  tmp += kPrefix;
  tmp += name;
  tmp += PidTimeSuffix();
  return tmp;
}

void SweepAbandonedWork(int eaDir) { store::SweepAbandonedWork(eaDir); }

}  // namespace file
}  // namespace kovathumb
