#include "thumb_info/probe.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <cstdlib>
#include <exception>
#include <exiv2/exiv2.hpp>

#include "kovaplatform/kovaplatform.h"
#include "kovathumb/log.h"
#include "sandbox/sandbox.h"
#include "thumb_info/exiv2_io.h"
#include "util/log.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace internal {

namespace {

// A reader that has not answered within this time has lost its way; real
// probes and previews take milliseconds.
constexpr unsigned kProbeSeconds = 10;
constexpr size_t kMaxPreviewBytes = size_t{256} << 20;
constexpr size_t kMaxText = 4096;
constexpr size_t kMaxListed = 16;  // previews; raws have a handful

// The child's log lines, sent back with its answer: it has no way to the
// system log, and the lines are the parent's to write.
std::vector<std::string> g_childLog;

void Collect(int priority, const char* line) {
  if (g_childLog.size() < 64) g_childLog.push_back(std::to_string(priority) + ":" + std::string(line).substr(0, kMaxText));
}

void Put(std::string* out, const std::string& s) {
  const uint64_t n = s.size();
  out->append(reinterpret_cast<const char*>(&n), sizeof n).append(s);
}

bool Take(const std::string& in, size_t* at, size_t max, std::string* s) {
  uint64_t n = 0;
  if (in.size() - *at < sizeof n) return false;
  memcpy(&n, in.data() + *at, sizeof n);
  *at += sizeof n;
  if (n > max || in.size() - *at < n) return false;
  s->assign(in, *at, static_cast<size_t>(n));
  *at += static_cast<size_t>(n);
  return true;
}

bool Number(const std::string& s, uint64_t max, uint64_t* n) {
  if (s.empty() || s.size() > 10 || s.find_first_not_of("0123456789") != std::string::npos) return false;
  *n = strtoull(s.c_str(), nullptr, 10);
  return *n <= max;
}

// Exiv2 0.27's preview readers also throw standard exceptions of their own
// (its overflow checks, its containers' bounds) on a crafted file: a preview
// that cannot be read is no preview, and the image's facts stand. Its own
// errors keep failing the probe, as they always have.
template <typename F>
bool OrNoPreview(const F& read) {
  try {
    return read();
  } catch (const Exiv2::AnyError&) {
    throw;
  } catch (const std::exception&) {
    return false;
  }
}

Probed Read(const ProbeRequest& r) {
  Probed out;
  try {
    // Exiv2 0.27 takes and gives std::auto_ptr, which clang flags when
    // named; null for a type it does not know.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    auto image = Exiv2::ImageFactory::open(Exiv2::BasicIo::AutoPtr(NewPinnedIo(r.fd, r.pinnedPath)));
#pragma GCC diagnostic pop
    if (image.get() == nullptr) throw Exiv2::Error(Exiv2::kerFileContainsUnknownImageType, r.pinnedPath);
    if (IsVideoContainer(*image)) throw Exiv2::Error(Exiv2::kerFileContainsUnknownImageType, r.path);
    image->readMetadata();
    out.mime = image->mimeType();
    out.width = static_cast<uint32_t>(image->pixelWidth());
    out.height = static_cast<uint32_t>(image->pixelHeight());
    if (r.preview) {
      out.previewFound =
          OrNoPreview([&] { return ReadChosenPreview(*image, r.choosePreview, &out.extension, &out.data); });
    }
    if (r.facts) {
      out.index = r.orientation(*image);
      out.previewsListed = OrNoPreview([&] { return ListPreviews(*image, kMaxListed, &out.previews); });
    }
  } catch (const Exiv2::AnyError& e) {
    out = Probed();
    out.failed = true;
    out.code = e.code();
    out.text = e.what();
  } catch (const std::exception& e) {
    out = Probed();
    out.failed = true;
    out.code = Exiv2::kerErrorMessage;
    out.text = e.what();
  }
  return out;
}

}  // namespace

std::string Encode(const Probed& p) {
  std::string out;
  for (const std::string& s : {std::string(p.failed ? "1" : "0"), std::to_string(p.code), p.text, p.mime,
                               std::to_string(p.width), std::to_string(p.height), std::to_string(p.index),
                               std::string(p.previewFound ? "1" : "0"), p.extension, p.data}) {
    Put(&out, s);
  }
  Put(&out, p.previewsListed ? std::to_string(p.previews.size()) : "-");
  for (const PreviewProps& v : p.previews) {
    for (const std::string& s : {v.mimeType, std::to_string(v.width), std::to_string(v.height)}) Put(&out, s);
  }
  return out;
}

