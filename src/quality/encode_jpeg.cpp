// Thumbnails written by libjpeg's own API, into the work directory the
// pipeline was handed.
#include <fcntl.h>
#include <setjmp.h>
#include <stdio.h>
#include <unistd.h>

#include <jpeglib.h>

#include "quality/pipeline.h"

namespace kovathumb {
namespace internal {

namespace {

struct ErrorJump {
  jpeg_error_mgr mgr;
  jmp_buf jump;
};

void OnError(j_common_ptr cinfo) { longjmp(reinterpret_cast<ErrorJump*>(cinfo->err)->jump, 1); }

}  // namespace

JpegParams JpegParamsFor(uint32_t w, uint32_t h) {
  JpegParams p;
  // Larger sizes: 4:2:0 and a quality a step under cjpeg's 85 of old, with
  // optimised Huffman tables: no more bytes, though the reduction keeps more
  // detail. Small tiles show colour edges at their own size: full chroma there,
  // paid for with a lower quality that keeps their bytes where they were.
  if (w <= 160 && h <= 160) {
    p.quality = 80;
    p.fullChroma = true;
  }
  return p;
}

FILE* CreateEncoded(int dir, const std::string& name, std::string* why) {
  const int fd = openat(dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  FILE* f = fd >= 0 ? fdopen(fd, "wb") : nullptr;
  if (f == nullptr) {
    if (fd >= 0) close(fd);
    if (why != nullptr) *why = "cannot create " + name;
  }
  return f;
}

bool EncodeJpeg(const Pixels& pixels, const JpegParams& params, int dir, const std::string& name,
                uint64_t* bytes, std::string* why) {
  FILE* f = CreateEncoded(dir, name, why);
  if (f == nullptr) return false;
  jpeg_compress_struct cinfo;
  ErrorJump err;
  cinfo.err = jpeg_std_error(&err.mgr);
  err.mgr.error_exit = OnError;
  if (setjmp(err.jump) != 0) {
    jpeg_destroy_compress(&cinfo);
    fclose(f);
    if (why != nullptr) *why = "cannot encode " + name;
    return false;
  }
  jpeg_create_compress(&cinfo);
  jpeg_stdio_dest(&cinfo, f);
  cinfo.image_width = pixels.width;
  cinfo.image_height = pixels.height;
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, params.quality, TRUE);
  cinfo.optimize_coding = TRUE;
  const int h = params.fullChroma ? 1 : 2;
  cinfo.comp_info[0].h_samp_factor = h;
  cinfo.comp_info[0].v_samp_factor = h;
  jpeg_start_compress(&cinfo, TRUE);
  const size_t stride = size_t{pixels.width} * 3;
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(&pixels.rgb[stride * cinfo.next_scanline]);
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  const long size = ftell(f);
  if (fclose(f) != 0 || size <= 0) {
    if (why != nullptr) *why = "cannot write " + name;
    return false;
  }
  *bytes = static_cast<uint64_t>(size);
  return true;
}

}  // namespace internal
}  // namespace kovathumb
