// JPEG through libjpeg's own API: the DCT scaled down while decoding, so a
// 24 MP photo costs only the pixels its largest thumbnail needs.
#include <errno.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

// jpeglib.h needs size_t and FILE declared first.
#include <jpeglib.h>
#include <jerror.h>

#include <vector>

#include "libkovathumb/quality.h"
#include "quality/decoders.h"

namespace kovathumb {
namespace internal {

namespace {

// What libjpeg may allocate besides the output rows: a progressive file
// keeps all its coefficients (2 bytes each, up to 4 per pixel for CMYK),
// whatever the scale. More is refused, not swapped.
constexpr long kDecoderMemoryBase = 64L << 20;
constexpr long kDecoderBytesPerPixel = 8;

// Progressive files have about ten scans; thousands of repeated ones are
// an attack on time, refused as djpeg's -maxscans does.
constexpr int kMaxScans = 100;

struct ErrorJump {
  jpeg_error_mgr mgr;
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void OnError(j_common_ptr cinfo) {
  auto* e = reinterpret_cast<ErrorJump*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, e->message);
  longjmp(e->jump, 1);
}

// Damaged data is decoded as far as it goes, as browsers show it.
void OnMessage(j_common_ptr, int) {}

void OnProgress(j_common_ptr cinfo) {
  if (cinfo->is_decompressor && reinterpret_cast<j_decompress_ptr>(cinfo)->input_scan_number > kMaxScans) {
    auto* e = reinterpret_cast<ErrorJump*>(cinfo->err);
    snprintf(e->message, sizeof e->message, "more than %d scans", kMaxScans);
    longjmp(e->jump, 1);
  }
}

// Reads the descriptor from its start with pread, so the caller's offset
// stays where it was.
struct FdSource {
  jpeg_source_mgr mgr;
  int fd;
  off_t offset;
  JOCTET buffer[65536];
};

void InitSource(j_decompress_ptr) {}

boolean FillInput(j_decompress_ptr cinfo) {
  auto* s = reinterpret_cast<FdSource*>(cinfo->src);
  ssize_t n;
  do {
    n = pread(s->fd, s->buffer, sizeof s->buffer, s->offset);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    // A truncated file ends where it ends: libjpeg fills what is missing.
    WARNMS(cinfo, JWRN_JPEG_EOF);
    static const JOCTET kEoi[2] = {0xFF, JPEG_EOI};
    s->mgr.next_input_byte = kEoi;
    s->mgr.bytes_in_buffer = 2;
    return TRUE;
  }
  s->offset += n;
  s->mgr.next_input_byte = s->buffer;
  s->mgr.bytes_in_buffer = static_cast<size_t>(n);
  return TRUE;
}

void SkipInput(j_decompress_ptr cinfo, long count) {
  auto* s = reinterpret_cast<FdSource*>(cinfo->src);
  if (count <= 0) return;
  if (static_cast<size_t>(count) <= s->mgr.bytes_in_buffer) {
    s->mgr.next_input_byte += count;
    s->mgr.bytes_in_buffer -= static_cast<size_t>(count);
    return;
  }
  s->offset += count - static_cast<long>(s->mgr.bytes_in_buffer);
  s->mgr.bytes_in_buffer = 0;
}

void TermSource(j_decompress_ptr) {}

// Whether every component's DC coefficients have come, to within their last
// bit (a progressive file refines that bit late, after most AC scans; without
// it a pixel is off by at most an eighth of the DC quantum).
bool DcKnown(j_decompress_ptr cinfo) {
  for (int c = 0; c < cinfo->num_components; ++c) {
    if (cinfo->coef_bits[c][0] < 0 || cinfo->coef_bits[c][0] > 1) return false;
  }
  return true;
}

}  // namespace

bool DecodeJpeg(int fd, const DecodeRequest& request, Image* out, std::string* why) {
  jpeg_decompress_struct cinfo;
  ErrorJump err;
  cinfo.err = jpeg_std_error(&err.mgr);
  err.mgr.error_exit = OnError;
  err.mgr.emit_message = OnMessage;
  err.message[0] = '\0';
  // Heap, not stack: the child's stack is not ours to size.
  std::vector<unsigned char> sourceBlock(sizeof(FdSource));
  auto* src = reinterpret_cast<FdSource*>(sourceBlock.data());
  Image& img = *out;
  if (setjmp(err.jump) != 0) {
    jpeg_destroy_decompress(&cinfo);
    if (why != nullptr) *why = err.message;
    return false;
  }
  jpeg_create_decompress(&cinfo);
  cinfo.mem->max_memory_to_use = kDecoderMemoryBase;
  jpeg_progress_mgr progress = {};
  progress.progress_monitor = OnProgress;
  cinfo.progress = &progress;
  src->fd = fd;
  src->offset = 0;
  src->mgr.init_source = InitSource;
  src->mgr.fill_input_buffer = FillInput;
  src->mgr.skip_input_data = SkipInput;
  src->mgr.resync_to_restart = jpeg_resync_to_restart;
  src->mgr.term_source = TermSource;
  src->mgr.bytes_in_buffer = 0;
  src->mgr.next_input_byte = nullptr;
  cinfo.src = &src->mgr;
  jpeg_save_markers(&cinfo, JPEG_APP0 + 2, 0xFFFF);
  jpeg_read_header(&cinfo, TRUE);

  if (uint64_t{cinfo.image_width} * cinfo.image_height > request.maxPixels) {
    jpeg_destroy_decompress(&cinfo);
    if (why != nullptr) *why = "too many pixels";
    return false;
  }
  cinfo.mem->max_memory_to_use =
      kDecoderMemoryBase + kDecoderBytesPerPixel * static_cast<long>(cinfo.image_width) * cinfo.image_height;
  const bool cmyk = cinfo.num_components == 4;
  if (cmyk) {
    cinfo.out_color_space = JCS_CMYK;  // libjpeg turns YCCK into CMYK
  } else if (cinfo.jpeg_color_space == JCS_GRAYSCALE) {
    cinfo.out_color_space = JCS_GRAYSCALE;
  } else {
    cinfo.out_color_space = JCS_RGB;
  }
  if (request.need.width != 0 && request.need.height != 0) {
    cinfo.scale_num = static_cast<unsigned>(DjpegEighths(cinfo.image_width, cinfo.image_height, request.need));
    cinfo.scale_denom = 8;
  }
  // Every result is reduced further; smoothing the chroma first buys nothing.
  cinfo.do_fancy_upsampling = FALSE;
  // At an eighth only DC coefficients count: a progressive file's first
  // scans carry them, and its AC scans (most of the file) are left unread.
  const bool dcOnly = jpeg_has_multiple_scans(&cinfo) && cinfo.scale_num == 1 && cinfo.scale_denom == 8;
  if (dcOnly) {
    cinfo.buffered_image = TRUE;
    cinfo.do_block_smoothing = FALSE;
  }
  JOCTET* icc = nullptr;
  unsigned int iccLength = 0;
  if (jpeg_read_icc_profile(&cinfo, &icc, &iccLength)) {
    img.colour.icc.assign(reinterpret_cast<const char*>(icc), iccLength);
    free(icc);
  }
  jpeg_start_decompress(&cinfo);
  if (dcOnly) {
    for (;;) {
      const int got = jpeg_consume_input(&cinfo);
      if (got == JPEG_REACHED_EOI || got == JPEG_SUSPENDED || (got == JPEG_SCAN_COMPLETED && DcKnown(&cinfo))) break;
    }
    jpeg_start_output(&cinfo, cinfo.input_scan_number);
  }
  img.width = cinfo.output_width;
  img.height = cinfo.output_height;
  img.channels = cinfo.output_components;
  img.bits = 8;
  img.colour.cmyk = cmyk;
  const size_t stride = size_t{img.width} * static_cast<size_t>(img.channels);
  img.data8.resize(stride * img.height);
  while (cinfo.output_scanline < cinfo.output_height) {
    JSAMPROW row = &img.data8[stride * cinfo.output_scanline];
    jpeg_read_scanlines(&cinfo, &row, 1);
  }
  // Adobe's CMYK is stored inverted; plain CMYK (0 = no ink) from here on.
  if (cmyk && cinfo.saw_Adobe_marker) {
    for (uint8_t& v : img.data8) v = static_cast<uint8_t>(255 - v);
  }
  if (!dcOnly) jpeg_finish_decompress(&cinfo);  // else the rest is not read
  jpeg_destroy_decompress(&cinfo);
  return true;
}

}  // namespace internal
}  // namespace kovathumb
