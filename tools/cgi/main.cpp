// kovathumb-cgi: the web applications' thumbnail endpoint.
//
//   GET ?path=REL&size=NAME   (or w=&h=, or edge=), with rotate, fallback,
//                             avatar, gif and app=pictavo|dossiva
//   GET ?list=1               the photos and videos under the root, as JSON
//
// REL is resolved under the directory named by KOVATHUMB_ROOT, which the web
// server's configuration sets, without following any link: we run as root
// over folders that anyone may fill with links. Every request ends with a
// complete CGI response unless the client leaves first.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cgi/request.h"
#include "front_end/send.h"
#include "front_end/tree.h"
#include "front_end/watchdog.h"
#include "kovathumb/error.h"
#include "kovathumb/file.h"
#include "kovathumb/thumb.h"
#include "kovathumb/version.h"

namespace kovathumb {
namespace cgi {
namespace {

bool IsHead() {
  const char* m = getenv("REQUEST_METHOD");
  return m != nullptr && strcmp(m, "HEAD") == 0;
}

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

int Answer(int status, const std::string& text, const char* extra = "") {
  const std::string body = text + "\n";
  printf("Status: %d %s\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: %zu\r\n"
         "Cache-Control: no-store\r\n%s\r\n",
         status, Reason(status), body.size(), extra);
  if (!IsHead()) fwrite(body.data(), 1, body.size(), stdout);
  fflush(stdout);
  return 0;
}

const char* TypeOf(const std::string& path) {
  const std::string ext = file::GetFileExt(path);
  if (ext == "jpg" || ext == "jpeg" || ext == "jpe") return "image/jpeg";
  if (ext == "png") return "image/png";
  if (ext == "gif") return "image/gif";
  if (ext == "bmp") return "image/bmp";
  if (ext == "tif" || ext == "tiff") return "image/tiff";
  if (ext == "heic" || ext == "heif") return "image/heic";
  if (IsSupportVideo(path)) return "video";
  return "image/x-raw";
}

// One page of the sorted list, so that a large tree comes in parts; "total"
// tells the page how many there are.
int List(const std::string& realRoot, size_t offset, size_t limit) {
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
  printf("Content-Type: application/json\r\nContent-Length: %zu\r\nCache-Control: no-store\r\n\r\n", body.size());
  if (!IsHead()) fwrite(body.data(), 1, body.size(), stdout);
  fflush(stdout);
  return 0;
}

int Serve(const Request& req, const std::string& path) {
  Thumb thumb(path, req.options, false);
  thumb.Rotate(req.rotate);
  tool::Wanted wanted;
  wanted.size = req.size;
  wanted.width = static_cast<int>(req.width);
  wanted.height = static_cast<int>(req.height);
  wanted.fallback = req.fallback;
  tool::SendThumbnail(thumb, wanted, true);
  // With an output file chosen, the response (perhaps an error one) is out.
  if (thumb.GetOutputFile().empty()) return Answer(404, "no thumbnail for this file");
  return 0;
}

int Main() {
  const char* method = getenv("REQUEST_METHOD");
  if (method == nullptr || (strcmp(method, "GET") != 0 && strcmp(method, "HEAD") != 0)) {
    return Answer(405, "only GET and HEAD", "Allow: GET, HEAD\r\n");
  }
  const char* rootEnv = getenv("KOVATHUMB_ROOT");
  const std::string realRoot = rootEnv != nullptr ? tool::RealPath(rootEnv) : std::string();
  if (realRoot.empty()) {
    syslog(LOG_ERR, "kovathumb-cgi: KOVATHUMB_ROOT is not set or not a directory");
    return Answer(500, "server misconfigured");
  }
  const char* qs = getenv("QUERY_STRING");
  const std::string query = qs != nullptr ? qs : "";
  if (query.size() > kMaxQuery) return Answer(414, "query too long");
  Request req;
  std::string error;
  if (!ParseRequest(query, &req, &error)) return Answer(400, error);
  if (req.list) return List(realRoot, static_cast<size_t>(req.offset), static_cast<size_t>(req.limit));

  tool::PinnedFile pinned;
  const int status = Resolve(realRoot, req.path, &pinned);
  if (status != 200) return Answer(status, status == 404 ? "no such file" : "refused");
  if (!IsSupportImage(req.path) && !IsSupportVideo(req.path)) return Answer(400, "not a photo or video");
  try {
    return Serve(req, pinned.Path());
  } catch (const Error& e) {
    syslog(LOG_ERR, "kovathumb-cgi: %s: %s", req.path.c_str(), pinned.Unpinned(e.what(), req.path).c_str());
    return Answer(e.Code() == kErrorCannotOpen ? 403 : 500, "cannot read this file");
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "kovathumb-cgi: %s: %s", req.path.c_str(), e.what());
    return Answer(500, "internal error");
  }
}

}  // namespace
}  // namespace cgi
}  // namespace kovathumb

namespace {

constexpr char kUsage[] =
    "Usage: kovathumb-cgi\n"
    "The thumbnail endpoint of the gallery and other web applications, run by a\n"
    "web server as a CGI program: it answers one request, read from the\n"
    "environment (REQUEST_METHOD, QUERY_STRING), on standard output.\n"
    "\n"
    "Requests:\n"
    "  ?path=REL&size=NAME      the thumbnail of REL (a path under the root) in size\n"
    "                           small, medium, big, large, xlarge or original;\n"
    "                           or w=&h= (a box), or edge= (a square box)\n"
    "      rotate=N             the user's rotation in quarter turns\n"
    "      fallback=1           a smaller stored size when this one is missing\n"
    "      avatar=1, gif=1      an avatar thumbnail; animated GIF thumbnails\n"
    "      app=pictavo|dossiva  try that application's stored thumbnails first\n"
    "  ?list=1                  the photos and videos under the root, as JSON\n"
    "      offset=N&limit=N     one page of that list\n"
    "\n"
    "Environment:\n"
    "  KOVATHUMB_ROOT           the directory the paths are under (required)\n"
    "  KOVATHUMB_LOG_STDERR=1   also write the library's log lines to standard error\n"
    "\n"
    "Options (outside a web server only):\n"
    "  -h, --help               print this help and exit\n"
    "  -V, --version            print the version and exit\n";

}  // namespace

int main(int argc, char** argv) {
  // Outside a web server, the usual options; a request never takes them.
  if (argc > 1 && getenv("REQUEST_METHOD") == nullptr) {
    const std::string arg = argv[1];
    if (arg == "--version" || arg == "-V") {
      printf("kovathumb-cgi %s\n", kovathumb::Version());
      return 0;
    }
    fputs(kUsage, arg == "--help" || arg == "-h" ? stdout : stderr);
    return arg == "--help" || arg == "-h" ? 0 : 2;
  }
  // A client that goes away must not kill us halfway through storing.
  signal(SIGPIPE, SIG_IGN);
  // A request the library cannot finish in a tool's limits still gets an answer.
  const char* head = getenv("REQUEST_METHOD");
  const bool body = head == nullptr || strcmp(head, "HEAD") != 0;
  const std::string headers = "Content-Type: text/plain; charset=utf-8\r\nCache-Control: no-store\r\n";
  return kovathumb::tool::RunBounded(
      [] { return kovathumb::cgi::Main(); },
      "Status: 503 Service Unavailable\r\n" + headers + "Retry-After: 60\r\nContent-Length: 5\r\n\r\n" +
          (body ? "busy\n" : ""),
      "Status: 500 Internal Server Error\r\n" + headers + "Content-Length: 15\r\n\r\n" +
          (body ? "internal error\n" : ""));
}
