// A bounded, unprivileged child for untrusted parsing.
//
// Run() forks a keeper, which enters new namespaces and forks the body's
// process: the first of a new PID namespace, so that whatever the body or
// its tools leave behind dies with it. The body's process builds its file
// view, gives up root and installs the filter (EnterIsolation) before the
// body runs. What cannot be had on this kernel is left out in a fixed order
// (see docs/RELIABILITY.md); giving up root never is: a root caller whose
// child cannot become the sandbox account gets kRefused, not a parse.
#include "sandbox/sandbox.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "util/safe_fs.h"

namespace kovathumb {
namespace sandbox {

namespace {

// The account the body runs as: the package's own, else nobody.
struct Account {
  uid_t uid = 65534;
  gid_t gid = 65534;
};

const Account& SandboxAccount() {
  static const Account account = [] {
    Account a;
    for (const char* name : {"kovathumb-sandbox", "nobody"}) {
      struct passwd pw, *found = nullptr;
      char buf[1024];
      if (getpwnam_r(name, &pw, buf, sizeof buf, &found) == 0 && found != nullptr && found->pw_uid != 0) {
        a.uid = found->pw_uid;
        a.gid = found->pw_gid;
        break;
      }
    }
    return a;
  }();
  return account;
}

void ApplyLimits(const Limits& l) {
  struct rlimit cpu = {l.cpuSeconds, l.cpuSeconds + 1};
  setrlimit(RLIMIT_CPU, &cpu);
#ifndef KOVATHUMB_SANITIZED
  struct rlimit as = {l.addressSpace, l.addressSpace};
  setrlimit(RLIMIT_AS, &as);
#endif
  struct rlimit core = {0, 0};
  setrlimit(RLIMIT_CORE, &core);
  signal(SIGALRM, SIG_DFL);
  alarm(l.wallSeconds);
}

bool Listed(const std::vector<int>& v, int fd) { return std::find(v.begin(), v.end(), fd) != v.end(); }

// Closes every descriptor but those the child still needs.
void CloseOthers(const Spec& spec, int reply, const std::vector<std::pair<int, int>>& copies) {
  std::vector<int> kept = spec.keep;
  kept.insert(kept.end(), spec.visible.begin(), spec.visible.end());
  kept.insert(kept.end(), spec.writable.begin(), spec.writable.end());
  for (const Spec::Shown& s : spec.shown) kept.push_back(s.fd);
  for (const auto& c : copies) kept.push_back(c.second);
  kept.push_back(reply);
  std::sort(kept.begin(), kept.end());
  // The gaps between them, a range at a time (close_range, Linux 5.9); one
  // by one where that call is missing.
  unsigned from = 3;
  kept.push_back(-1);  // the end: up to the largest number
  for (int fd : kept) {
    if (fd >= 0 && static_cast<unsigned>(fd) < from) continue;
    const unsigned to = fd < 0 ? ~0U : static_cast<unsigned>(fd) - 1;
    if (from <= to && syscall(SYS_close_range, from, to, 0) != 0) {
      long max = sysconf(_SC_OPEN_MAX);
      if (max < 0 || max > 65536) max = 65536;
      for (unsigned n = from; n <= to && n < static_cast<unsigned>(max); ++n) close(static_cast<int>(n));
    }
    if (fd < 0) break;
    from = static_cast<unsigned>(fd) + 1;
  }
}

// ---- The file view ------------------------------------------------------------

constexpr char kViewRoot[] = "/tmp";  // any directory: the view is mounted over it
const char* const kSystemDirs[] = {"/usr", "/lib", "/lib64", "/lib32", "/libx32", "/bin", "/sbin"};
// Configuration the tools and libraries read.
const char* const kSystemFiles[] = {"/etc/ld.so.cache", "/etc/alternatives", "/etc/ImageMagick-6", "/etc/ImageMagick-7",
                                    "/etc/fonts", "/etc/localtime", "/etc/passwd", "/etc/group",
#ifdef KOVATHUMB_SANDBOX_BUILD_PATHS
                                    KOVATHUMB_SANDBOX_BUILD_PATHS,
#endif
                                    "/dev/null", "/dev/zero", "/dev/urandom", "/dev/random"};

constexpr unsigned long kSafeFlags = MS_NOSUID | MS_NODEV;

std::string In(const std::string& path) { return kViewRoot + path; }

// Makes the parents of `path` in the view.
void MakeParents(const std::string& path) {
  for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    mkdir(In(path.substr(0, at)).c_str(), 0755);
  }
}

// Makes `path` of the view a mount point for `from` (a file or directory).
bool MountPoint(const std::string& path, const char* from) {
  struct stat st;
  if (stat(from, &st) != 0) return false;
  MakeParents(path);
  if (S_ISDIR(st.st_mode)) return mkdir(In(path).c_str(), 0755) == 0 || errno == EEXIST;
  const int fd = open(In(path).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  close(fd);
  return true;
}

// Binds `from` at `path` in the view, read-only unless `writable`.
bool Bind(const char* from, const std::string& path, bool writable) {
  if (!MountPoint(path, from)) return false;
  const std::string to = In(path);
  if (mount(from, to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) return false;
  // Devices are what /dev is shown for.
  const unsigned long dev = path.compare(0, 5, "/dev/") == 0 ? 0 : MS_NODEV;
  const unsigned long flags = MS_BIND | MS_REMOUNT | MS_NOSUID | dev | (writable ? MS_NOEXEC : MS_RDONLY);
  return mount(nullptr, to.c_str(), nullptr, flags, nullptr) == 0;
}

// The system directory `dir` in the view: the same link where it is one
// (merged /usr), else a read-only bind.
bool System(const char* dir) {
  struct stat st;
  if (lstat(dir, &st) != 0) return true;
  if (S_ISLNK(st.st_mode)) {
    char target[256];
    const ssize_t n = readlink(dir, target, sizeof target - 1);
    if (n <= 0) return false;
    target[n] = '\0';
    return symlink(target, In(dir).c_str()) == 0;
  }
  return Bind(dir, dir, false);
}

// A copy of the mount of each descriptor's file, taken in the caller's
// mount namespace: a new one cannot bind what the old one holds.
struct Tree {
  int fd;    // the caller's number, which names it
  int tree;
  bool writable;
  std::string path;  // in the view
};

std::vector<Tree> CloneTrees(const Spec& spec, pid_t caller, const std::vector<std::pair<int, int>>& copies) {
  std::vector<Tree> trees;
  const auto clone = [&](int fd, const std::string& path, bool writable) {
    int content = fd;
    for (const auto& c : copies) content = c.first == fd ? c.second : content;
    const int tree = static_cast<int>(syscall(SYS_open_tree, content, "", 1 /* OPEN_TREE_CLONE */ | O_CLOEXEC |
                                                                             AT_EMPTY_PATH));
    trees.push_back({fd, tree, writable, path});
  };
  const std::string pinned = "/proc/" + std::to_string(caller) + "/fd/";
  for (int fd : spec.visible) clone(fd, pinned + std::to_string(fd), false);
  for (int fd : spec.writable) clone(fd, pinned + std::to_string(fd), true);
  for (const Spec::Shown& s : spec.shown) clone(s.fd, s.path, s.writable);
  // Directories before what is shown inside them.
  std::stable_sort(trees.begin(), trees.end(),
                   [](const Tree& a, const Tree& b) { return a.path.size() < b.path.size(); });
  return trees;
}

// Attaches `t` at its path in the view, read-only unless writable.
bool Attach(const Tree& t) {
  const std::string self = "/proc/self/fd/" + std::to_string(t.fd);
  const std::string& path = t.path;
  if (t.tree < 0 || path.empty() || path[0] != '/' || path.find("/..") != std::string::npos ||
      !MountPoint(path, self.c_str())) {
    return false;
  }
  const std::string to = In(path);
  if (syscall(SYS_move_mount, t.tree, "", AT_FDCWD, to.c_str(), 4 /* MOVE_MOUNT_F_EMPTY_PATH */) != 0) return false;
  const unsigned long flags = MS_BIND | MS_REMOUNT | kSafeFlags | (t.writable ? MS_NOEXEC : MS_RDONLY);
  return mount(nullptr, to.c_str(), nullptr, flags, nullptr) == 0;
}

// Builds the view in a fresh tmpfs and makes it our root. Pinned paths of
// the caller stay valid names: "/proc/<pid>/fd/N" is a bind of that file.
bool EnterView(const Spec& spec, const std::vector<Tree>& trees) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  if (spec.opensNothing) {  // nothing in it
    if (mount("none", kViewRoot, "tmpfs", MS_RDONLY | kSafeFlags | MS_NOEXEC, "size=4k,nr_inodes=1") != 0) return false;
    return chdir(kViewRoot) == 0 && syscall(SYS_pivot_root, ".", ".") == 0 && umount2(".", MNT_DETACH) == 0 &&
           chdir("/") == 0;
  }
  if (mount("none", kViewRoot, "tmpfs", kSafeFlags | MS_NOEXEC, "mode=0755,size=64k,nr_inodes=4096") != 0) {
    return false;
  }
  for (const char* dir : kSystemDirs) {
    if (!System(dir)) return false;
  }
  for (const char* file : kSystemFiles) {
    if (access(file, F_OK) == 0 && !Bind(file, file, false)) return false;
  }
  // Scratch space for tools that spill to temporary files; gone with the
  // view. Before what is shown: a caller's files may have names in /tmp.
  if (mkdir(In("/tmp").c_str(), 01777) != 0 ||
      mount("none", In("/tmp").c_str(), "tmpfs", kSafeFlags | MS_NOEXEC, "mode=01777,size=256m") != 0) {
    return false;
  }
  for (const Tree& t : trees) {
    if (!Attach(t)) return false;
    close(t.tree);
  }
  // Descriptors of directories outside the view would lead back out.
  for (const Tree& t : trees) {
    if (!Listed(spec.keep, t.fd)) close(t.fd);
  }
  if (!spec.cwd.empty() && spec.cwd[0] == '/') {
    MakeParents(spec.cwd + "/");
  }
  if (mount(nullptr, kViewRoot, nullptr, MS_REMOUNT | MS_RDONLY | kSafeFlags | MS_NOEXEC, nullptr) != 0) {
    return false;
  }
  if (chdir(kViewRoot) != 0 || syscall(SYS_pivot_root, ".", ".") != 0) return false;
  // The old root is stacked beneath the new one: let it go.
  if (umount2(".", MNT_DETACH) != 0) return false;
  return chdir(spec.cwd.empty() || chdir(spec.cwd.c_str()) != 0 ? "/" : ".") == 0;
}

// ---- Privilege -----------------------------------------------------------------

bool DropCapabilityBounds() {
  for (int cap = 0; cap <= 63; ++cap) {
    if (prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0) return errno == EINVAL && cap > 0;  // past the last
  }
  return true;
}

bool NoCapabilitiesLeft() {
  struct __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
  struct __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &head, data) != 0) return false;
  for (const auto& d : data) {
    if (d.effective != 0 || d.permitted != 0 || d.inheritable != 0) return false;
  }
  return prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 || errno == EINVAL;
}

bool BecomeSandboxAccount(const Account& a) {
  if (setgroups(0, nullptr) != 0 || setresgid(a.gid, a.gid, a.gid) != 0 || setresuid(a.uid, a.uid, a.uid) != 0) {
    return false;
  }
  uid_t r, e, s;
  return getresuid(&r, &e, &s) == 0 && r != 0 && e != 0 && s != 0 && setuid(0) != 0;
}

// ---- The filter ----------------------------------------------------------------

// Calls no decoder or tool needs, refused with EPERM. A deny-list: see
// docs/RELIABILITY.md for why not an allow-list.
const int kRefusedCalls[] = {
    SCMP_SYS(socket), SCMP_SYS(socketpair), SCMP_SYS(connect), SCMP_SYS(bind), SCMP_SYS(listen),
    SCMP_SYS(accept), SCMP_SYS(accept4), SCMP_SYS(sendto), SCMP_SYS(sendmsg), SCMP_SYS(sendmmsg),
    SCMP_SYS(ptrace), SCMP_SYS(process_vm_readv), SCMP_SYS(process_vm_writev), SCMP_SYS(kcmp),
    SCMP_SYS(pidfd_getfd), SCMP_SYS(mount), SCMP_SYS(umount2), SCMP_SYS(pivot_root), SCMP_SYS(chroot),
    SCMP_SYS(move_mount), SCMP_SYS(open_tree), SCMP_SYS(fsopen), SCMP_SYS(fsconfig), SCMP_SYS(fsmount),
    SCMP_SYS(fspick), SCMP_SYS(mount_setattr), SCMP_SYS(keyctl), SCMP_SYS(add_key), SCMP_SYS(request_key),
    SCMP_SYS(unshare), SCMP_SYS(setns), SCMP_SYS(setuid), SCMP_SYS(setgid), SCMP_SYS(setreuid),
    SCMP_SYS(setregid), SCMP_SYS(setresuid), SCMP_SYS(setresgid), SCMP_SYS(setfsuid), SCMP_SYS(setfsgid),
    SCMP_SYS(setgroups), SCMP_SYS(capset), SCMP_SYS(bpf), SCMP_SYS(perf_event_open), SCMP_SYS(kexec_load),
    SCMP_SYS(kexec_file_load), SCMP_SYS(init_module), SCMP_SYS(finit_module), SCMP_SYS(delete_module),
    SCMP_SYS(userfaultfd), SCMP_SYS(io_uring_setup), SCMP_SYS(io_uring_enter), SCMP_SYS(io_uring_register),
    SCMP_SYS(acct), SCMP_SYS(swapon), SCMP_SYS(swapoff), SCMP_SYS(reboot), SCMP_SYS(syslog),
    SCMP_SYS(iopl), SCMP_SYS(ioperm), SCMP_SYS(quotactl), SCMP_SYS(name_to_handle_at),
    SCMP_SYS(open_by_handle_at), SCMP_SYS(lookup_dcookie), SCMP_SYS(vhangup), SCMP_SYS(settimeofday),
    SCMP_SYS(clock_settime), SCMP_SYS(clock_adjtime), SCMP_SYS(adjtimex), SCMP_SYS(sethostname),
    SCMP_SYS(setdomainname), SCMP_SYS(mknod), SCMP_SYS(mknodat), SCMP_SYS(fanotify_init),
    SCMP_SYS(uselib), SCMP_SYS(personality), SCMP_SYS(nfsservctl), SCMP_SYS(link), SCMP_SYS(linkat),
};

constexpr uint64_t kNamespaceFlags = CLONE_NEWNS | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC |
                                     CLONE_NEWUTS | CLONE_NEWCGROUP | 0x80 /* CLONE_NEWTIME */;

// The filter as libseccomp builds it; `lean`: a body that opens nothing,
// for which starting a process is refused too.
scmp_filter_ctx BuildFilter(bool lean) {
  scmp_filter_ctx ctx = seccomp_init(SCMP_ACT_ALLOW);
  if (ctx == nullptr) return nullptr;
  const uint32_t refuse = SCMP_ACT_ERRNO(EPERM);
  // no_new_privs is set by us, before: libseccomp's own setting of it here
  // would hide that ours went missing.
  bool ok = seccomp_attr_set(ctx, SCMP_FLTATR_CTL_NNP, 0) == 0;
  for (int call : kRefusedCalls) {
    if (call >= 0) ok = ok && seccomp_rule_add(ctx, refuse, call, 0) == 0;
  }
  // New namespaces through clone; clone3 hides its flags in memory, so it
  // is "not there" and the C library falls back to clone.
  for (uint64_t bit = 1; bit != 0; bit <<= 1) {
    if ((kNamespaceFlags & bit) != 0) {
      ok = ok && seccomp_rule_add(ctx, refuse, SCMP_SYS(clone), 1, SCMP_A0(SCMP_CMP_MASKED_EQ, bit, bit)) == 0;
    }
  }
  ok = ok && seccomp_rule_add(ctx, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0) == 0;
  if (lean) {
    for (int call : {SCMP_SYS(execve), SCMP_SYS(execveat), SCMP_SYS(fork), SCMP_SYS(vfork)}) {
      ok = ok && seccomp_rule_add(ctx, refuse, call, 0) == 0;
    }
    ok = ok && seccomp_rule_add(ctx, refuse, SCMP_SYS(clone), 1,
                                SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0)) == 0;
  }
  // Typing into the terminal of whoever started us.
  ok = ok && seccomp_rule_add(ctx, refuse, SCMP_SYS(ioctl), 1, SCMP_A1(SCMP_CMP_MASKED_EQ, 0xffffffffu, TIOCSTI)) == 0;
  if (!ok) {
    seccomp_release(ctx);
    return nullptr;
  }
  return ctx;
}

