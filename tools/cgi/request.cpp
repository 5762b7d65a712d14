#include "cgi/request.h"

#include <errno.h>

#include <cctype>
#include <cstdlib>
#include <set>

#include "kovathumb/thumb.h"
#include "store/names.h"

namespace kovathumb {
namespace cgi {

namespace {

int Hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool Decode(const std::string& in, std::string* out) {
  out->clear();
  for (size_t i = 0; i < in.size(); ++i) {
    char c = in[i];
    if (c == '+') {
      c = ' ';
    } else if (c == '%') {
      if (i + 2 >= in.size()) return false;
      const int hi = Hex(in[i + 1]);
      const int lo = Hex(in[i + 2]);
      if (hi < 0 || lo < 0) return false;
      c = static_cast<char>(hi * 16 + lo);
      i += 2;
    }
    if (c == '\0') return false;
    out->push_back(c);
  }
  return true;
}

// A whole number in [lo, hi], digits only (with an optional minus sign).
bool Number(const std::string& text, long lo, long hi, long* out) {
  if (text.empty() || text.size() > 11) return false;
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || !(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-')) return false;
  if (v < lo || v > hi) return false;
  *out = v;
  return true;
}

bool Flag(const std::string& text, bool* out) {
  if (text == "1" || text == "true") return *out = true, true;
  if (text == "0" || text == "false") return *out = false, true;
  return false;
}

}  // namespace

bool ParseQuery(const std::string& query, std::map<std::string, std::string>* params, std::string* error) {
  params->clear();
  if (query.size() > kMaxQuery) return *error = "query too long", false;
  size_t at = 0;
  while (at <= query.size()) {
    size_t amp = query.find('&', at);
    if (amp == std::string::npos) amp = query.size();
    const std::string item = query.substr(at, amp - at);
    at = amp + 1;
    if (item.empty()) continue;
    const size_t eq = item.find('=');
    std::string key, value;
    if (!Decode(item.substr(0, eq), &key) ||
        !Decode(eq == std::string::npos ? std::string() : item.substr(eq + 1), &value)) {
      return *error = "malformed escape or NUL byte", false;
    }
    if (key.empty()) return *error = "empty parameter name", false;
    if (!params->emplace(key, value).second) return *error = "repeated parameter " + key, false;
  }
  return true;
}

bool ParseRequest(const std::string& query, Request* r, std::string* error) {
  std::map<std::string, std::string> p;
  if (!ParseQuery(query, &p, error)) return false;
  static const std::set<std::string> known = {"list", "path", "size", "w", "h", "edge", "rotate",
                                              "fallback", "avatar", "gif", "app", "quality", "offset", "limit"};
  for (const auto& kv : p) {
    if (known.count(kv.first) == 0) return *error = "unknown parameter " + kv.first, false;
  }
  *r = Request();
  if (p.count("list")) {
    if (!Flag(p["list"], &r->list)) return *error = "bad list", false;
    if (p.count("offset") && !Number(p["offset"], 0, 1000000000, &r->offset)) return *error = "bad offset", false;
    if (p.count("limit") && !Number(p["limit"], 1, 100000, &r->limit)) return *error = "bad limit", false;
    if (r->list) return true;
  }
  if (p.count("path") == 0 || p["path"].empty()) return *error = "no path", false;
  r->path = p["path"];

  const int ways = static_cast<int>(p.count("size")) + static_cast<int>(p.count("edge")) +
                   static_cast<int>(p.count("w") || p.count("h"));
  if (ways != 1) return *error = "give one of size, w and h, or edge", false;
  long v = 0;
  if (p.count("size")) {
    r->size = p["size"];
    if (Thumb::strThumbSizeMap_.count(r->size) == 0) return *error = "unknown size", false;
  } else if (p.count("edge")) {
    if (!Number(p["edge"], 1, 4096, &v)) return *error = "bad edge", false;
    r->width = r->height = static_cast<unsigned>(v);
  } else {
    if (!Number(p["w"], 1, 4096, &v)) return *error = "bad w", false;
    r->width = static_cast<unsigned>(v);
    if (!Number(p["h"], 1, 4096, &v)) return *error = "bad h", false;
    r->height = static_cast<unsigned>(v);
  }
  if (p.count("rotate")) {
    if (!Number(p["rotate"], store::kMinUserRotate, store::kMaxUserRotate, &v)) return *error = "bad rotate", false;
    r->rotate = static_cast<int>(v);
  }
  if (p.count("fallback") && !Flag(p["fallback"], &r->fallback)) return *error = "bad fallback", false;
  if (p.count("avatar") && !Flag(p["avatar"], &r->avatar)) return *error = "bad avatar", false;
  if (p.count("gif") && !Flag(p["gif"], &r->gif)) return *error = "bad gif", false;
  if (r->fallback && r->size.empty()) return *error = "fallback needs a size name", false;
  // The gallery stores named sizes only: its names have no box.
  const bool named = !r->size.empty();
  r->options = named ? kThumbOptPictavoEA | kThumbOptDossivaEA : kThumbOptDossivaEA;
  if (p.count("app")) {
    if (p["app"] == "pictavo") {
      if (!named) return *error = "the gallery has named sizes only", false;
      r->options = kThumbOptPictavoEA;
    } else if (p["app"] == "dossiva") {
      r->options = kThumbOptDossivaEA;
    } else {
      return *error = "unknown app", false;
    }
  }
  if (r->gif) r->options |= kThumbOptEnableGIF;
  if (r->avatar) r->options |= kThumbOptAvatar;
  if (r->fallback) r->options |= kThumbOptSmallerFallback;
  // Quality mode unless quality=0 asks for the appliance's thumbnails.
  bool quality = true;
  if (p.count("quality") && !Flag(p["quality"], &quality)) return *error = "bad quality", false;
  if (quality) r->options |= kThumbOptQuality;
  return true;
}

int Resolve(const std::string& root, const std::string& rel, tool::PinnedFile* pinned) {
  if (rel.empty() || rel[0] == '/') return 400;
  switch (tool::PinBeneath(root, rel, pinned)) {
    case 0: return 200;
    case EXDEV: case EPERM: case ELOOP: case EACCES: case EMLINK: return 403;
    default: return 404;
  }
}

}  // namespace cgi
}  // namespace kovathumb
