// Microbenchmarks of the library's own work. Fixture paths come from the
// environment: BENCH_JPEG (a large JPEG) and BENCH_HEIC (a HEIC with Exif).
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kovathumb/convert_cmd.h"
#include "kovathumb/thumb_info.h"
#include "sandbox/sandbox.h"
#include "thumb_info/decisions.h"

namespace {

using kovathumb::ThumbInfo;

std::string Fixture(const char* var) {
  const char* v = std::getenv(var);
  return v != nullptr ? v : "";
}

void Extract(benchmark::State& state, const char* var, bool withPreview) {
  const std::string path = Fixture(var);
  if (path.empty()) {
    state.SkipWithError((std::string(var) + " is not set").c_str());
    return;
  }
  for (auto _ : state) {
    ThumbInfo info(path, "big", {640, 640});
    info.ExtractImgInfo(withPreview);
    const std::string preview = info.GetEXIFPreviewTmpPath();
    if (!preview.empty()) unlink(preview.c_str());
    benchmark::DoNotOptimize(info.GetWidth());
  }
}

void BM_ExtractJpeg(benchmark::State& state) { Extract(state, "BENCH_JPEG", false); }
void BM_ExtractJpegWithPreview(benchmark::State& state) { Extract(state, "BENCH_JPEG", true); }
void BM_ExtractHeic(benchmark::State& state) { Extract(state, "BENCH_HEIC", false); }

ThumbInfo Probed() {
  ThumbInfo info(Fixture("BENCH_JPEG").empty() ? "/dev/null" : Fixture("BENCH_JPEG"), "big", {640, 640});
  try {
    info.ExtractImgInfo(false);
  } catch (...) {
  }
  info.SetUserRotate(1);
  return info;
}

void BM_NameBuilders(benchmark::State& state) {
  const ThumbInfo info = Probed();
  for (auto _ : state) {
    benchmark::DoNotOptimize(info.GetPictavoThumbEAName());
    benchmark::DoNotOptimize(info.GetDossivaThumbEAName());
    benchmark::DoNotOptimize(info.GetDossivaTmpThumbEAName());
    benchmark::DoNotOptimize(info.GetAvatarThumbEAName());
  }
}

void BM_ChoosePreview(benchmark::State& state) {
  const std::vector<kovathumb::internal::PreviewProps> previews = {
      {"image/jpeg", 160, 120}, {"image/jpeg", 1616, 1080}, {"image/tiff", 6000, 4000}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(kovathumb::internal::ChoosePreview(previews, "image/x-nikon-nef", {640, 640}));
  }
}

void BM_ArgvComposition(benchmark::State& state) {
  const ThumbInfo info = Probed();
  const std::string src = "/photos/2024/IMG_0001.JPG", dst = "/photos/2024/.kovaea/IMG_0001.JPG/t.jpg";
  for (auto _ : state) {
    kovathumb::ConvertCmd convert(info, src, dst);
    kovathumb::DJpegCmd djpeg(info, src, dst);
    kovathumb::JpegTranCmd jpegtran(info, src, "", true);
    benchmark::DoNotOptimize(djpeg.GetConvertBytes());
  }
}

// A tool start as the per-photo tool path paid it, /bin/true standing for
// the tool: in a sandbox child (range 1) or a bare spawn (0). The CPU of the
// children, per start, is the counter.
void BM_ToolStart(benchmark::State& state) {
  const char* const argv[] = {"true", nullptr};
  const auto cpuMs = [] {
    rusage r;
    getrusage(RUSAGE_CHILDREN, &r);
    return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1e3 + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e3;
  };
  const double before = cpuMs();
  for (auto _ : state) {
    if (state.range(0) == 1) {
      benchmark::DoNotOptimize(kovathumb::sandbox::RunTool("/bin/true", argv));
    } else {
      pid_t pid = -1;
      int status = 0;
      posix_spawn(&pid, "/bin/true", nullptr, nullptr, const_cast<char* const*>(argv), environ);
      waitpid(pid, &status, 0);
    }
  }
  state.counters["child_cpu_ms"] = benchmark::Counter(cpuMs() - before, benchmark::Counter::kAvgIterations);
}

// A sandbox child with an empty body: the full file view (range 0) or
// none, for a body that opens nothing (1).
void BM_SandboxRun(benchmark::State& state) {
  kovathumb::sandbox::Spec spec;
  spec.opensNothing = state.range(0) == 1;
  for (auto _ : state) {
    int status = -1;
    benchmark::DoNotOptimize(kovathumb::sandbox::Run(spec, [](int) { return 0; }, nullptr, 0, &status));
  }
}

BENCHMARK(BM_ExtractJpeg)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ExtractJpegWithPreview)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ExtractHeic)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_NameBuilders);
BENCHMARK(BM_ChoosePreview);
BENCHMARK(BM_ArgvComposition);
BENCHMARK(BM_SandboxRun)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(200);
BENCHMARK(BM_ToolStart)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(100);

}  // namespace

BENCHMARK_MAIN();
