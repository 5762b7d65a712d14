// JPEG XL through libjxl (single-threaded: the sandbox gives one core's
// worth anyway). Colour from the encoded profile, as code points where they
// say it all, else as the ICC profile libjxl gives. The orientation is kept
// for the pipeline to apply, as for every other type.
#include <jxl/decode.h>

#include <cmath>
#include <cstring>
#include <memory>

#include "quality/formats_module.h"
#include "quality/source_bytes.h"

namespace kovathumb {
namespace internal {
namespace {

struct Freer {
  void operator()(JxlDecoder* d) const { JxlDecoderDestroy(d); }
};
using Decoder = std::unique_ptr<JxlDecoder, Freer>;

// CICP code points for an encoded profile; false when it needs the ICC one.
bool ToCicp(const JxlColorEncoding& e, ColourDesc* c) {
  if (e.color_space == JXL_COLOR_SPACE_GRAY) {
    c->primaries = 1;
  } else if (e.color_space == JXL_COLOR_SPACE_RGB && e.white_point == JXL_WHITE_POINT_D65) {
    switch (e.primaries) {
      case JXL_PRIMARIES_SRGB: c->primaries = 1; break;
      case JXL_PRIMARIES_2100: c->primaries = 9; break;
      case JXL_PRIMARIES_P3: c->primaries = 12; break;
      default: return false;
    }
  } else {
    return false;
  }
  switch (e.transfer_function) {
    case JXL_TRANSFER_FUNCTION_SRGB: c->transfer = 13; break;
    case JXL_TRANSFER_FUNCTION_709: c->transfer = 1; break;
    case JXL_TRANSFER_FUNCTION_LINEAR: c->transfer = 8; break;
    case JXL_TRANSFER_FUNCTION_PQ: c->transfer = 16; break;
    case JXL_TRANSFER_FUNCTION_HLG: c->transfer = 18; break;
    case JXL_TRANSFER_FUNCTION_GAMMA:
      if (std::fabs(e.gamma - 1 / 2.2) > 0.002) return false;
      c->transfer = 4;
      break;
    default: return false;
  }
  return true;
}

void TakeColour(JxlDecoder* dec, ColourDesc* c) {
  JxlColorEncoding e;
  if (JxlDecoderGetColorAsEncodedProfile(dec, nullptr, JXL_COLOR_PROFILE_TARGET_DATA, &e) == JXL_DEC_SUCCESS &&
      ToCicp(e, c)) {
    return;
  }
  size_t size = 0;
  if (JxlDecoderGetICCProfileSize(dec, nullptr, JXL_COLOR_PROFILE_TARGET_DATA, &size) != JXL_DEC_SUCCESS) return;
  std::string icc(size, '\0');
  if (size != 0 && JxlDecoderGetColorAsICCProfile(dec, nullptr, JXL_COLOR_PROFILE_TARGET_DATA,
                                                  reinterpret_cast<uint8_t*>(&icc[0]), size) == JXL_DEC_SUCCESS) {
    c->icc = icc;
  }
}

// Runs libjxl over `bytes` until its basic information (`out` null) or the
// first frame is there.
bool Run(const std::vector<uint8_t>& bytes, const DecodeRequest* request, Image* out, JxlBasicInfo* info,
         std::string* why) {
  Decoder dec(JxlDecoderCreate(nullptr));
  if (!dec) return *why = "libjxl: out of memory", false;
  const int events = out == nullptr ? JXL_DEC_BASIC_INFO : JXL_DEC_BASIC_INFO | JXL_DEC_COLOR_ENCODING | JXL_DEC_FULL_IMAGE;
  if (JxlDecoderSubscribeEvents(dec.get(), events) != JXL_DEC_SUCCESS ||
      JxlDecoderSetKeepOrientation(dec.get(), JXL_TRUE) != JXL_DEC_SUCCESS ||
      JxlDecoderSetInput(dec.get(), bytes.data(), bytes.size()) != JXL_DEC_SUCCESS) {
    return *why = "libjxl refused its settings", false;
  }
  JxlDecoderCloseInput(dec.get());
  JxlPixelFormat format{3, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  for (;;) {
    switch (JxlDecoderProcessInput(dec.get())) {
      case JXL_DEC_BASIC_INFO:
        if (JxlDecoderGetBasicInfo(dec.get(), info) != JXL_DEC_SUCCESS) return *why = "libjxl: no basic information", false;
        if (out == nullptr) return true;
        if (!WithinPixels(info->xsize, info->ysize, request->maxPixels, why)) return false;
        format.num_channels = info->num_color_channels + (info->alpha_bits != 0 ? 1 : 0);
        format.data_type = info->bits_per_sample > 8 ? JXL_TYPE_UINT16 : JXL_TYPE_UINT8;
        out->width = info->xsize;
        out->height = info->ysize;
        out->channels = static_cast<int>(format.num_channels);
        out->bits = info->bits_per_sample > 8 ? 16 : 8;
        out->orientation = static_cast<int>(info->orientation);
        if (out->channels == 2) return *why = "grey with alpha is not supported", false;
        break;
      case JXL_DEC_COLOR_ENCODING:
        TakeColour(dec.get(), &out->colour);
        break;
      case JXL_DEC_NEED_IMAGE_OUT_BUFFER: {
        size_t size = 0;
        if (JxlDecoderImageOutBufferSize(dec.get(), &format, &size) != JXL_DEC_SUCCESS) return *why = "libjxl: no buffer size", false;
        void* at;
        if (out->bits == 8) {
          out->data8.resize(size);
          at = out->data8.data();
        } else {
          out->data16.resize(size / 2);
          at = out->data16.data();
        }
        if (JxlDecoderSetImageOutBuffer(dec.get(), &format, at, size) != JXL_DEC_SUCCESS) {
          return *why = "libjxl refused the buffer", false;
        }
        break;
      }
      case JXL_DEC_FULL_IMAGE:  // the first frame is enough
        return true;
      case JXL_DEC_SUCCESS:
        return *why = "libjxl: no picture in the file", false;
      case JXL_DEC_NEED_MORE_INPUT:
        return *why = "libjxl: the file ends early", false;
      default:
        return *why = "libjxl cannot decode it", false;
    }
  }
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb

using namespace kovathumb::internal;

extern "C" __attribute__((visibility("default"))) bool kovathumb_probe_jxl(int fd, KovathumbModernFacts* facts) {
  memset(facts, 0, sizeof *facts);
  std::vector<uint8_t> head(64 * 1024);
  const ssize_t got = pread(fd, head.data(), head.size(), 0);
  head.resize(got > 0 ? static_cast<size_t>(got) : 0);
  std::string why;
  JxlBasicInfo info;
  bool ok = Run(head, nullptr, nullptr, &info, &why);
  if (!ok && head.size() == 64 * 1024) {  // boxes before the codestream: the whole file
    ok = ReadSource(fd, &head, &why) && Run(head, nullptr, nullptr, &info, &why);
  }
  if (!ok) {
    strncpy(facts->message, why.c_str(), sizeof facts->message - 1);
    return false;
  }
  facts->width = info.xsize;
  facts->height = info.ysize;
  facts->orientation = static_cast<int>(info.orientation);
  return true;
}

extern "C" __attribute__((visibility("default"))) bool kovathumb_decode_jxl(int fd, const DecodeRequest& request,
                                                                           Image* out, std::string* why) {
  std::vector<uint8_t> bytes;
  if (!ReadSource(fd, &bytes, why)) return false;
  JxlBasicInfo info;
  return Run(bytes, &request, out, &info, why);
}
