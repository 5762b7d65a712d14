// The header fields of a file's HTTP answer: its validators, whether a
// request's validators match them, its type and its name. The platform's
// relay and our front ends answer with these, so a client and its cache see
// the same bytes whichever one sent the file.
//
// Pure functions of their arguments (the clock is passed in); safe from any
// thread.
//
//   struct stat st;
//   fstat(fd, &st);
//   std::string head;
//   if (http::NotModified(st, inm, ims, time(nullptr))) {
//     head = "Status: 304 Not Modified\r\n" + http::ValidatorFields(st) + "\r\n";
//   }
#ifndef KOVATHUMB_HTTP_FIELDS_H_
#define KOVATHUMB_HTTP_FIELDS_H_

#include <sys/stat.h>
#include <time.h>

#include <string>

namespace kovathumb {
namespace http {

// "Last-Modified: …\r\nETag: …\r\n" for file `st`: a strong tag from its
// size and modification time to the nanosecond, so a file rewritten within a
// second gets a new one.
std::string ValidatorFields(const struct stat& st);
// Whether a request's If-None-Match and If-Modified-Since (each null when
// absent) let it be answered 304 at time `now`. If-None-Match, when given,
// decides alone, by `*` or our tag, weak or strong; a date after `now` is no
// validator.
bool NotModified(const struct stat& st, const char* ifNoneMatch, const char* ifModifiedSince, time_t now);
// Content-Disposition, inline, with an ASCII name and the exact one
// percent-encoded.
std::string Disposition(const char* name);
// A type fit for a header line: never empty, no line break.
std::string SafeType(const char* mime);

}  // namespace http
}  // namespace kovathumb

#endif  // KOVATHUMB_HTTP_FIELDS_H_