// The filter as the kernel takes it; empty where it could not be built.
std::vector<sock_filter> CompileFilter(bool lean) {
  std::vector<sock_filter> code;
  scmp_filter_ctx ctx = BuildFilter(lean);
  if (ctx == nullptr) return code;
  const int fd = memfd_create("filter", MFD_CLOEXEC);
  struct stat st;
  if (fd >= 0 && seccomp_export_bpf(ctx, fd) == 0 && fstat(fd, &st) == 0 && st.st_size > 0 &&
      st.st_size % static_cast<off_t>(sizeof(sock_filter)) == 0 &&
      static_cast<size_t>(st.st_size) <= BPF_MAXINSNS * sizeof(sock_filter)) {
    code.resize(static_cast<size_t>(st.st_size) / sizeof(sock_filter));
    if (pread(fd, code.data(), static_cast<size_t>(st.st_size), 0) != st.st_size) code.clear();
  }
  if (fd >= 0) close(fd);
  seccomp_release(ctx);
  return code;
}

// Both filters, compiled once per process by the caller before its first
// fork: a child only installs one (libseccomp's generation cost every child
// a fifth of a millisecond, and its allocations a copy of the pages they
// touch).
const std::vector<sock_filter>& CompiledFilter(bool lean) {
  static const std::vector<sock_filter> full = CompileFilter(false), leanCode = CompileFilter(true);
  return lean ? leanCode : full;
}

