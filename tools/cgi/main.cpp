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

#include <string>

#include "cgi/answer.h"
#include "front_end/watchdog.h"
#include "kovathumb/version.h"

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
  namespace cgi = kovathumb::cgi;
  const cgi::Params params = cgi::ParamsFromEnvironment();
  const char* root = getenv("KOVATHUMB_ROOT");  // the web server's configuration
  return kovathumb::tool::RunBounded(
      [&params, root] {
        cgi::Checked checked;
        std::string refusal;
        if (cgi::Check(params, root != nullptr ? root : "", &checked, &refusal)) return cgi::Serve(params, checked);
        fputs(refusal.c_str(), stdout);
        return 0;
      },
      cgi::BusyAnswer(params), cgi::FailedAnswer(params));
}
