#include "fcgi/responder.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

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

// The header block's end (the empty line) of a response, or npos.
size_t HeadEnd(const std::string& head) {
  const size_t end = head.find("\r\n\r\n");
  return end == std::string::npos ? end : end + 2;
}

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

std::string Handover::Copy(int from, off_t offset, size_t size, const struct stat& checked) {
  // Bytes of another length than the file has now are not the file: a name
  // of their own, never handed out again.
  const bool whole = static_cast<size_t>(checked.st_size) == size;
  const std::string name = whole ? CopyName(checked) : "once-" + std::to_string(getpid()) + "-" + std::to_string(++made_);
  if (whole) {
    const int fd = openat(fd_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<size_t>(st.st_size) == size) {
      // Handed over again: kept from the sweep for another while.
      if (time(nullptr) - st.st_mtime > kKeptSeconds / 4) futimens(fd, nullptr);
      close(fd);
      return dir_ + "/" + name;
    }
    if (fd >= 0) close(fd);
  }
  // Made whole under a name of this process's, then put in place at once.
  const std::string temp = "." + std::to_string(getpid()) + "-" + std::to_string(++made_);
  const int to = openat(fd_, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (to < 0) return std::string();
  while (size > 0) {
    const ssize_t n = sendfile(to, from, &offset, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    size -= static_cast<size_t>(n);
  }
  close(to);
  if (size != 0 || renameat(fd_, temp.c_str(), fd_, name.c_str()) != 0) {
    unlinkat(fd_, temp.c_str(), 0);
    return std::string();
  }
  return dir_ + "/" + name;
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

Responder::Responder(Handover* handover) : handover_(handover) {
  fflush(stdout);
  out_ = memfd_create("kovathumb-fcgi-response", MFD_CLOEXEC);
  if (out_ < 0 || dup2(out_, 1) < 0) {
    perror("kovathumb-fcgi: memfd");
    exit(1);
  }
}

size_t Responder::Resident() {
  // The peak: what the worker once took it keeps, as far as the system sees.
  struct rusage usage;
  return getrusage(RUSAGE_SELF, &usage) == 0 ? static_cast<size_t>(usage.ru_maxrss) * 1024 : 0;
}

// The library reads the method and the validators from the environment.
// putenv, not setenv: glibc keeps every value setenv was ever given. A
// buffer the environment names is freed only once it names the next one.
void Responder::Environ(const cgi::Params& params) {
  static const char* const kNames[] = {"REQUEST_METHOD", "HTTP_IF_NONE_MATCH", "HTTP_IF_MODIFIED_SINCE"};
  for (size_t i = 0; i < 3; ++i) {
    const auto it = params.find(kNames[i]);
    if (it == params.end()) {
      unsetenv(kNames[i]);
      continue;
    }
    const std::string entry = std::string(kNames[i]) + "=" + it->second;
    std::vector<char> next(entry.c_str(), entry.c_str() + entry.size() + 1);
    putenv(next.data());
    env_[i] = std::move(next);
  }
}

void Responder::Rewind() {
  fflush(stdout);
  if (ftruncate(out_, 0) != 0) perror("kovathumb-fcgi: ftruncate");
  fseek(stdout, 0, SEEK_SET);
}

bool Responder::Forward(off_t from, off_t to, const Sink& sink) {
  static char buf[65536];
  while (from < to) {
    const ssize_t n = pread(out_, buf, static_cast<size_t>(std::min<off_t>(to - from, sizeof buf)), from);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || !sink(buf, static_cast<size_t>(n))) return false;
    from += n;
  }
  return true;
}

// In this process, no conversion allowed: the library's chain finds what
// is stored (or an embedded preview, or the source itself) exactly as it
// would with conversions allowed, since converting comes after those. A
// request that would convert answers nothing here and goes to a child.
bool Responder::AnswerStored(const cgi::Params& params, const cgi::Checked& checked, const Sink& sink) {
  const cgi::Request& req = checked.request;
  tool::Wanted wanted;
  wanted.size = req.size;
  wanted.width = static_cast<int>(req.width);
  wanted.height = static_cast<int>(req.height);
  wanted.fallback = req.fallback;
  std::string type;
  struct stat file;  // the output file as it stands now that it was read
  bool held = false;
  try {
    Thumb thumb(checked.pinned.Path(), req.options | kThumbOptNoOnline | kThumbOptStoredOnly, false);
    thumb.Rotate(req.rotate);
    tool::SendThumbnail(thumb, wanted, true);
    if (thumb.GetOutputFile().empty()) return false;
    type = thumb.GetOutputType();
    held = thumb.GetOutputDescriptor() >= 0 && fstat(thumb.GetOutputDescriptor(), &file) == 0;
  } catch (const std::exception&) {
    return false;  // the child answers, and logs, as the CGI does
  }
  fflush(stdout);
  const off_t size = lseek(out_, 0, SEEK_END);
  char buf[4096];
  const ssize_t got = pread(out_, buf, sizeof buf, 0);
  std::string head(buf, got > 0 ? static_cast<size_t>(got) : 0);
  const size_t end = HeadEnd(head);
  head.resize(std::min(end, head.size()));
  // Only a stored thumbnail's body, sent whole (no error, no 304, no HEAD,
  // no turn through jpegtran) is handed over.
  const bool stored = type == "Pictavo" || type == "Dossiva" || type == "Cinevo";
  if (handover_ != nullptr && handover_->IsOpen() && stored && held && end != std::string::npos &&
      head.find("Status:") == std::string::npos && ("\r\n" + head).find("\r\nContent-Length: ") != std::string::npos &&
      !cgi::IsHead(params) && (req.rotate & 3) == 0) {
    const std::string path = handover_->Copy(out_, static_cast<off_t>(end + 2), static_cast<size_t>(size) - end - 2, file);
    if (!path.empty()) {
      // The server sends the file's length itself.
      std::string out;
      for (size_t at = 0; at < end;) {
        const size_t eol = head.find("\r\n", at) + 2;
        if (head.compare(at, 16, "Content-Length: ") != 0) out.append(head, at, eol - at);
        at = eol;
      }
      out += "X-Sendfile: " + path + "\r\n\r\n";
      sink(out.data(), out.size());
      return true;
    }
  }
  Forward(0, size, sink);
  return true;
}

void Responder::Answer(const cgi::Params& params, const Sink& sink, std::initializer_list<int> sockets) {
  Environ(params);
  Rewind();
  // A hang in this process ends it, and with it this request only: the
  // supervisor starts another worker.
  alarm(static_cast<unsigned>(tool::WallSeconds()));
  cgi::Checked checked;
  const bool serve = cgi::Check(params, &checked);
  if (serve && !checked.request.list && AnswerStored(params, checked, sink)) {
    alarm(0);
    return;
  }
  alarm(0);
  if (serve) {
    Rewind();
    const pid_t self = getpid();
    tool::RunBounded(
        [&] {
          if (getpid() != self) {  // not where no child could be made
            for (int fd : sockets) close(fd);
          }
          return cgi::Serve(params, checked);
        },
        cgi::BusyAnswer(params), cgi::FailedAnswer(params), sink);
  }
  // Check's answer, or the request's own where no child could be made.
  fflush(stdout);
  Forward(0, lseek(out_, 0, SEEK_END), sink);
}

}  // namespace fcgi
}  // namespace kovathumb