bool InstallFilter(bool lean) {
  const std::vector<sock_filter>& code = CompiledFilter(lean);
  if (code.empty()) return false;
  struct sock_fprog program = {static_cast<unsigned short>(code.size()), const_cast<sock_filter*>(code.data())};
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

// Whether this kernel has seccomp filters; a lean child needs one.
bool FilterAvailable() {
  static const bool available = prctl(PR_GET_SECCOMP, 0, 0, 0, 0) >= 0;
  return available;
}

// What the body's process reports before the body runs.
constexpr unsigned kRefusedBit = 1u << 31;

// Enters everything this kernel offers; returns the Mechanism bits, with
// kRefusedBit when root could not be given up.
unsigned EnterIsolation(const Spec& spec, const std::vector<Tree>& trees, bool namespaces, bool lean,
                        const Account& account) {
  unsigned applied = 0;
  if (geteuid() == 0) {
    if (namespaces) {
      applied |= kNamespaces;
      // Namespaces without the view they are for: something is wrong here.
      if (!EnterView(spec, trees)) return applied | kRefusedBit;
      applied |= kFileView;
    }
    if (!DropCapabilityBounds() || !BecomeSandboxAccount(account)) return applied | kRefusedBit;
  }
  applied |= kUnprivileged;
  if (NoCapabilitiesLeft()) applied |= kNoCapabilities;
  // Not dumpable: no other process of the account may read or trace it.
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) applied |= kNoNewPrivs;
  if ((applied & kNoNewPrivs) != 0 && InstallFilter(lean)) applied |= kSyscallFilter;
  // Without the filter a lean child would have neither it nor what it
  // stands in for (a network namespace, a keeper).
  if (lean && (applied & kSyscallFilter) == 0) return applied | kRefusedBit;
  if (lean) applied |= kNoChildren;
  ApplyLimits(spec.limits);
  return applied;
}

