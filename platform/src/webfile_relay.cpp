#include "kovaplatform/webfile_relay.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "http/fields.h"

namespace {

namespace http = kovathumb::http;

bool IsHead() {
  const char* method = getenv("REQUEST_METHOD");
  return method != nullptr && strcmp(method, "HEAD") == 0;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool Send(const std::string& head) {
  if (fwrite(head.data(), 1, head.size(), stdout) != head.size()) return false;
  return fflush(stdout) == 0;
}

int SendError(int status, const char* reason) {
  const std::string body = std::string(reason) + "\n";
  Send("Status: " + std::to_string(status) + " " + reason +
       "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
       (IsHead() ? std::string() : body));
  return status;
}

std::string BaseName(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// "/proc/self/fd/N": a file the caller holds open, not a link to resolve.
bool IsOwnDescriptor(const char* path) {
  static const char kSelf[] = "/proc/self/fd/";
  if (strncmp(path, kSelf, sizeof kSelf - 1) != 0) return false;
  const char* n = path + sizeof kSelf - 1;
  return *n != '\0' && strspn(n, "0123456789") == strlen(n);
}

// The name the client sees: the held file's own name.
std::string PresentedName(const char* path) {
  if (!IsOwnDescriptor(path)) return BaseName(path);
  char target[4096];
  const ssize_t n = readlink(path, target, sizeof target - 1);
  if (n <= 0) return BaseName(path);
  std::string name = BaseName(std::string(target, static_cast<size_t>(n)).c_str());
  static const std::string kDeleted = " (deleted)";
  if (name.size() > kDeleted.size() && name.compare(name.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    name.resize(name.size() - kDeleted.size());
  }
  return name;
}

bool SendBody(int in, off_t size) {
  int out = fileno(stdout);
  off_t offset = 0;
  while (offset < size) {
    ssize_t n = sendfile(out, in, &offset, static_cast<size_t>(size - offset));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EINVAL || errno == ENOSYS)) break;  // plain copy below
    if (n <= 0) return false;
  }
  if (offset >= size) return true;
  // By position: the descriptor may be the caller's, its offset left alone.
  char buf[65536];
  while (offset < size) {
    ssize_t n = pread(in, buf, sizeof buf, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (!WriteAll(out, buf, static_cast<size_t>(n))) return false;
    offset += n;
  }
  return true;
}

}  // namespace

WebFileRelay::WebFileRelay() = default;
WebFileRelay::~WebFileRelay() = default;

int WebFileRelay::Output(const char* path, const char* mime) {
  if (path == nullptr || *path == '\0') return SendError(404, "Not Found");
  // A descriptor the caller holds open for reading is read as it is, never
  // reopened. Anything else: only a regular file, and never through a link
  // (but for a descriptor the caller holds); a FIFO or device is never
  // opened for reading.
  const bool own = IsOwnDescriptor(path);
  int fd = -1;
  bool held = false;
  if (own) {
    const int n = atoi(path + strlen("/proc/self/fd/"));
    const int flags = fcntl(n, F_GETFL);
    held = flags >= 0 && (flags & O_PATH) == 0 && (flags & O_ACCMODE) != O_WRONLY;
    if (held) fd = n;
  }
  const int probe = held ? -1 : open(path, O_PATH | O_CLOEXEC | (own ? 0 : O_NOFOLLOW));
  if (probe >= 0) {
    struct stat pst = {};
    if (fstat(probe, &pst) == 0 && S_ISREG(pst.st_mode)) {
      fd = open(("/proc/self/fd/" + std::to_string(probe)).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } else {
      errno = S_ISLNK(pst.st_mode) ? ELOOP : EINVAL;
    }
    const int saved = errno;
    close(probe);
    errno = saved;
  }
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return SendError(404, "Not Found");
    if (errno == EACCES || errno == EPERM) return SendError(403, "Forbidden");
    return SendError(500, "Internal Server Error");
  }
  const auto release = [fd, held] {
    if (!held) close(fd);
  };
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    release();
    return SendError(500, "Internal Server Error");
  }
  const std::string validators = http::ValidatorFields(st);
  if (http::NotModified(st, getenv("HTTP_IF_NONE_MATCH"), getenv("HTTP_IF_MODIFIED_SINCE"), time(nullptr))) {
    release();
    return Send("Status: 304 Not Modified\r\n" + validators + "\r\n") ? 0 : 1;
  }
  const std::string head = "Content-Type: " + http::SafeType(mime) + "\r\nContent-Length: " +
                           std::to_string(static_cast<long long>(st.st_size)) + "\r\n" +
                           http::Disposition(PresentedName(path).c_str()) + validators + "\r\n";
  bool ok = Send(head);
  if (ok && !IsHead()) ok = SendBody(fd, st.st_size);
  release();
  return ok ? 0 : 1;
}

int WebFileRelay::Output(FILE* stream, const char* name, const char* mime) {
  if (stream == nullptr) return SendError(500, "Internal Server Error");
  // Read ahead of the headers: a tool that failed before writing anything
  // still gets a proper error status.
  char buf[65536];
  size_t n = fread(buf, 1, sizeof buf, stream);
  int result;
  if (n == 0) {
    result = SendError(500, "Internal Server Error");
  } else {
    bool ok = Send("Content-Type: " + http::SafeType(mime) + "\r\n" + http::Disposition(name) + "\r\n");
    if (ok && !IsHead()) {
      ok = WriteAll(fileno(stdout), buf, n);
      while (ok && (n = fread(buf, 1, sizeof buf, stream)) > 0) ok = WriteAll(fileno(stdout), buf, n);
    }
    result = ok ? 0 : 1;
  }
  if (KLIBCPclose(stream) == -1) fclose(stream);
  return result;
}
