#include "kovaplatform/webfile_relay.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace {

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

std::string HttpDate(time_t t) {
  struct tm tm;
  gmtime_r(&t, &tm);
  char buf[64];
  strftime(buf, sizeof buf, "%a, %d %b %Y %H:%M:%S GMT", &tm);
  return buf;
}

bool ParseHttpDate(const char* text, time_t* out) {
  struct tm tm;
  memset(&tm, 0, sizeof tm);
  const char* end = strptime(text, "%a, %d %b %Y %H:%M:%S GMT", &tm);
  if (end == nullptr) return false;
  *out = timegm(&tm);
  return true;
}

// Content-Disposition with an ASCII name and the exact one percent-encoded.
std::string Disposition(const char* name) {
  std::string ascii, encoded;
  for (const char* p = name; p != nullptr && *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    ascii += (c < 0x20 || c >= 0x7F || c == '"' || c == '\\') ? '_' : static_cast<char>(c);
    if (isalnum(c) || strchr("!#$&+-.^_`|~", c) != nullptr) {
      encoded += static_cast<char>(c);
    } else {
      char hex[4];
      snprintf(hex, sizeof hex, "%%%02X", c);
      encoded += hex;
    }
  }
  return "Content-Disposition: inline; filename=\"" + ascii + "\"; filename*=UTF-8''" + encoded + "\r\n";
}

std::string SanitizeMime(const char* mime) {
  std::string m = mime != nullptr && *mime != '\0' ? mime : "application/octet-stream";
  for (char& c : m) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  return m;
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

// Whether the If-None-Match list holds `*` alone or exactly our tag (weak
// or strong).
bool TagMatches(const std::string& list, const std::string& etag) {
  size_t at = 0;
  while (at < list.size()) {
    size_t end = list.find(',', at);
    if (end == std::string::npos) end = list.size();
    std::string tag = list.substr(at, end - at);
    const size_t first = tag.find_first_not_of(" \t");
    const size_t last = tag.find_last_not_of(" \t");
    tag = first == std::string::npos ? std::string() : tag.substr(first, last - first + 1);
    if (tag.compare(0, 2, "W/") == 0) tag.erase(0, 2);
    if (tag == "*" || tag == etag) return true;
    at = end + 1;
  }
  return false;
}

// Whether the client's validators match this file's.
bool NotModified(const std::string& etag, time_t mtime) {
  if (const char* inm = getenv("HTTP_IF_NONE_MATCH")) {
    // If-None-Match takes precedence over If-Modified-Since.
    return TagMatches(inm, etag);
  }
  time_t since;
  if (const char* ims = getenv("HTTP_IF_MODIFIED_SINCE")) {
    // A date in the future is no validator.
    if (ParseHttpDate(ims, &since) && since <= time(nullptr)) return mtime <= since;
  }
  return false;
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
  char tag[64];
  snprintf(tag, sizeof tag, "\"%llx-%llx.%lx\"", static_cast<unsigned long long>(st.st_size),
           static_cast<unsigned long long>(st.st_mtim.tv_sec), static_cast<long>(st.st_mtim.tv_nsec));
  const std::string etag = tag;
  const std::string validators =
      "Last-Modified: " + HttpDate(st.st_mtime) + "\r\nETag: " + etag + "\r\n";
  if (NotModified(etag, st.st_mtime)) {
    release();
    return Send("Status: 304 Not Modified\r\n" + validators + "\r\n") ? 0 : 1;
  }
  const std::string head = "Content-Type: " + SanitizeMime(mime) + "\r\nContent-Length: " +
                           std::to_string(static_cast<long long>(st.st_size)) + "\r\n" +
                           Disposition(PresentedName(path).c_str()) + validators + "\r\n";
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
    bool ok = Send("Content-Type: " + SanitizeMime(mime) + "\r\n" + Disposition(name) + "\r\n");
    if (ok && !IsHead()) {
      ok = WriteAll(fileno(stdout), buf, n);
      while (ok && (n = fread(buf, 1, sizeof buf, stream)) > 0) ok = WriteAll(fileno(stdout), buf, n);
    }
    result = ok ? 0 : 1;
  }
  if (KLIBCPclose(stream) == -1) fclose(stream);
  return result;
}