bool Decode(const std::string& in, Probed* p) {
  std::string f[10];
  size_t at = 0;
  const size_t max[10] = {1, 10, kMaxText, 128, 10, 10, 10, 1, 16, kMaxPreviewBytes};
  for (int i = 0; i < 10; ++i) {
    if (!Take(in, &at, max[i], &f[i])) return false;
  }
  uint64_t code, w, h, index;
  if (!Number(f[1], 1u << 16, &code) || !Number(f[4], UINT32_MAX, &w) || !Number(f[5], UINT32_MAX, &h) ||
      !Number(f[6], 64, &index) || (f[0] != "0" && f[0] != "1") || (f[7] != "0" && f[7] != "1")) {
    return false;
  }
  // An extension is a dot and letters or digits: it becomes part of a name.
  if (!f[8].empty() && (f[8][0] != '.' || f[8].find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789", 1) !=
                                              std::string::npos)) {
    return false;
  }
  p->failed = f[0] == "1";
  p->code = static_cast<int>(code);
  p->text = f[2];
  p->mime = f[3];
  p->width = static_cast<uint32_t>(w);
  p->height = static_cast<uint32_t>(h);
  p->index = static_cast<int>(index);
  p->previewFound = f[7] == "1";
  p->extension = f[8];
  p->data = f[9];
  std::string listed;
  uint64_t count = 0;
  if (!Take(in, &at, 2, &listed) || (listed != "-" && !Number(listed, kMaxListed, &count))) return false;
  p->previewsListed = listed != "-";
  p->previews.clear();
  for (uint64_t i = 0; i < count; ++i) {
    std::string mime, w, h;
    uint64_t width, height;
    if (!Take(in, &at, 128, &mime) || !Take(in, &at, 10, &w) || !Take(in, &at, 10, &h) ||
        !Number(w, UINT32_MAX, &width) || !Number(h, UINT32_MAX, &height)) {
      return false;
    }
    p->previews.push_back({mime, static_cast<uint32_t>(width), static_cast<uint32_t>(height)});
  }
  // What remains are the child's log lines.
  for (std::string line; at < in.size();) {
    if (!Take(in, &at, kMaxText + 16, &line)) return false;
    const size_t colon = line.find(':');
    uint64_t priority;
    if (colon == std::string::npos || !Number(line.substr(0, colon), 1023, &priority)) return false;
    LogRaw(static_cast<int>(priority), "%s", line.c_str() + colon + 1);
  }
  return true;
}

Probed ProbeInSandbox(const ProbeRequest& r, size_t orientations) {
  Probed out;
  if (r.fd < 0) {  // there, but not readable by us
    const Exiv2::Error e(Exiv2::kerDataSourceOpenFailed, r.path, strerror(EACCES));
    out.failed = true;
    out.code = e.code();
    out.text = e.what();
    return out;
  }
  sandbox::Spec spec;
  spec.keep = {r.fd};
  spec.opensNothing = true;
  spec.limits.wallSeconds = kProbeSeconds;
  spec.limits.cpuSeconds = kProbeSeconds;
  spec.limits.addressSpace = KOVA_CHILD_ADDRESS_SPACE;
  std::string reply;
  int status = -1;
  const sandbox::Outcome o = sandbox::Run(spec, [&](int fd) {
    g_childLog.clear();
    SetLogToStderr(false);  // the parent writes them, to standard error too when asked
    SetLogSink(Collect);
    RouteExiv2Log();
    std::string answer = Encode(Read(r));
    SetLogSink(nullptr);
    for (const std::string& line : g_childLog) Put(&answer, line);
    return safe_fs::WriteAll(fd, answer.data(), answer.size()) ? 0 : 1;
  }, &reply, kMaxPreviewBytes + (1u << 20), &status);
  if (o == sandbox::kExited && status == 0 && Decode(reply, &out) && (out.failed || out.index >= 0) &&
      static_cast<size_t>(out.index) < orientations) {
    return out;
  }
  out = Probed();
  if (!r.facts) {
    KT_LOG("Preview reader stopped: no answer within %d s", static_cast<int>(kProbeSeconds));
    return out;
  }
  out.failed = true;
  out.code = Exiv2::kerErrorMessage;
  out.text = o == sandbox::kRefused ? "the sandbox could not be entered: not read" : "the reader stopped";
  return out;
}

}  // namespace internal
}  // namespace kovathumb
