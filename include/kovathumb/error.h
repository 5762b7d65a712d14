// kovathumb::Error, the one exception type of libkovathumb.
//
// Only probing a source throws it; callers catch it, compare Code() and log
// what(). Codes: 601 the source cannot be examined, 602 not an image type the
// library reads, 603 the source cannot be opened. Errors are plain values:
// copy them freely, from any thread.
#ifndef KOVATHUMB_ERROR_H_
#define KOVATHUMB_ERROR_H_

#include <stdexcept>
#include <string>

#include "kovathumb/export.h"

namespace kovathumb {

class KOVATHUMB_EXPORT Error : public std::runtime_error {
 public:
  // what() is "(E<code>) " followed by the detail text.
  explicit Error(int code);
  Error(int code, const std::string& message);
  Error(const Error& other);
  ~Error() override;

  int Code() const;

 private:
  int code_;
  std::string message_;
};

}  // namespace kovathumb

#endif  // KOVATHUMB_ERROR_H_
