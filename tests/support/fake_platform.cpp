// Interposes the platform functions of the test program; the real ones are
// reached with dlsym(RTLD_NEXT).
#include "support/fake_platform.h"

#include <dlfcn.h>
#include <errno.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <time.h>

#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <cstring>

#include "kovaplatform/kovaplatform.h"

namespace kovathumb {
namespace fake {

namespace {

// Tools start inside sandboxed children: their calls are recorded in memory
// shared with every fork, NUL-separated fields and an empty one per call.
struct Shared {
  // A forked caller asks for before_exec to run in the test's process and waits until it has.
  sem_t hookAsked, hookDone;
  std::atomic<size_t> used;
  char data[(4 << 20) - 64];
};

Shared* Calls() {
  static Shared* shared = [] {
    Shared* s = static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    sem_init(&s->hookAsked, 1, 0);
    sem_init(&s->hookDone, 1, 0);
    return s;
  }();
  return shared;
}
// Made before any fork.
[[maybe_unused]] const Shared* const kMadeAtLoad = Calls();
size_t g_synced = 0;
const pid_t g_testProcess = getpid();

// Runs before_exec here for calls from sandboxed children, which see
// nothing of the test's files; started with the first such call's wait.
void ServeHooks() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::thread([] {
      for (;;) {
        if (sem_wait(&Calls()->hookAsked) != 0) continue;  // EINTR
        Platform& s = State();
        if (s.before_exec && !s.exec_calls.empty()) s.before_exec(s.exec_calls.back());
        sem_post(&Calls()->hookDone);
      }
    }).detach();
  });
}

}  // namespace

// In a forked child: asks the test's process to run the hook, and waits.
void RunHookInTestProcess() {
  sem_post(&Calls()->hookAsked);
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 10;
  while (sem_timedwait(&Calls()->hookDone, &deadline) != 0 && errno == EINTR) {
  }
}

void Append(const std::vector<std::string>& call) {
  std::string rec;
  for (const std::string& f : call) rec.append(f).push_back('\0');
  rec.push_back('\0');
  Shared* s = Calls();
  const size_t at = s->used.fetch_add(rec.size());
  if (at + rec.size() <= sizeof s->data) memcpy(s->data + at, rec.data(), rec.size());
}

Platform& State() {
  static Platform state;
  Shared* s = Calls();
  const size_t used = std::min(s->used.load(), sizeof s->data);
  while (g_synced < used) {
    std::vector<std::string> call;
    for (;;) {
      std::string f(s->data + g_synced);
      g_synced += f.size() + 1;
      if (f.empty()) break;
      call.push_back(f);
    }
    state.exec_calls.push_back(call);
  }
  return state;
}

void Reset() {
  ServeHooks();
  Calls()->used = 0;
  g_synced = 0;
  State() = Platform();
}

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
  kovathumb::fake::Append(call);
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
  if (kovathumb::fake::State().before_exec) {
    if (getpid() == kovathumb::fake::g_testProcess) {
      kovathumb::fake::State().before_exec(kovathumb::fake::State().exec_calls.back());
    } else {
      kovathumb::fake::RunHookInTestProcess();
    }
  }
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
