// HEIF and AVIF (8 to 12 bits; an image sequence by its primary image)
// through libheif, with the file's nclx code points or ICC profile. libheif
// applies the file's rotation and mirroring; the YUV matrix is its too.
#include <libheif/heif.h>

#include <cstring>
#include <memory>

#include "quality/formats_module.h"
#include "quality/heif_brands.h"
#include "quality/source_bytes.h"

namespace kovathumb {
namespace internal {
namespace {

struct Freer {
  void operator()(heif_context* c) const { heif_context_free(c); }
  void operator()(heif_image_handle* h) const { heif_image_handle_release(h); }
  void operator()(heif_image* i) const { heif_image_release(i); }
  void operator()(heif_decoding_options* o) const { heif_decoding_options_free(o); }
};
template <typename T>
using Owned = std::unique_ptr<T, Freer>;

bool Failed(const heif_error& e, std::string* why) {
  if (e.code == heif_error_Ok) return false;
  *why = std::string("libheif: ") + (e.message != nullptr ? e.message : "error");
  return true;
}

void TakeColour(const heif_image_handle* h, ColourDesc* colour) {
  const heif_color_profile_type type = heif_image_handle_get_color_profile_type(h);
  if (type == heif_color_profile_type_nclx) {
    heif_color_profile_nclx* nclx = nullptr;
    if (heif_image_handle_get_nclx_color_profile(h, &nclx).code == heif_error_Ok && nclx != nullptr) {
      colour->primaries = nclx->color_primaries;
      colour->transfer = nclx->transfer_characteristics;
      colour->matrix = nclx->matrix_coefficients;
      colour->fullRange = nclx->full_range_flag != 0;
      heif_nclx_color_profile_free(nclx);
    }
  } else if (type == heif_color_profile_type_prof || type == heif_color_profile_type_rICC) {
    const size_t size = heif_image_handle_get_raw_color_profile_size(h);
    std::string icc(size, '\0');
    if (size != 0 && heif_image_handle_get_raw_color_profile(h, &icc[0]).code == heif_error_Ok) colour->icc = icc;
  }
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb

using namespace kovathumb::internal;

extern "C" __attribute__((visibility("default"))) bool kovathumb_decode_heif(int fd, const DecodeRequest& request,
                                                                            Image* out, std::string* why) {
  std::vector<uint8_t> bytes;
  if (!ReadSource(fd, &bytes, why)) return false;
  SequenceOnlyBrands(bytes.data(), bytes.size(), true);  // its primary image, then
  Owned<heif_context> ctx(heif_context_alloc());
  if (!ctx) return *why = "libheif: out of memory", false;
  heif_context_set_maximum_image_size_limit(ctx.get(), 1 << 16);
  if (Failed(heif_context_read_from_memory_without_copy(ctx.get(), bytes.data(), bytes.size(), nullptr), why)) {
    return false;
  }
  heif_image_handle* raw = nullptr;
  if (Failed(heif_context_get_primary_image_handle(ctx.get(), &raw), why)) return false;
  Owned<heif_image_handle> handle(raw);
  const int w = heif_image_handle_get_width(handle.get()), h = heif_image_handle_get_height(handle.get());
  if (w <= 0 || h <= 0 || !WithinPixels(uint64_t(w), uint64_t(h), request.maxPixels, why)) return false;
  const int luma = heif_image_handle_get_luma_bits_per_pixel(handle.get());
  const bool alpha = heif_image_handle_has_alpha_channel(handle.get()) != 0;
  const bool deep = luma > 8;
  TakeColour(handle.get(), &out->colour);
  const heif_chroma chroma = deep ? (alpha ? heif_chroma_interleaved_RRGGBBAA_LE : heif_chroma_interleaved_RRGGBB_LE)
                                  : (alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB);
  Owned<heif_decoding_options> options(heif_decoding_options_alloc());
  options->convert_hdr_to_8bit = 0;
  heif_image* decoded = nullptr;
  if (Failed(heif_decode_image(handle.get(), &decoded, heif_colorspace_RGB, chroma, options.get()), why)) return false;
  Owned<heif_image> image(decoded);
  int stride = 0;
  const uint8_t* plane = heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
  const int iw = heif_image_get_width(image.get(), heif_channel_interleaved);
  const int ih = heif_image_get_height(image.get(), heif_channel_interleaved);
  if (plane == nullptr || iw <= 0 || ih <= 0 || !WithinPixels(uint64_t(iw), uint64_t(ih), request.maxPixels, why)) {
    if (why->empty()) *why = "libheif gave no picture";
    return false;
  }
  out->width = static_cast<uint32_t>(iw);
  out->height = static_cast<uint32_t>(ih);
  out->channels = alpha ? 4 : 3;
  const size_t row = size_t(iw) * out->channels;
  if (deep) {
    out->bits = heif_image_get_bits_per_pixel_range(image.get(), heif_channel_interleaved);
    if (out->bits <= 8 || out->bits > 16) return *why = "unexpected sample depth", false;
    out->data16.resize(row * ih);
    for (int y = 0; y < ih; ++y) {
      const uint8_t* p = plane + size_t(stride) * y;
      for (size_t i = 0; i < row; ++i) out->data16[row * y + i] = static_cast<uint16_t>(p[2 * i] | p[2 * i + 1] << 8);
    }
  } else {
    out->bits = 8;
    out->data8.resize(row * ih);
    for (int y = 0; y < ih; ++y) memcpy(&out->data8[row * y], plane + size_t(stride) * y, row);
  }
  return true;
}
