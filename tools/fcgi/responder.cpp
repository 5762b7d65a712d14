#include "fcgi/responder.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/sendfile.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "front_end/send.h"
#include "front_end/watchdog.h"
#include "kovathumb/thumb.h"

namespace kovathumb {
namespace fcgi {
namespace {

// The name of the copy of the file `st` describes.
std::string CopyName(const struct stat& st) {
  char name[128];
  snprintf(name, sizeof name, "%lx-%lx-%lx-%lx.%lx-%lx.%lx", static_cast<unsigned long>(st.st_dev),
           static_cast<unsigned long>(st.st_ino), static_cast<unsigned long>(st.st_size),
           static_cast<unsigned long>(st.st_mtim.tv_sec), static_cast<unsigned long>(st.st_mtim.tv_nsec),
           static_cast<unsigned long>(st.st_ctim.tv_sec), static_cast<unsigned long>(st.st_ctim.tv_nsec));
  return name;
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// A file of ours, without a name until it is complete; where the file
// system cannot, a name no other process, before or after a restart, makes.
int Unnamed(int dir, std::string* temp) {
  const int fd = openat(dir, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR)) return fd;
  unsigned long long random[2];
  if (getrandom(random, sizeof random, 0) != sizeof random) return -1;
  char name[64];
  snprintf(name, sizeof name, ".%016llx%016llx", random[0], random[1]);
  *temp = name;
  return openat(dir, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

struct Copied {
  std::string name;
  long long size;
  time_t mtime;
};

}  // namespace

bool Handover::Open(const std::string& dir, std::string* error) {
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) {
    *error = dir + ": " + strerror(errno);
  } else if (st.st_uid != geteuid() || (st.st_mode & 022) != 0) {
    *error = dir + ": must be ours and writable by nobody else";
  } else {
    dir_ = dir;
    fd_ = fd;
    return true;
  }
  if (fd >= 0) close(fd);
  return false;
}

long long Handover::Bound() { return 4 * MaxThumbBytes(); }

std::string Handover::Copy(const ThumbAnswer& answer) {
  const struct stat& before = answer.st;  // taken before anything was read
  if (!answer.stored || before.st_size > MaxThumbBytes()) return std::string();
  const std::string name = CopyName(before);
  // A whole copy under the name, ours or another worker's, is handed over
  // again, and kept from the sweep for another while.
  const auto whole = [&] {
    const int fd = openat(fd_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    const bool is = fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == before.st_size;
    if (is && time(nullptr) - st.st_mtime > kKeptSeconds / 4) futimens(fd, nullptr);
    if (fd >= 0) close(fd);
    return is;
  };
  if (whole()) return dir_ + "/" + name;
  MakeRoom(before.st_size);
  std::string temp;
  const int to = Unnamed(fd_, &temp);
  if (to < 0) return std::string();
  off_t offset = 0;
  while (offset < before.st_size) {
    const ssize_t n = sendfile(to, answer.fd, &offset, static_cast<size_t>(before.st_size - offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
  }
  // Bytes of a file that changed while they were read are no copy of it.
  struct stat after;
  bool ok = offset == before.st_size && fstat(answer.fd, &after) == 0 && SameFile(before, after);
  if (ok && temp.empty()) {
    // Another worker's whole copy, linked meanwhile, is being sent: it
    // stays. What fails the check (cut short, say) goes.
    const std::string self = "/proc/self/fd/" + std::to_string(to);
    ok = linkat(AT_FDCWD, self.c_str(), fd_, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
    if (!ok && errno == EEXIST) {
      ok = whole() || (unlinkat(fd_, name.c_str(), 0) == 0 &&
                       (linkat(AT_FDCWD, self.c_str(), fd_, name.c_str(), AT_SYMLINK_FOLLOW) == 0 || errno == EEXIST));
    }
  } else if (ok) {
    ok = renameat(fd_, temp.c_str(), fd_, name.c_str()) == 0;
  }
  close(to);
  if (!temp.empty()) unlinkat(fd_, temp.c_str(), 0);
  return ok ? dir_ + "/" + name : std::string();
}

void Handover::MakeRoom(long long size) {
  const int fd = dup(fd_);
  DIR* d = fd < 0 ? nullptr : fdopendir(fd);
  if (d == nullptr) {
    if (fd >= 0) close(fd);
    return;
  }
  std::vector<Copied> copies;
  long long total = size;
  while (const struct dirent* e = readdir(d)) {
    struct stat st;
    if (e->d_name[0] != '.' && fstatat(fd_, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      copies.push_back({e->d_name, static_cast<long long>(st.st_blocks) * 512, st.st_mtime});
      total += copies.back().size;
    }
  }
  closedir(d);
  std::sort(copies.begin(), copies.end(), [](const Copied& a, const Copied& b) { return a.mtime < b.mtime; });
  for (const Copied& c : copies) {
    if (total <= Bound()) break;
    if (unlinkat(fd_, c.name.c_str(), 0) == 0) total -= c.size;
  }
}

void Handover::Sweep(int seconds) {
  const int fd = dup(fd_);
  DIR* d = fd < 0 ? nullptr : fdopendir(fd);
  if (d == nullptr) {
    if (fd >= 0) close(fd);
    return;
  }
  const time_t now = time(nullptr);
  while (const struct dirent* e = readdir(d)) {
    struct stat st;
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0 &&
        fstatat(fd_, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && now - st.st_mtime >= seconds) {
      unlinkat(fd_, e->d_name, 0);
    }
  }
  closedir(d);
}

bool Slots::Open(int running, int waiting) {
  fd_ = memfd_create("kovathumb-fcgi-conversions", MFD_CLOEXEC);
  running_ = std::max(1, running);
  waiting_ = std::max(1, waiting);
  return fd_ >= 0;
}

bool Slots::Lock(int at, bool wait) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = at;
  lock.l_len = 1;
  return fcntl(fd_, wait ? F_SETLKW : F_SETLK, &lock) == 0;
}

bool Slots::Queue() {
  for (int i = 0; fd_ >= 0 && i < waiting_; ++i) {
    if (Lock(running_ + i, false)) return true;
  }
  return fd_ < 0;
}

bool Slots::Take() {
  for (int i = 0; fd_ >= 0 && i < running_; ++i) {
    if (Lock(i, false)) return true;
  }
  // All taken: wait for one of them.
  return fd_ < 0 || Lock(static_cast<int>(getpid() % running_), true);
}

Responder::Responder(const std::string& root, Handover* handover, Slots* slots)
    : root_(root), handover_(handover), slots_(slots) {}

size_t Responder::Resident() {
  // What the worker holds now, not what it once held: read by position
  // from one descriptor, opened by the worker itself.
  static const int statm = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  char buf[128];
  const ssize_t n = statm < 0 ? -1 : pread(statm, buf, sizeof buf - 1, 0);
  if (n <= 0) return 0;
  buf[n] = '\0';
  unsigned long size = 0, resident = 0;
  if (sscanf(buf, "%lu %lu", &size, &resident) != 2) return 0;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

int Responder::OwnSeconds() {
  // A probe takes milliseconds; a worker's part is a small share of a child's.
  return std::max(1, std::min(5, tool::WallSeconds() / 4));
}

bool Responder::Send(Thumb& thumb, const cgi::Params& params, const Sink& sink, bool handOver) {
  ThumbAnswer answer;
  if (!thumb.Answer(&answer)) return false;
  Handover* handover = handOver && handover_ != nullptr && handover_->IsOpen() ? handover_ : nullptr;
  tool::SendAnswer(
      answer, cgi::ValidatorsOf(params),
      [handover](const ThumbAnswer& a) { return handover != nullptr ? handover->Copy(a) : std::string(); }, sink);
  if (answer.remove) thumb.DeleteOutputFile();
  return true;
}

// In this process, no conversion allowed: the library's chain finds what
// is stored exactly as it would with conversions allowed, since converting
// comes after that. A request that would convert answers nothing here and
// goes to a child.
bool Responder::AnswerStored(const cgi::Params& params, const cgi::Checked& checked, const Sink& sink,
                             std::unique_ptr<Thumb>* thumb) {
  const cgi::Request& req = checked.request;
  try {
    thumb->reset(new Thumb(checked.pinned.Path(), req.options | kThumbOptNoOnline | kThumbOptStoredOnly, false));
    (*thumb)->Rotate(req.rotate);
    return tool::ChooseThumbnail(**thumb, cgi::WantedOf(req)) && Send(**thumb, params, sink, true);
  } catch (const std::exception&) {
    return false;  // the child answers, and logs, as the CGI does
  }
}

void Responder::Convert(const cgi::Params& params, const cgi::Checked& checked, const Sink& sink,
                        std::initializer_list<int> sockets, std::unique_ptr<Thumb>* thumb) {
  tool::RunBounded(
      [&](int out) {
        for (int fd : sockets) close(fd);
        // The worker's look, as this process has it, goes with it.
        const std::unique_ptr<Thumb> looked = std::move(*thumb);
        const Sink pipe = [out](const char* p, size_t n) { return tool::WriteAll(out, p, n); };
        return cgi::Serve(params, checked, pipe, [&](Thumb& t) { return Send(t, params, pipe, false); }, looked.get());
      },
      cgi::BusyAnswer(params), cgi::FailedAnswer(params), sink);
}

bool Responder::Answer(const cgi::Params& params, const Sink& sink, std::initializer_list<int> sockets,
                       const std::function<void()>& finish) {
  // A hang in this process ends it, and with it this request only: the
  // supervisor starts another worker.
  alarm(static_cast<unsigned>(OwnSeconds()));
  cgi::Checked checked;
  std::string text;
  std::unique_ptr<Thumb> thumb;
  const bool serve = cgi::Check(params, root_, &checked, &text);
  const bool answered = !serve || (!checked.request.list && AnswerStored(params, checked, sink, &thumb));
  alarm(0);
  if (answered) {
    sink(text.data(), text.size());
    return false;
  }
  const pid_t pid = finish ? fork() : -1;
  if (pid > 0) return true;
  if (pid == 0) {
    // This request's own process: it waits its turn, within a request's
    // wall time (the alarm interrupts the wait), and never for long
    // behind too many others.
    if (sockets.size() > 0) close(*sockets.begin());
    struct sigaction wake = {};
    wake.sa_handler = [](int) {};
    sigaction(SIGALRM, &wake, nullptr);
    alarm(static_cast<unsigned>(tool::WallSeconds()));
    const bool turn = slots_->Queue() && slots_->Take();
    alarm(0);
    if (turn) {
      Convert(params, checked, sink, sockets, &thumb);
    } else {
      text = cgi::BusyAnswer(params);
      sink(text.data(), text.size());
    }
    finish();
    _exit(0);
  }
  Convert(params, checked, sink, sockets, &thumb);
  return false;
}

}  // namespace fcgi
}  // namespace kovathumb
