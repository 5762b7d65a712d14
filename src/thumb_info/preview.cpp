// The embedded preview: which one makes a thumbnail, and reading it out.
// Everything here runs under ThumbInfo::exiv2_mutex_, taken by ExtractImgInfo.
//
// Exiv2's preview reader can loop and grow without end on a crafted file, so
// the preview is chosen and read in a forked child bounded in time and memory,
// which hands back only the chosen preview's bytes.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <exiv2/exiv2.hpp>
#include <functional>
#include <string>

#include "convert_cmd/tool_files.h"
#include "kovaplatform/kovaplatform.h"
#include "kovathumb/thumb_const.h"
#include "kovathumb/thumb_info.h"
#include "libkovathumb/quality.h"
#include "thumb_info/decisions.h"
#include "util/log.h"
#include "util/safe_fs.h"

namespace kovathumb {

namespace internal {

int ChoosePreview(const std::vector<PreviewProps>& previews, const std::string& sourceMime,
                  ThumbDimension box) {
  // Products wrap in 32 bits on purpose: an unlimited box (2147483647 on
  // both sides) then skips no preview and takes the largest.
  const uint32_t maxW = 2U * box.width;
  const uint32_t maxH = 2U * box.height;
  int best = -1;
  uint32_t bestArea = 0;
  for (size_t i = 0; i < previews.size(); ++i) {
    const PreviewProps& p = previews[i];
    if (p.mimeType == kMimeTiff && sourceMime == "image/x-canon-cr2") continue;
    if (p.width > maxW && p.height > maxH) continue;
    const uint32_t area = p.width * p.height;
    if (best < 0 || area > bestArea) {
      best = static_cast<int>(i);
      bestArea = area;
    }
  }
  if (best < 0) return -1;
  const uint32_t boxArea = box.width * box.height;
  if (static_cast<double>(bestArea) < 0.75 * static_cast<double>(boxArea)) return -1;
  return best;
}

}  // namespace internal

namespace {

// A preview reader that has not answered within this time has lost its way;
// real previews take milliseconds.
constexpr int kPreviewSeconds = 10;
constexpr uint64_t kMaxPreviewBytes = 256ULL << 20;

// An Exiv2 error raised in the child, raised again here as it was.
class ChildExiv2Error : public Exiv2::AnyError {
 public:
  ChildExiv2Error(int code, std::string text) : code_(code), text_(std::move(text)) {}
  int code() const throw() override { return code_; }
  const char* what() const throw() override { return text_.c_str(); }

