// WebP through libwebp: lossy, lossless, with alpha; an animation by its
// first frame. A still picture is decoded straight to the size asked for.
#include <webp/decode.h>
#include <webp/demux.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "quality/decoders.h"
#include "quality/source_bytes.h"

namespace kovathumb {
namespace internal {

ThumbDimension ScaledCover(uint32_t w, uint32_t h, ThumbDimension need) {
  if (need.width == 0 || need.height == 0 || w == 0 || h == 0) return {w, h};
  // The smaller picture whose both sides still reach the asked ones.
  const double f = std::max(double(need.width) / w, double(need.height) / h);
  if (f >= 1) return {w, h};
  auto side = [&](uint32_t v) {
    const uint64_t s = static_cast<uint64_t>(std::ceil(v * f - 1e-9));
    return static_cast<uint32_t>(std::min<uint64_t>(std::max<uint64_t>(s, 1), v));
  };
  return {side(w), side(h)};
}

namespace {

void TakeIcc(const WebPData& data, Image* out) {
  WebPDemuxer* demux = WebPDemux(&data);
  if (demux == nullptr) return;
  WebPChunkIterator chunk;
  if ((WebPDemuxGetI(demux, WEBP_FF_FORMAT_FLAGS) & ICCP_FLAG) && WebPDemuxGetChunk(demux, "ICCP", 1, &chunk)) {
    out->colour.icc.assign(reinterpret_cast<const char*>(chunk.chunk.bytes), chunk.chunk.size);
    WebPDemuxReleaseChunkIterator(&chunk);
  }
  WebPDemuxDelete(demux);
}

bool FirstFrame(const WebPData& data, const DecodeRequest& request, Image* out, std::string* why) {
  WebPAnimDecoderOptions options;
  if (!WebPAnimDecoderOptionsInit(&options)) return *why = "libwebp version mismatch", false;
  options.color_mode = MODE_RGBA;
  options.use_threads = 0;
  WebPAnimDecoder* dec = WebPAnimDecoderNew(&data, &options);
  if (dec == nullptr) return *why = "libwebp cannot read the animation", false;
  WebPAnimInfo info;
  uint8_t* frame = nullptr;
  int timestamp = 0;
  bool ok = WebPAnimDecoderGetInfo(dec, &info) && WithinPixels(info.canvas_width, info.canvas_height, request.maxPixels, why);
  if (ok && !(WebPAnimDecoderGetNext(dec, &frame, &timestamp) && frame != nullptr)) {
    ok = false;
    *why = "libwebp cannot decode the first frame";
  }
  if (ok) {
    out->width = info.canvas_width;
    out->height = info.canvas_height;
    out->channels = 4;
    out->bits = 8;
    out->data8.assign(frame, frame + size_t{out->width} * out->height * 4);
  }
  WebPAnimDecoderDelete(dec);
  return ok;
}

}  // namespace

bool DecodeWebp(int fd, const DecodeRequest& request, Image* out, std::string* why) {
  std::vector<uint8_t> bytes;
  if (!ReadSource(fd, &bytes, why)) return false;
  WebPDecoderConfig config;
  if (!WebPInitDecoderConfig(&config)) return *why = "libwebp version mismatch", false;
  if (WebPGetFeatures(bytes.data(), bytes.size(), &config.input) != VP8_STATUS_OK) {
    return *why = "not a WebP libwebp reads", false;
  }
  const WebPData data{bytes.data(), bytes.size()};
  // An animation's canvas is allocated with its decoder: refused first.
  const uint32_t w = static_cast<uint32_t>(config.input.width), h = static_cast<uint32_t>(config.input.height);
  if (!WithinPixels(w, h, request.maxPixels, why)) return false;
  TakeIcc(data, out);
  if (config.input.has_animation) return FirstFrame(data, request, out, why);
  const ThumbDimension size = ScaledCover(w, h, request.need);
  if (size.width != w || size.height != h) {
    config.options.use_scaling = 1;
    config.options.scaled_width = static_cast<int>(size.width);
    config.options.scaled_height = static_cast<int>(size.height);
  }
  out->width = size.width;
  out->height = size.height;
  out->channels = config.input.has_alpha ? 4 : 3;
  out->bits = 8;
  out->data8.resize(size_t{size.width} * size.height * out->channels);
  config.output.colorspace = config.input.has_alpha ? MODE_RGBA : MODE_RGB;
  config.output.is_external_memory = 1;
  config.output.u.RGBA.rgba = out->data8.data();
  config.output.u.RGBA.stride = static_cast<int>(size.width * out->channels);
  config.output.u.RGBA.size = out->data8.size();
  const VP8StatusCode status = WebPDecode(bytes.data(), bytes.size(), &config);
  WebPFreeDecBuffer(&config.output);
  if (status != VP8_STATUS_OK) return *why = "libwebp cannot decode it (status " + std::to_string(status) + ")", false;
  return true;
}

}  // namespace internal
}  // namespace kovathumb