// The keeper's namespaces; false when there are none to have. A lean
// child has no keeper: it keeps the network namespace's place with its filter.
bool EnterNamespaces(bool lean, bool* pid) {
  *pid = false;
  if (geteuid() != 0) return false;
  if (lean) return unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUTS) == 0;
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWPID) == 0) {
    *pid = true;
    return true;
  }
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0) return false;
  *pid = unshare(CLONE_NEWPID) == 0;
  return true;
}

// The child: keeper, then the body's process.
[[noreturn]] void Child(const Spec& spec, const std::function<int(int)>& body, int reply, pid_t caller,
                        const Account& account, const std::vector<std::pair<int, int>>& copies, bool lean) {
  CloseOthers(spec, reply, copies);
  const std::vector<Tree> trees =
      geteuid() == 0 && !spec.opensNothing ? CloneTrees(spec, caller, copies) : std::vector<Tree>();
  bool pidNamespace = false;
  const bool namespaces = EnterNamespaces(lean, &pidNamespace);
  int keeperLife = -1;
  if (pidNamespace) {
    // The body's process is the first of the new namespace; this one only
    // waits for it and passes on how it ended.
    // Open in the keeper while it lives: how the body's process, to which
    // the keeper's pid is 0, tells whether it is already gone.
    int life[2];
    if (pipe2(life, O_CLOEXEC) != 0) _exit(126);
    const pid_t inner = fork();
    if (inner < 0) _exit(126);
    if (inner > 0) {
      close(life[0]);
      close(reply);
      for (const std::vector<int>* list : {&spec.keep, &spec.visible, &spec.writable}) {
        for (int fd : *list) close(fd);
      }
      for (const Tree& t : trees) close(t.tree);
      for (const auto& c : copies) close(c.second);
      for (const Spec::Shown& s : spec.shown) close(s.fd);
      int ws = 0;
      while (waitpid(inner, &ws, 0) < 0 && errno == EINTR) {
      }
      if (WIFSIGNALED(ws)) {
        struct rlimit core = {0, 0};
        setrlimit(RLIMIT_CORE, &core);
        signal(WTERMSIG(ws), SIG_DFL);
        kill(getpid(), WTERMSIG(ws));
      }
      _exit(WIFEXITED(ws) ? WEXITSTATUS(ws) : 126);
    }
    close(life[1]);
    keeperLife = life[0];
  }
  unsigned applied = EnterIsolation(spec, trees, namespaces, lean, account);
  if (keeperLife >= 0) {
    // Set after the change of account, which clears it: the namespace's
    // processes die with the keeper, which Run() kills when time is up.
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    struct pollfd p = {keeperLife, POLLIN, 0};
    if (poll(&p, 1, 0) != 0) _exit(126);  // the keeper already died
    close(keeperLife);
  } else if (lean) {
    // No keeper: it dies with its caller, and not later than its alarm.
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (getppid() != caller) _exit(126);
  }
  for (const auto& c : copies) close(c.second);
  if (pidNamespace) applied |= kPidNamespace;
  if (!safe_fs::WriteAll(reply, &applied, sizeof applied) || (applied & kRefusedBit) != 0) _exit(126);
  int rc = 126;
  try {
    rc = body(reply);
  } catch (...) {
  }
  _exit(rc & 0xff);
}

