#include "front_end/send.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "kovathumb/thumb.h"

namespace kovathumb {
namespace tool {
namespace {

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
  if (strptime(text, "%a, %d %b %Y %H:%M:%S GMT", &tm) == nullptr) return false;
  *out = timegm(&tm);
  return true;
}

std::string ETag(const struct stat& st) {
  char tag[64];
  snprintf(tag, sizeof tag, "\"%llx-%llx.%lx\"", static_cast<unsigned long long>(st.st_size),
           static_cast<unsigned long long>(st.st_mtim.tv_sec), static_cast<long>(st.st_mtim.tv_nsec));
  return tag;
}

// Whether the If-None-Match list holds `*` alone or exactly our tag (weak
// or strong).
bool TagMatches(const std::string& list, const std::string& etag) {
  for (size_t at = 0; at < list.size();) {
    size_t end = list.find(',', at);
    if (end == std::string::npos) end = list.size();
    std::string tag = list.substr(at, end - at);
    const size_t first = tag.find_first_not_of(" \t");
    tag = first == std::string::npos ? std::string() : tag.substr(first, tag.find_last_not_of(" \t") - first + 1);
    if (tag.compare(0, 2, "W/") == 0) tag.erase(0, 2);
    if (tag == "*" || tag == etag) return true;
    at = end + 1;
  }
  return false;
}

// An ASCII name and the exact one percent-encoded.
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
  std::replace(m.begin(), m.end(), '\r', ' ');
  std::replace(m.begin(), m.end(), '\n', ' ');
  return m;
}

}  // namespace

bool NotModified(const struct stat& st, const Validators& validators) {
  // If-None-Match takes precedence over If-Modified-Since.
  if (validators.ifNoneMatch != nullptr) return TagMatches(validators.ifNoneMatch, ETag(st));
  time_t since;
  // A date in the future is no validator.
  return validators.ifModifiedSince != nullptr && ParseHttpDate(validators.ifModifiedSince, &since) &&
         since <= time(nullptr) && st.st_mtime <= since;
}

std::string AnswerHead(const struct stat& st, const char* name, const char* mime, const Validators& validators,
                       const char* sendfile) {
  const std::string checks = "Last-Modified: " + HttpDate(st.st_mtime) + "\r\nETag: " + ETag(st) + "\r\n";
  if (NotModified(st, validators)) return "Status: 304 Not Modified\r\n" + checks + "\r\n";
  const std::string length = sendfile != nullptr && *sendfile != '\0'
                                 ? "X-Sendfile: " + std::string(sendfile)
                                 : "Content-Length: " + std::to_string(static_cast<long long>(st.st_size));
  return "Content-Type: " + SanitizeMime(mime) + "\r\n" + length + "\r\n" + Disposition(name) + checks + "\r\n";
}

bool ChooseThumbnail(Thumb& thumb, const Wanted& wanted) {
  // Output never falls back; CalcOutputFile(size) does where the option says.
  if (!wanted.size.empty()) return !thumb.CalcOutputFile(wanted.size).empty();
  if (wanted.edge > 0) return !thumb.CalcOutputFile(wanted.edge, wanted.edge).empty();
  return !thumb.CalcOutputFile(wanted.width, wanted.height).empty();
}

bool SendThumbnail(Thumb& thumb, const Wanted& wanted, bool deleteIfNeeded) {
  const bool sent = ChooseThumbnail(thumb, wanted) && thumb.HttpOutputFile(thumb.GetOutputMimeType());
  std::fflush(stdout);
  if (deleteIfNeeded && thumb.IsNeedDelete() && !thumb.GetOutputFile().empty()) thumb.DeleteOutputFile();
  return sent;
}

bool SendAnswer(const ThumbAnswer& answer, const Validators& validators,
                const std::function<std::string(const ThumbAnswer&)>& handover, const Sink& sink) {
  const bool body = !validators.head && !NotModified(answer.st, validators);
  const std::string copy = body && handover ? handover(answer) : std::string();
  const std::string head = "Cache-Control: " + answer.cache + "\r\n" +
                           AnswerHead(answer.st, answer.name.c_str(), answer.mime.c_str(), validators, copy.c_str());
  if (!sink(head.data(), head.size())) return false;
  if (!body || !copy.empty()) return true;
  // By position, in pieces: the file is never held whole.
  char buf[65536];
  for (off_t at = 0; at < answer.st.st_size;) {
    const ssize_t n = pread(answer.fd, buf, static_cast<size_t>(std::min<off_t>(answer.st.st_size - at, sizeof buf)), at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || !sink(buf, static_cast<size_t>(n))) return false;
    at += n;
  }
  return true;
}

}  // namespace tool
}  // namespace kovathumb
