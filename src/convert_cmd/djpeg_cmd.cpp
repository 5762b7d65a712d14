#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "kovaplatform/kovaplatform.h"
#include "kovathumb/convert_cmd.h"
#include "sandbox/sandbox.h"
#include "thumb_info/decisions.h"

namespace kovathumb {

const double DJpegCmd::TOO_SMALL_RATIO = 0.75;

DJpegCmd::DJpegCmd(ThumbInfo info_, const std::string& src_, const std::string& dst_)
    : ThumbConvertCmd(std::move(info_), src_, dst_) {
  CalcScaleString();
  const bool turns = (internal::TurnSum(info.GetRotate(), info.GetUserRotate()) & 3) != 0;
  if (!turns && !info.GetFlop()) {
    outPath = dst;
  } else {
    outPath = dst + "_" + std::to_string(static_cast<long>(time(nullptr)));
  }
  // The input element points into the caller's string, which outlives us.
  argv = {kDjpeg.c_str(), "-scale",  scaleString.c_str(), "-dct",          "fast",       "-fast",
          "-onepass",     "-bmp",    "-outfile",          outPath.c_str(), src_.c_str(), nullptr};
}

DJpegCmd::~DJpegCmd() = default;

int DJpegCmd::CalcScale() const {
  const uint32_t w = info.GetWidth(), h = info.GetHeight();
  const ThumbDimension target = info.GetTargetDimension();
  int s = 0;
  while (s != 3 && (target.width < (w >> s) || target.height < (h >> s))) ++s;
  // Decoded much smaller than the target: decode one step larger, so the
  // converter shrinks rather than enlarges.
  const uint32_t decodedArea = (w * h) >> (2 * s);
  const uint32_t targetArea = target.width * target.height;
  if (static_cast<double>(decodedArea) <= static_cast<double>(targetArea) * TOO_SMALL_RATIO) --s;
  return std::max(s, 0);
}

void DJpegCmd::CalcScaleString() { scaleString = "1/" + std::to_string(1 << CalcScale()); }

int DJpegCmd::GetScale() const { return CalcScale(); }

unsigned DJpegCmd::GetConvertBytes() const {
  const uint32_t area = info.GetWidth() * info.GetHeight();
  return (area >> (2 * CalcScale())) * 3U + 54U;  // 3 bytes a pixel and the BMP header
}

bool DJpegCmd::IsNeedDelete() const { return GetConvertBytes() + 524288U > info.GetFileSize(); }

bool DJpegCmd::exec() {
  if (!sandbox::RunTool(kDjpeg.c_str(), argv.data())) return false;
  if (outPath == dst) return true;
  // From the unchanged `info`: geometry and crop offsets are the full
  // source's though the decoded picture is smaller; kept as the appliance
  // has it.
  ConvertCmd convert(info, outPath, dst);
  const bool ok = convert.exec();
  unlink(outPath.c_str());
  return ok;
}

}  // namespace kovathumb