int64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

// Lends the writable directories to the sandbox account for a run.
struct Lent {
  int fd;
  struct stat before;
};

std::vector<Lent> Lend(const std::vector<int>& dirs, const Account& a) {
  std::vector<Lent> lent;
  if (geteuid() != 0) return lent;
  for (int fd : dirs) {
    Lent l{fd, {}};
    if (fstat(fd, &l.before) != 0 || !S_ISDIR(l.before.st_mode) || fchown(fd, a.uid, a.gid) != 0) continue;
    lent.push_back(l);
    // What we made there for the tool to fill or read is the account's too.
    const int dup = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* d = dup >= 0 ? fdopendir(dup) : nullptr;
    if (d == nullptr && dup >= 0) close(dup);
    for (struct dirent* e; d != nullptr && (e = readdir(d)) != nullptr;) {
      struct stat st;
      if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) {
        fchownat(fd, e->d_name, a.uid, a.gid, AT_SYMLINK_NOFOLLOW);
      }
    }
    if (d != nullptr) closedir(d);
  }
  return lent;
}

// Takes them back once every process of the run is gone: nothing but
// regular files with one link stays, and the owner is theirs again.
void TakeBack(const std::vector<Lent>& lent) {
  for (const Lent& l : lent) {
    const int dup = openat(l.fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* d = dup >= 0 ? fdopendir(dup) : nullptr;
    if (d == nullptr && dup >= 0) close(dup);
    for (struct dirent* e; d != nullptr && (e = readdir(d)) != nullptr;) {
      if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
      struct stat st;
      if (fstatat(l.fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (!S_ISREG(st.st_mode) || st.st_nlink != 1) {
        if (unlinkat(l.fd, e->d_name, S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0) != 0 && S_ISDIR(st.st_mode)) {
          // A directory with things in it: out of the way, under a name no one uses.
          renameat(l.fd, e->d_name, l.fd, (std::string(".gone.") + e->d_name).c_str());
        }
      } else if ((st.st_mode & 07000) != 0) {
        fchmodat(l.fd, e->d_name, st.st_mode & 0777, 0);
      }
    }
    if (d != nullptr) closedir(d);
    if (fchown(l.fd, l.before.st_uid, l.before.st_gid) != 0) fchmod(l.fd, 0);
    fchmod(l.fd, l.before.st_mode & 07777);
  }
}

// Copies of the shown files the account may not read (a user's private
// photo): the tools open them by name, as the account.
class Copies : public std::vector<std::pair<int, int>> {
 public:
  Copies(const Spec& spec, const Account& a) {
    if (geteuid() != 0) return;
    std::vector<int> files = spec.visible;
    for (const Spec::Shown& s : spec.shown) {
      if (!s.writable) files.push_back(s.fd);
    }
    for (int fd : files) {
      struct stat st;
      if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || Readable(st, a)) continue;
      // Named while the run lasts: an unlinked file cannot be mounted.
      char dir[] = "/var/tmp/kovathumb-copy.XXXXXX";
      if (mkdtemp(dir) == nullptr) continue;
      dirs_.push_back(dir);
      const int copy = open((dirs_.back() + "/f").c_str(), O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0400);
      bool ok = copy >= 0;
      off_t in = 0;
      for (ssize_t n = 1; ok && n > 0;) {
        n = copy_file_range(fd, &in, copy, nullptr, size_t{1} << 30, 0);
        ok = n >= 0;
      }
      if (ok && fchown(copy, a.uid, a.gid) == 0) {
        emplace_back(fd, copy);
      } else if (copy >= 0) {
        close(copy);
      }
    }
  }
  ~Copies() {
    for (const auto& c : *this) close(c.second);
    for (const std::string& d : dirs_) {
      unlink((d + "/f").c_str());
      rmdir(d.c_str());
    }
  }
  Copies(const Copies&) = delete;
  Copies& operator=(const Copies&) = delete;

 private:
  std::vector<std::string> dirs_;

  static bool Readable(const struct stat& st, const Account& a) {
    return (st.st_mode & S_IROTH) != 0 || (st.st_gid == a.gid && (st.st_mode & S_IRGRP) != 0) ||
           (st.st_uid == a.uid && (st.st_mode & S_IRUSR) != 0);
  }
};

#ifdef KOVATHUMB_SANDBOX_IN_PROCESS
// Fuzzing builds: the body runs here, so a crash is the fuzzer's to see.
Outcome RunHere(const Spec& spec, const std::function<int(int)>& body, std::string* reply, size_t maxReply,
                int* status) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return kNoChild;
  std::string got;
  std::thread reader([&] {
    char buf[65536];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) {
      if (got.size() + static_cast<size_t>(n) <= maxReply) got.append(buf, static_cast<size_t>(n));
    }
  });
  const int rc = body(fds[1]);
  close(fds[1]);
  reader.join();
  close(fds[0]);
  if (reply != nullptr) *reply = got;
  if (status != nullptr) *status = rc & 0xff;
  if (spec.applied != nullptr) *spec.applied = 0;
  return kExited;
}
#endif

}  // namespace

