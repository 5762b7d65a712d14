#include "http/fields.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace kovathumb {
namespace http {

namespace {

const char kDateFormat[] = "%a, %d %b %Y %H:%M:%S GMT";

std::string Date(time_t t) {
  struct tm tm;
  gmtime_r(&t, &tm);
  char buf[64];
  strftime(buf, sizeof buf, kDateFormat, &tm);
  return buf;
}

bool ParseDate(const char* text, time_t* out) {
  struct tm tm;
  memset(&tm, 0, sizeof tm);
  if (strptime(text, kDateFormat, &tm) == nullptr) return false;
  *out = timegm(&tm);
  return true;
}

std::string ETag(const struct stat& st) {
  char tag[64];
  snprintf(tag, sizeof tag, "\"%llx-%llx.%lx\"", static_cast<unsigned long long>(st.st_size),
           static_cast<unsigned long long>(st.st_mtim.tv_sec), static_cast<long>(st.st_mtim.tv_nsec));
  return tag;
}

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

}  // namespace

std::string ValidatorFields(const struct stat& st) {
  return "Last-Modified: " + Date(st.st_mtime) + "\r\nETag: " + ETag(st) + "\r\n";
}

bool NotModified(const struct stat& st, const char* ifNoneMatch, const char* ifModifiedSince, time_t now) {
  if (ifNoneMatch != nullptr) return TagMatches(ifNoneMatch, ETag(st));
  time_t since;
  return ifModifiedSince != nullptr && ParseDate(ifModifiedSince, &since) && since <= now && st.st_mtime <= since;
}

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

std::string SafeType(const char* mime) {
  std::string m = mime != nullptr && *mime != '\0' ? mime : "application/octet-stream";
  std::replace(m.begin(), m.end(), '\r', ' ');
  std::replace(m.begin(), m.end(), '\n', ' ');
  return m;
}

}  // namespace http
}  // namespace kovathumb
