// Reading a thumbnail request from a CGI query and confining its path to
// the served root. Pure apart from the file-system look-ups of Resolve.
#ifndef KOVATHUMB_TOOLS_CGI_REQUEST_H_
#define KOVATHUMB_TOOLS_CGI_REQUEST_H_

#include <map>
#include <string>

#include "front_end/pin.h"

namespace kovathumb {
namespace cgi {

// Longest query we read; anything longer is refused whole.
constexpr size_t kMaxQuery = 8192;

struct Request {
  bool list = false;   // list=1: the files under the root, as JSON
  long offset = 0;     // offset=&limit=: one page of that list (limit 0: all)
  long limit = 0;
  std::string path;    // path=REL, relative to the root
  std::string size;    // size=NAME
  unsigned width = 0;  // w=&h=, or edge=
  unsigned height = 0;
  int rotate = 0;      // quarter turns, -3..3
  bool fallback = false;
  bool avatar = false;
  bool gif = false;
  int options = 0;     // option bits from app=pictavo|dossiva (both when absent) and
                       // quality=0|1 (quality mode unless 0)
};

// Splits and percent-decodes `query` into `params`. False, with `error`
// set, for a malformed escape, a NUL byte, an empty or repeated key.
bool ParseQuery(const std::string& query, std::map<std::string, std::string>* params,
                std::string* error);

// Builds a Request from a query string. False, with `error` set, for a
// malformed query, an unknown key or value, or a missing path or size.
bool ParseRequest(const std::string& query, Request* request, std::string* error);

// HTTP status of confining `rel` to the trusted directory `root`: 200 with
// `pinned` holding the file; 400 (absolute, empty), 403 (leaves the root, an
// EA directory, a link anywhere on the way, in the tree or not) or 404
// (missing, not a regular file). No check of the file's type.
int Resolve(const std::string& root, const std::string& rel, tool::PinnedFile* pinned);

}  // namespace cgi
}  // namespace kovathumb

#endif  // KOVATHUMB_TOOLS_CGI_REQUEST_H_
