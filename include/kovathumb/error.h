// kovathumb::Error, the one exception type of libkovathumb.
//
// Only probing a source throws it; callers catch it, compare Code() with the
// named codes below and log what(). Errors are plain values: copy them
// freely, from any thread.
#ifndef KOVATHUMB_ERROR_H_
#define KOVATHUMB_ERROR_H_

#include <stdexcept>
#include <string>

#include "kovathumb/export.h"

namespace kovathumb {

// The codes, numbered as the appliance's other applications expect them.
enum ErrorCode : int {
  kErrorCannotExamine = 601,  // the source is missing or its facts unreadable
  kErrorUnknownType = 602,    // not an image type the library reads
  kErrorCannotOpen = 603,     // the source exists but cannot be opened
};

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
