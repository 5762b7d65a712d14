// File-system type codes from statfs(2), with /proc/self/mountinfo telling
// block-backed FUSE mounts (local) from the others (network).
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include "kovaplatform/kovaplatform.h"

namespace {

// FUSE is the one magic number that covers both local and network file
// systems; the mount table's type field ("fuseblk", "fuse.sshfs") decides.
int FuseType(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0) return KOVA_FS_NETFUSE;
  FILE* f = fopen("/proc/self/mountinfo", "re");
  if (f == nullptr) return KOVA_FS_NETFUSE;
  char line[4096];
  int type = KOVA_FS_NETFUSE;
  while (fgets(line, sizeof line, f) != nullptr) {
    unsigned maj = 0, min = 0;
    if (sscanf(line, "%*d %*d %u:%u", &maj, &min) != 2) continue;
    if (makedev(maj, min) != st.st_dev) continue;
    const char* sep = strstr(line, " - ");
    if (sep != nullptr && strncmp(sep + 3, "fuseblk", 7) == 0) type = KOVA_FS_FUSEBLK;
    break;
  }
  fclose(f);
  return type;
}

}  // namespace

extern "C" {

int KOVAGetFSType(const char* path, int) {
  struct statfs sfs;
  if (path == nullptr || statfs(path, &sfs) != 0) return -1;
  switch (static_cast<unsigned long>(sfs.f_type)) {
    case 0xEF53: return KOVA_FS_EXT;
    case 0x9123683EUL: return KOVA_FS_BTRFS;
    case 0x58465342UL: return KOVA_FS_XFS;
    case 0x01021994UL: case 0x858458F6UL: return KOVA_FS_TMPFS;
    case 0x6969: return KOVA_FS_NFS;
    case 0x517B: case 0xFE534D42UL: case 0xFF534D42UL: return KOVA_FS_SMB;
    case 0x65735546UL: return FuseType(path);
    case 0x73717368UL: return KOVA_FS_SQUASHFS;
    case 0x9660: return KOVA_FS_ISO9660;
    case 0x15013346UL: return KOVA_FS_UDF;
    case 0x4D44: case 0x2011BAB0UL: return KOVA_FS_FAT;
    case 0x794C7630UL: return KOVA_FS_OVERLAY;
    case 0x00C36400UL: case 0x01021997UL: case 0x5346414FUL: return KOVA_FS_REMOTE_OTHER;
    default: return KOVA_FS_OTHER;
  }
}

int KOVAFSIsRemoteFS(int type) {
  return type == KOVA_FS_NFS || type == KOVA_FS_SMB || type == KOVA_FS_NETFUSE ||
         type == KOVA_FS_REMOTE_OTHER;
}

int KOVAFSIsImageFS(int type) {
  return type == KOVA_FS_SQUASHFS || type == KOVA_FS_ISO9660 || type == KOVA_FS_UDF;
}

}  // extern "C"
