#include "front_end/send.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "http/fields.h"
#include "kovathumb/thumb.h"

namespace kovathumb {
namespace tool {

bool NotModified(const struct stat& st, const Validators& validators) {
  return http::NotModified(st, validators.ifNoneMatch, validators.ifModifiedSince, time(nullptr));
}

std::string AnswerHead(const struct stat& st, const char* name, const char* mime, const Validators& validators,
                       const char* sendfile) {
  const std::string checks = http::ValidatorFields(st);
  if (NotModified(st, validators)) return "Status: 304 Not Modified\r\n" + checks + "\r\n";
  const std::string length = sendfile != nullptr && *sendfile != '\0'
                                 ? "X-Sendfile: " + std::string(sendfile)
                                 : "Content-Length: " + std::to_string(static_cast<long long>(st.st_size));
  return "Content-Type: " + http::SafeType(mime) + "\r\n" + length + "\r\n" + http::Disposition(name) + checks + "\r\n";
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