 private:
  int code_;
  std::string text_;
};

// What the child answers: a status byte, then for kFound the extension and
// the bytes, for kFailed the Exiv2 error's code and text; each string as a
// 64-bit length and its bytes.
enum : char { kNone = 0, kFound = 1, kFailed = 2 };

using safe_fs::WriteAll;

bool WriteString(int fd, const std::string& s) {
  const uint64_t n = s.size();
  return WriteAll(fd, &n, sizeof n) && WriteAll(fd, s.data(), s.size());
}

// Reads exactly `size` bytes before `deadline`.
bool ReadAll(int fd, void* data, size_t size, time_t deadline) {
  char* p = static_cast<char*>(data);
  while (size > 0) {
    const time_t left = deadline - time(nullptr);
    struct pollfd pfd = {fd, POLLIN, 0};
    const int ready = left > 0 ? poll(&pfd, 1, static_cast<int>(left) * 1000) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t n = read(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadString(int fd, std::string* s, time_t deadline) {
  uint64_t n = 0;
  if (!ReadAll(fd, &n, sizeof n, deadline) || n > kMaxPreviewBytes) return false;
  s->resize(static_cast<size_t>(n));
  return ReadAll(fd, &(*s)[0], s->size(), deadline);
}

using PreviewChooser = std::function<int(const std::vector<internal::PreviewProps>&)>;

[[noreturn]] void PreviewChild(Exiv2::Image& image, const PreviewChooser& choose,
                               int out) {
  signal(SIGALRM, SIG_DFL);
  alarm(kPreviewSeconds);
  struct rlimit cpu = {kPreviewSeconds, kPreviewSeconds};
  setrlimit(RLIMIT_CPU, &cpu);
#ifndef KOVATHUMB_SANITIZED
  // Sanitizers reserve far more address space than this.
  struct rlimit as = {KOVA_CHILD_ADDRESS_SPACE, KOVA_CHILD_ADDRESS_SPACE};
  setrlimit(RLIMIT_AS, &as);
#endif
  bool ok;
  try {
    Exiv2::PreviewManager manager(image);
    const Exiv2::PreviewPropertiesList list = manager.getPreviewProperties();
    std::vector<internal::PreviewProps> props;
    props.reserve(list.size());
    for (const Exiv2::PreviewProperties& p : list) props.push_back({p.mimeType_, p.width_, p.height_});
    const int best = choose(props);
    if (best < 0) {
      ok = WriteAll(out, "", 1);
    } else {
      Exiv2::PreviewImage preview = manager.getPreviewImage(list[static_cast<size_t>(best)]);
      const char found = kFound;
      ok = WriteAll(out, &found, 1) && WriteString(out, preview.extension()) &&
           WriteString(out, std::string(reinterpret_cast<const char*>(preview.pData()), preview.size()));
    }
  } catch (const Exiv2::AnyError& e) {
    const char failed = kFailed;
    ok = WriteAll(out, &failed, 1) && WriteString(out, std::to_string(e.code())) &&
         WriteString(out, e.what());
  } catch (...) {
    ok = false;
  }
  _exit(ok ? 0 : 1);
}

// The chosen preview's extension and bytes from a bounded child; false when
// there is none or the child did not answer in time. An Exiv2 error in the
// child is raised here.
bool ReadPreviewInChild(Exiv2::Image& image, const PreviewChooser& choose,
                        std::string* extension, std::string* data) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (pid == 0) {
    close(fds[0]);
    PreviewChild(image, choose, fds[1]);
  }
  close(fds[1]);
  const time_t deadline = time(nullptr) + kPreviewSeconds + 1;
  char status = kNone;
  std::string code, text;
  bool answered = ReadAll(fds[0], &status, 1, deadline);
  if (answered && status == kFound) {
    answered = ReadString(fds[0], extension, deadline) && ReadString(fds[0], data, deadline);
  } else if (answered && status == kFailed) {
    answered = ReadString(fds[0], &code, deadline) && ReadString(fds[0], &text, deadline);
  }
  close(fds[0]);
  kill(pid, SIGKILL);  // done with it either way; one that has exited is unaffected
  int wstatus;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  if (!answered) {
    KT_LOG("Preview reader stopped: no answer within %d s", kPreviewSeconds);
    return false;
  }
  if (status == kFailed) throw ChildExiv2Error(atoi(code.c_str()), text);
  return status == kFound;
}

}  // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void ThumbInfo::ExtractEXIFPreviewInfo(const std::auto_ptr<Exiv2::Image>& image) {
#pragma GCC diagnostic pop
  exifPreviewTmpPath_.clear();
  const PreviewChooser choose = [this](const std::vector<internal::PreviewProps>& props) {
    return quality_ ? internal::ChooseQualityPreview(props, width_, height_, dimension_)
                    : internal::ChoosePreview(props, mimeType_, dimension_);
  };
  std::string extension, data;
  if (!ReadPreviewInChild(*image, choose, &extension, &data)) return;

  // /tmp is everyone's: the file is ours only if we create it, and its name
  // must not be guessable.
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 8; ++attempt) {
    exifPreviewTmpPath_ = "/tmp/thumb." + std::to_string(static_cast<int>(getpid())) + "." +
                          std::to_string(static_cast<long>(time(nullptr))) + "." +
                          std::to_string(internal::RandomNumber()) + extension;
    fd = internal::CreateExclusive(exifPreviewTmpPath_);
  }
  bool written = false;
  if (fd >= 0) {
    // An empty preview is no preview.
    written = !data.empty() && WriteAll(fd, data.data(), data.size());
    if (close(fd) != 0) written = false;
  }
  if (written) {
    UpdateAMTime(exifPreviewTmpPath_);
  } else {
    if (fd >= 0) unlink(exifPreviewTmpPath_.c_str());
    exifPreviewTmpPath_.clear();
    KT_LOG("Write preview to file failed, %s", path_.c_str());
  }
}

}  // namespace kovathumb
