#include "kovathumb/error.h"

#include <string>

namespace kovathumb {

namespace {
// With no message the text ends in the blank ("(E602) "): kept as the
// appliance writes it.
std::string Text(int code, const std::string& message) {
  return "(E" + std::to_string(code) + ") " + message;
}
}  // namespace

Error::Error(int code) : std::runtime_error(Text(code, std::string())), code_(code) {}

Error::Error(int code, const std::string& message)
    : std::runtime_error(Text(code, message)), code_(code), message_(message) {}

Error::Error(const Error& other) = default;

Error::~Error() = default;

int Error::Code() const { return code_; }

}  // namespace kovathumb