Outcome Run(const Spec& spec, const std::function<int(int)>& body, std::string* reply, size_t maxReply,
            int* status) {
  if (status != nullptr) *status = -1;
  if (spec.applied != nullptr) *spec.applied = 0;
#ifdef KOVATHUMB_SANDBOX_IN_PROCESS
  return RunHere(spec, body, reply, maxReply, status);
#endif
  const Account& account = SandboxAccount();
  const pid_t caller = getpid();
  const bool lean = spec.opensNothing && FilterAvailable();
  CompiledFilter(false);  // both, here rather than in the child
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return kNoChild;
  std::vector<int> lend = spec.writable;
  for (const Spec::Shown& s : spec.shown) {
    if (s.writable) lend.push_back(s.fd);
  }
  const std::vector<Lent> lent = Lend(lend, account);
  const Copies copies(spec, account);
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    TakeBack(lent);
    return kNoChild;
  }
  if (pid == 0) {
    close(fds[0]);
    Child(spec, body, fds[1], caller, account, copies, lean);
  }
  close(fds[1]);
  const int64_t deadline = NowMs() + int64_t{spec.limits.wallSeconds} * 1000 + 1000;
  bool timedOut = false;
  std::string got;
  char buf[65536];
  for (;;) {
    const int64_t left = deadline - NowMs();
    if (left <= 0) {
      timedOut = true;
      break;
    }
    struct pollfd p = {fds[0], POLLIN, 0};
    const int r = poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 1 << 30)));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    // Answers past the bound are not answers.
    if (got.size() + static_cast<size_t>(n) > maxReply + sizeof(unsigned)) break;
    got.append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  int ws = 0;
  if (timedOut) kill(pid, SIGKILL);
  pid_t r;
  // A child that closed its end but lingers is bounded by the same deadline.
  // Its end is waited for on its pidfd (Linux 5.3), else in 1 ms ticks.
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  while ((r = waitpid(pid, &ws, WNOHANG)) == 0) {
    const int64_t left = deadline - NowMs();
    if (left <= 0) {
      kill(pid, SIGKILL);
      timedOut = true;
      while (waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
      }
      break;
    }
    struct pollfd p = {pidfd, POLLIN, 0};
    if (pidfd < 0 || poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 1 << 30))) < 0) {
      struct timespec tick = {0, 1000 * 1000};
      nanosleep(&tick, nullptr);
    }
  }
  if (pidfd >= 0) close(pidfd);
  // The keeper is gone, so its namespace's processes are too: none can
  // still write into what was lent.
  TakeBack(lent);
  unsigned applied = 0;
  const bool entered = got.size() >= sizeof applied;
  if (entered) memcpy(&applied, got.data(), sizeof applied);
  if (spec.applied != nullptr) *spec.applied = applied & ~kRefusedBit;
  if (reply != nullptr) *reply = entered ? got.substr(sizeof applied) : std::string();
  if (entered && (applied & kRefusedBit) != 0) return kRefused;
  if (timedOut) return kTimedOut;
  if (WIFSIGNALED(ws)) return kKilled;
  if (!entered) return kRefused;
  if (status != nullptr) *status = WEXITSTATUS(ws);
  return kExited;
}

bool RunForRecord(const Spec& spec, const std::function<bool(void*)>& fill, void* out, size_t size) {
  std::string reply;
  int status = -1;
  const Outcome o = Run(spec, [&](int fd) {
    std::vector<unsigned char> record(size);  // zeroed, and aligned as new aligns
    return fill(record.data()) && safe_fs::WriteAll(fd, record.data(), size) ? 0 : 1;
  }, &reply, size, &status);
  if (o != kExited || status != 0 || reply.size() != size) return false;
  memcpy(out, reply.data(), size);
  return true;
}

}  // namespace sandbox
}  // namespace kovathumb
