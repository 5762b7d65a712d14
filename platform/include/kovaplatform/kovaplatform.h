// Portable implementation of the appliance system calls that libkovathumb
// uses: extended-attribute (EA) directory paths, file-system type queries,
// file copy/move and process launching without a shell.
//
// On the appliance these come from its own system libraries; this library
// gives them the same signatures for plain Linux, so libkovathumb links
// against either. All functions are thread-safe and report failure through
// their result (and errno where stated); none throws.
//
// EA layout on plain Linux: the EA directory of "/dir/photo.jpg" is
// "/dir/.kovaea/photo.jpg", and EA file NAME of it is
// "/dir/.kovaea/photo.jpg/NAME".
#ifndef KOVAPLATFORM_KOVAPLATFORM_H_
#define KOVAPLATFORM_KOVAPLATFORM_H_

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#if defined(KOVAPLATFORM_BUILDING)
#define KOVAPLATFORM_EXPORT __attribute__((visibility("default")))
#else
#define KOVAPLATFORM_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

// ---- Extended-attribute directories -------------------------------------

// Writes the full path of EA file `name` of `path` into `buf`. `flags` and
// `reserved` are accepted for compatibility and must be 0. Returns the length
// of the path, or -1 (errno set) when `path` has no file name, `name` is empty
// or contains '/', or the result does not fit `size`.
KOVAPLATFORM_EXPORT int KOVAEAPath(int flags, const char* path, const char* name, char* buf,
                                   size_t size, int reserved);

// Writes the EA directory of `path` into `buf`. Returns 0, or -1 (errno set).
KOVAPLATFORM_EXPORT int KOVAEADirPath(int flags, const char* path, char* buf, size_t size);

// Creates the EA directory `eadir` (as given by KOVAEADirPath). With `flags`
// 1 the parent ".kovaea" is created too. Directories are made with mode 0777
// less the process umask, like mkdir(1). Returns 0, or -1 (errno set).
KOVAPLATFORM_EXPORT int KOVAEAMKDir(int flags, const char* eadir);

// ---- File-system types ----------------------------------------------------

// Codes answered by KOVAGetFSType.
enum {
  KOVA_FS_OTHER = 0,     // any local file system not listed below
  KOVA_FS_EXT = 1,       // ext2, ext3, ext4
  KOVA_FS_BTRFS = 2,
  KOVA_FS_XFS = 3,
  KOVA_FS_TMPFS = 4,     // tmpfs, ramfs
  KOVA_FS_NFS = 5,       // remote
  KOVA_FS_SMB = 6,       // remote: SMB, SMB2, CIFS
  KOVA_FS_NETFUSE = 7,   // remote: FUSE file systems that are not block-backed (sshfs, ...)
  KOVA_FS_FUSEBLK = 8,   // local FUSE on a block device (ntfs-3g, ...)
  KOVA_FS_SQUASHFS = 9,  // image
  KOVA_FS_ISO9660 = 10,  // image
  KOVA_FS_UDF = 11,      // image
  // FAT family (vfat, msdos, exfat): cannot hold EA directories, because
  // thumbnail names such as "KOVAPHOTO:THUMB_S.jpg" are not valid there.
  KOVA_FS_FAT = 12,
  KOVA_FS_OVERLAY = 13,
  KOVA_FS_REMOTE_OTHER = 14  // remote: ceph, 9p, AFS, ...
};

// File-system type code of the file system holding `path`, or -1 with errno
// set when it cannot be queried. `flags` must be 0.
KOVAPLATFORM_EXPORT int KOVAGetFSType(const char* path, int flags);
// Nonzero for a network file system code.
KOVAPLATFORM_EXPORT int KOVAFSIsRemoteFS(int type);
// Nonzero for a file system mounted from an image file.
KOVAPLATFORM_EXPORT int KOVAFSIsImageFS(int type);

// ---- File copy --------------------------------------------------------------

// Options of KOVAFileCopy: 60 bytes, all zero for a plain copy.
typedef struct KOVA_FILE_COPY_OPT {
  int reserved0;
  int move;  // nonzero: move (rename, or copy then remove the source)
  int reserved[13];
} KOVA_FILE_COPY_OPT;

// Copies (or moves) regular file `src` to `dst`, replacing `dst`. The copy is
// written under a temporary name beside `dst` and renamed into place, so
// readers never see a partial file. Returns 0, or -1 (errno set).
KOVAPLATFORM_EXPORT int KOVAFileCopy(const char* src, const char* dst,
                                     const KOVA_FILE_COPY_OPT* opt);

// ---- Processes ----------------------------------------------------------------
//
// Children are started with fork and execv, never through a shell. In every
// child: standard input is /dev/null; standard output goes to our standard
// error (it must never reach our standard output, which is an HTTP response
// in a CGI process), except for the pipe of KLIBCPopenv; no other descriptor
// of ours is inherited; and the child is bounded by KOVA_CHILD_CPU_SECONDS
// of CPU time and KOVA_CHILD_ADDRESS_SPACE bytes of address space, and
// ImageMagick's resource limits are set through its environment variables
// (MAGICK_AREA_LIMIT 128MP, MAGICK_MEMORY_LIMIT 256MiB, MAGICK_MAP_LIMIT
// 512MiB, MAGICK_DISK_LIMIT 1GiB, MAGICK_WIDTH_LIMIT and MAGICK_HEIGHT_LIMIT
// 16KP, MAGICK_TIME_LIMIT 60 s) unless the caller's environment sets them.

#define KOVA_CHILD_CPU_SECONDS 120
#define KOVA_CHILD_ADDRESS_SPACE (4ULL << 30)
// A waited-for child still running after this many seconds is killed
// (KOVAPLATFORM_CHILD_WALL_SECONDS in the environment overrides it).
#define KOVA_CHILD_WALL_SECONDS 300

// The wall-time limit in force: a positive KOVAPLATFORM_CHILD_WALL_SECONDS
// (tests shorten it), else KOVA_CHILD_WALL_SECONDS. Inline, so that programs
// linked with the appliance's own library read it the same way.
static inline int KOVAChildWallSeconds(void) {
  const char* v = getenv("KOVAPLATFORM_CHILD_WALL_SECONDS");
  const int n = v != NULL ? atoi(v) : 0;
  return n > 0 ? n : KOVA_CHILD_WALL_SECONDS;
}

// Runs `path` with the null-terminated argument vector `argv` (argv[0] is
// the name the program sees). With `wait` 1, waits for the child and returns
// 0 only when it exited normally with status 0, 1 when it exited otherwise
// or was killed by a signal, and -1 (errno set) when it could not be
// started. With `wait` 0, returns 0 once the program started; it is then
// detached and never left as a zombie.
KOVAPLATFORM_EXPORT int KLIBCExecv(const char* path, const char* const argv[], int wait);

// Like KLIBCExecv with wait 1; the arguments after `flags` are argv[0],
// argv[1], ... ended by a null pointer. `flags` must be 0.
KOVAPLATFORM_EXPORT int KLIBCExecl(const char* path, int flags, ...);

// Starts `path` with `argv` and returns a stream reading its standard output
// ("r" is the only `mode`), or null (errno set). Close it with KLIBCPclose.
KOVAPLATFORM_EXPORT FILE* KLIBCPopenv(const char* path, const char* mode,
                                      const char* const argv[]);

// Closes a stream of KLIBCPopenv and reaps its child. Returns 0 when the
// child exited with status 0, 1 when not, -1 for a stream it did not open.
KOVAPLATFORM_EXPORT int KLIBCPclose(FILE* stream);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // KOVAPLATFORM_KOVAPLATFORM_H_
