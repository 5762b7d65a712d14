// Interposes the platform functions of the test program; the real ones are
// reached with dlsym(RTLD_NEXT).
#include "support/fake_platform.h"

#include <dlfcn.h>

#include "kovaplatform/kovaplatform.h"

namespace kovathumb {
namespace fake {

Platform& State() {
  static Platform state;
  return state;
}

void Reset() { State() = Platform(); }

}  // namespace fake
}  // namespace kovathumb

namespace {

template <typename F>
F Real(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

void Record(const char* path, const char* const argv[]) {
  std::vector<std::string> call{path ? path : ""};
  for (size_t i = 0; argv != nullptr && argv[i] != nullptr; ++i) call.emplace_back(argv[i]);
  kovathumb::fake::State().exec_calls.push_back(call);
}

}  // namespace

extern "C" {

int KOVAGetFSType(const char* path, int flags) {
  if (kovathumb::fake::State().fs_type != -2) return kovathumb::fake::State().fs_type;
  static auto real = Real<int (*)(const char*, int)>("KOVAGetFSType");
  return real(path, flags);
}

int KOVAEAMKDir(int flags, const char* eadir) {
  ++kovathumb::fake::State().eamkdir_calls;
  static auto real = Real<int (*)(int, const char*)>("KOVAEAMKDir");
  return real(flags, eadir);
}

int KLIBCExecv(const char* path, const char* const argv[], int wait) {
  Record(path, argv);
  if (kovathumb::fake::State().before_exec) kovathumb::fake::State().before_exec(kovathumb::fake::State().exec_calls.back());
  if (kovathumb::fake::State().exec_result != -2) return kovathumb::fake::State().exec_result;
  static auto real = Real<int (*)(const char*, const char* const*, int)>("KLIBCExecv");
  return real(path, argv, wait);
}

FILE* KLIBCPopenv(const char* path, const char* mode, const char* const argv[]) {
  Record(path, argv);
  static auto real = Real<FILE* (*)(const char*, const char*, const char* const*)>("KLIBCPopenv");
  return real(path, mode, argv);
}

}  // extern "C"
