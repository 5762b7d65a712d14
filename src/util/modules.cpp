#include "util/modules.h"

#include <dlfcn.h>

#include <vector>

namespace kovathumb {
namespace internal {

namespace {
std::string DirOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}
}  // namespace

void* ModuleSymbol(const char* name, const char* symbol, std::string* error) {
  std::vector<std::string> candidates;
  Dl_info self;
  if (dladdr(reinterpret_cast<void*>(&ModuleSymbol), &self) != 0 && self.dli_fname != nullptr) {
    candidates.push_back(DirOf(self.dli_fname) + "/" KOVATHUMB_MODULE_SUBDIR "/" + name);
  }
  candidates.push_back(std::string(KOVATHUMB_HEIF_MODULE_INSTALLED) + "/" + name);
  candidates.push_back(std::string(KOVATHUMB_HEIF_MODULE_BUILT) + "/" + name);
  for (const std::string& path : candidates) {
    if (void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
      void* found = dlsym(module, symbol);
      if (found == nullptr) *error = std::string(symbol) + " missing in " + path;
      return found;
    }
    const char* why = dlerror();
    *error = why != nullptr ? why : path;
  }
  return nullptr;
}

}  // namespace internal
}  // namespace kovathumb
