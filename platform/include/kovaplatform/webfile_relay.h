// WebFileRelay: writes the rest of a CGI response to standard output after
// whatever header lines the caller already wrote there: Content-Type,
// Content-Length when known, Content-Disposition, validators, the empty line
// that ends the header block, then the body.
//
// Each failure still ends the header block, with a "Status:" line of the
// right error and a short text body, so the web server never sees half a
// header. File bodies carry Last-Modified and an ETag (size and modification
// time), and a request whose If-None-Match (`*` or our exact tag) or
// If-Modified-Since (not in the future) from the CGI environment matches
// gets "304 Not Modified" without a body. A HEAD
// request gets the headers only.
//
// Objects hold no state; use one per response. Output writes through
// standard output's FILE buffer and flushes it, so lines the caller wrote
// with stdio come first. Not for concurrent use on one standard output.
#ifndef KOVAPLATFORM_WEBFILE_RELAY_H_
#define KOVAPLATFORM_WEBFILE_RELAY_H_

#include <stdio.h>

#include "kovaplatform/kovaplatform.h"

class KOVAPLATFORM_EXPORT WebFileRelay {
 public:
  WebFileRelay();
  ~WebFileRelay();

  // Sends everything read from `stream` as the body, offered to the client
  // as file `name` of type `mime`. Takes the stream and closes it
  // (KLIBCPclose for a KLIBCPopenv stream). A null or empty stream answers
  // 500. Returns 0 when a body was sent.
  int Output(FILE* stream, const char* name, const char* mime);

  // Sends the file at `path` (without copying it through user space where
  // the kernel allows). Only a regular file is opened, never through a link
  // in its last component ("/proc/self/fd/N", a file the caller holds, is
  // sent as that file, under its own name). Missing or a link: 404;
  // unreadable: 403; not a regular file or any other failure: 500. Returns 0 when the response (a body or a 304)
  // was sent.
  int Output(const char* path, const char* mime);
};

#endif  // KOVAPLATFORM_WEBFILE_RELAY_H_
