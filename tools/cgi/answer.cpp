#include "cgi/answer.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "front_end/send.h"
#include "front_end/tree.h"
#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb.h"

namespace kovathumb {
namespace cgi {
namespace {

const char* Reason(int status) {
  switch (status) {
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 414: return "URI Too Long";
    default: return "Internal Server Error";
  }
}

std::string Get(const Params& params, const char* name) {
  const auto it = params.find(name);
  return it == params.end() ? std::string() : it->second;
}

const char* TypeOf(const std::string& path) {
  const std::string ext = file::GetFileExt(path);
  if (ext == "jpg" || ext == "jpeg" || ext == "jpe") return "image/jpeg";
  if (ext == "png") return "image/png";
  if (ext == "gif") return "image/gif";
  if (ext == "bmp") return "image/bmp";
  if (ext == "tif" || ext == "tiff") return "image/tiff";
  if (ext == "heic" || ext == "heif" || ext == "hif") return "image/heic";
  if (ext == "webp") return "image/webp";
  if (ext == "avif") return "image/avif";
  if (ext == "jxl") return "image/jxl";
  if (IsSupportVideo(path)) return "video";
  return "image/x-raw";
}

// One page of the sorted list, so that a large tree comes in parts; "total"
// tells the page how many there are.
std::string List(const Params& params, const std::string& realRoot, size_t offset, size_t limit) {
  std::vector<tool::TreeFile> files;
  tool::WalkTree(realRoot, &files);
  const size_t begin = std::min(offset, files.size());
  const size_t end = limit > 0 ? std::min(files.size(), begin + limit) : files.size();
  nlohmann::json list = nlohmann::json::array();
  for (size_t i = begin; i < end; ++i) {
    const tool::TreeFile& f = files[i];
    list.push_back({{"path", f.rel},
                    {"type", TypeOf(f.rel)},
                    {"video", IsSupportVideo(f.rel)},
                    {"size", static_cast<long long>(f.size)},
                    {"mtime", static_cast<long long>(f.mtime)}});
  }
  const std::string body =
      nlohmann::json{{"files", list}, {"total", files.size()}, {"offset", begin}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  return "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nCache-Control: no-store\r\n\r\n" + (IsHead(params) ? std::string() : body);
}

std::string Unavailable(const Params& params, const char* status, const char* extra, const char* text) {
  const std::string body = IsHead(params) ? std::string() : std::string(text) + "\n";
  return std::string("Status: ") + status + "\r\nContent-Type: text/plain; charset=utf-8\r\nCache-Control: no-store\r\n" +
         extra + "Content-Length: " + std::to_string(strlen(text) + 1) + "\r\n\r\n" + body;
}

}  // namespace

Params ParamsFromEnvironment() {
  Params params;
  for (const char* name : {"REQUEST_METHOD", "QUERY_STRING", "HTTP_IF_NONE_MATCH", "HTTP_IF_MODIFIED_SINCE"}) {
    if (const char* v = getenv(name)) params[name] = v;
  }
  return params;
}

bool IsHead(const Params& params) { return Get(params, "REQUEST_METHOD") == "HEAD"; }

tool::Validators ValidatorsOf(const Params& params) {
  tool::Validators v;
  v.head = IsHead(params);
  const auto inm = params.find("HTTP_IF_NONE_MATCH"), ims = params.find("HTTP_IF_MODIFIED_SINCE");
  v.ifNoneMatch = inm == params.end() ? nullptr : inm->second.c_str();
  v.ifModifiedSince = ims == params.end() ? nullptr : ims->second.c_str();
  return v;
}

std::string TextAnswer(const Params& params, int status, const std::string& text, const char* extra) {
  const std::string body = text + "\n";
  return "Status: " + std::to_string(status) + " " + Reason(status) +
         "\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nCache-Control: no-store\r\n" + extra + "\r\n" + (IsHead(params) ? std::string() : body);
}

bool Check(const Params& params, const std::string& root, Checked* checked, std::string* refusal) {
  const std::string method = Get(params, "REQUEST_METHOD");
  if (method != "GET" && method != "HEAD") {
    return *refusal = TextAnswer(params, 405, "only GET and HEAD", "Allow: GET, HEAD\r\n"), false;
  }
  // The administrator's path, not the users': resolved once per process.
  static std::string given, resolved;
  if (root != given || resolved.empty()) {
    given = root;
    resolved = root.empty() ? std::string() : tool::RealPath(root);
  }
  checked->root = resolved;
  if (checked->root.empty()) {
    syslog(LOG_ERR, "%s: KOVATHUMB_ROOT is not set or not a directory", program_invocation_short_name);
    return *refusal = TextAnswer(params, 500, "server misconfigured"), false;
  }
  const std::string query = Get(params, "QUERY_STRING");
  if (query.size() > kMaxQuery) return *refusal = TextAnswer(params, 414, "query too long"), false;
  Request& req = checked->request;
  std::string error;
  if (!ParseRequest(query, &req, &error)) return *refusal = TextAnswer(params, 400, error), false;
  if (req.list) return true;
  const int status = Resolve(checked->root, req.path, &checked->pinned);
  if (status != 200) {
    return *refusal = TextAnswer(params, status, status == 404 ? "no such file" : "refused"), false;
  }
  if (!tool::IsWalkedFile(req.path, req.options & kThumbOptQuality)) {
    return *refusal = TextAnswer(params, 400, "not a photo or video"), false;
  }
  return true;
}

tool::Wanted WantedOf(const Request& req) {
  tool::Wanted wanted;
  wanted.size = req.size;
  wanted.width = static_cast<int>(req.width);
  wanted.height = static_cast<int>(req.height);
  wanted.fallback = req.fallback;
  return wanted;
}

int Serve(const Params& params, const Checked& checked, const tool::Sink& sink, const SendChosen& send,
          const Thumb* looked) {
  const char* program = program_invocation_short_name;
  const Request& req = checked.request;
  const auto answer = [&sink](const std::string& text) {
    if (sink) return sink(text.data(), text.size());
    fwrite(text.data(), 1, text.size(), stdout);
    return fflush(stdout) == 0;
  };
  if (req.list) {
    answer(List(params, checked.root, static_cast<size_t>(req.offset), static_cast<size_t>(req.limit)));
    return 0;
  }
  try {
    const std::unique_ptr<Thumb> made(looked != nullptr ? new Thumb(checked.pinned.Path(), req.options, false, *looked)
                                                        : new Thumb(checked.pinned.Path(), req.options, false));
    Thumb& thumb = *made;
    thumb.Rotate(req.rotate);
    if (!send) {
      tool::SendThumbnail(thumb, WantedOf(req), true);
    } else if (tool::ChooseThumbnail(thumb, WantedOf(req)) && !send(thumb)) {
      answer(TextAnswer(params, 500, "cannot read this file"));
    }
    // With an output file chosen, the response (perhaps an error one) is out.
    if (thumb.GetOutputFile().empty()) answer(TextAnswer(params, 404, "no thumbnail for this file"));
    return 0;
  } catch (const Error& e) {
    syslog(LOG_ERR, "%s: %s: %s", program, req.path.c_str(), checked.pinned.Unpinned(e.what(), req.path).c_str());
    answer(TextAnswer(params, e.Code() == kErrorCannotOpen ? 403 : 500, "cannot read this file"));
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "%s: %s: %s", program, req.path.c_str(), e.what());
    answer(TextAnswer(params, 500, "internal error"));
  }
  return 0;
}

std::string BusyAnswer(const Params& params) {
  return Unavailable(params, "503 Service Unavailable", "Retry-After: 60\r\n", "busy");
}

std::string FailedAnswer(const Params& params) {
  return Unavailable(params, "500 Internal Server Error", "", "internal error");
}

}  // namespace cgi
}  // namespace kovathumb
