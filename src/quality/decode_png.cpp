// PNG through libpng: 1 to 16 bits, palette, grey, tRNS, interlaced; colour
// from cICP, iCCP, sRGB or gAMA. PNG has no reduced decode, so rows are
// averaged into whole blocks as they are read: a 12 MP photo never needs its
// full image in memory (an interlaced one does, within the pixel bound).
#include <errno.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "quality/decoders.h"
#include "quality/source_bytes.h"

namespace kovathumb {
namespace internal {

namespace {

// Chunks ancillary to the picture are decompressed into at most this much;
// ICC profiles stay far below.
constexpr png_alloc_size_t kMaxChunkBytes = 8 << 20;
constexpr png_uint_32 kMaxChunksCached = 64;
// Neither side may exceed libpng's own default.
constexpr uint64_t kMaxSide = 1000000;

// What libpng reads, through the descriptor from its start, never past the
// size it had when opened; and what went wrong.
struct Input {
  int fd = -1;
  off_t size = 0;
  off_t offset = 0;
  size_t at = 0, end = 0;  // unread bytes of `buffer`
  std::string why;
  std::vector<png_byte> buffer = std::vector<png_byte>(size_t{64} << 10);
};

void OnRead(png_structp png, png_bytep data, size_t length) {
  auto* in = static_cast<Input*>(png_get_io_ptr(png));
  while (length > 0) {
    if (in->at == in->end) {
      const off_t left = in->size - in->offset;
      if (left <= 0) png_error(png, "the file ends inside the picture");
      const size_t want = static_cast<size_t>(std::min<off_t>(left, static_cast<off_t>(in->buffer.size())));
      const ssize_t got = pread(in->fd, in->buffer.data(), want, in->offset);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) png_error(png, "the file ends inside the picture");
      in->offset += got;
      in->at = 0;
      in->end = static_cast<size_t>(got);
    }
    const size_t n = std::min(length, in->end - in->at);
    memcpy(data, &in->buffer[in->at], n);
    in->at += n;
    data += n;
    length -= n;
  }
}

void OnError(png_structp png, png_const_charp text) {
  static_cast<Input*>(png_get_error_ptr(png))->why.assign("libpng: ").append(text);
  png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

// Sums of `k` x `k` blocks of one band of rows, `C` samples a pixel, the
// last of them alpha when `alpha`: colour is summed premultiplied, so that
// transparent pixels do not darken their neighbours.
struct Blocks {
  uint32_t width = 0, outWidth = 0, k = 1;
  int channels = 3;
  bool alpha = false;
  uint32_t rows = 0;  // in the band so far
  std::vector<uint64_t> sums;

  template <typename T>
  void Add(const T* row) {
    const size_t ch = static_cast<size_t>(channels);
    for (uint32_t x = 0, ox = 0, left = k; x < width; ++x, row += ch) {
      uint64_t* s = &sums[size_t{ox} * ch];
      if (alpha) {
        const uint64_t a = row[ch - 1];
        for (size_t c = 0; c + 1 < ch; ++c) s[c] += row[c] * a;
        s[ch - 1] += a;
      } else {
        for (size_t c = 0; c < ch; ++c) s[c] += row[c];
      }
      if (--left == 0) ++ox, left = k;
    }
    ++rows;
  }

  // Writes the band's averages to `out` and starts the next band.
  template <typename T>
  void Emit(T* out) {
    const size_t ch = static_cast<size_t>(channels);
    for (uint32_t ox = 0; ox < outWidth; ++ox) {
      const uint64_t n = uint64_t{std::min(width, (ox + 1) * k) - ox * k} * rows;
      uint64_t* s = &sums[size_t{ox} * ch];
      T* d = &out[size_t{ox} * ch];
      if (alpha) {
        const uint64_t a = s[ch - 1];
        for (size_t c = 0; c + 1 < ch; ++c) d[c] = static_cast<T>(a == 0 ? 0 : (s[c] + a / 2) / a);
        d[ch - 1] = static_cast<T>((a + n / 2) / n);
      } else {
        for (size_t c = 0; c < ch; ++c) d[c] = static_cast<T>((s[c] + n / 2) / n);
      }
    }
    std::fill(sums.begin(), sums.end(), 0);
    rows = 0;
  }
};

// The block side that still leaves `need` covered: the picture is averaged
// down by it while it is read.
uint32_t ReadFactor(uint32_t w, uint32_t h, ThumbDimension need) {
  if (need.width == 0 || need.height == 0) return 1;
  return std::max<uint32_t>(1, std::min(w / need.width, h / need.height));
}

// The colour the chunks describe, the most specific first.
void TakeColour(png_structp png, png_infop info, ColourDesc* colour) {
  png_unknown_chunkp chunks = nullptr;
  const int count = png_get_unknown_chunks(png, info, &chunks);
  for (int i = 0; i < count; ++i) {
    const png_unknown_chunk& c = chunks[i];
    // cICP: primaries, transfer, matrix (0 for RGB), full range.
    if (memcmp(c.name, "cICP", 4) == 0 && c.size == 4 && c.data[2] == 0) {
      colour->primaries = c.data[0];
      colour->transfer = c.data[1];
      colour->fullRange = c.data[3] != 0;
      return;
    }
  }
  png_charp name = nullptr;
  int compression = 0;
  png_bytep profile = nullptr;
  png_uint_32 length = 0;
  if (png_get_iCCP(png, info, &name, &compression, &profile, &length) != 0 && length > 0) {
    colour->icc.assign(reinterpret_cast<const char*>(profile), length);
    return;
  }
  int intent = 0;
  if (png_get_sRGB(png, info, &intent) != 0) return;
  png_fixed_point gamma = 0;
  if (png_get_gAMA_fixed(png, info, &gamma) != 0 && gamma > 0) colour->gamma = 100000.0 / gamma;
}

// The decode itself: every object it owns lives in `in`, `out` and
// `scratch`, none on this frame, so that libpng's longjmp leaks nothing.
bool Read(png_structp png, png_infop info, const DecodeRequest& request, Input* in, Image* out,
          std::vector<png_byte>* scratch, std::vector<png_bytep>* rows, Blocks* blocks) {
  if (setjmp(png_jmpbuf(png)) != 0) return false;
  png_read_info(png, info);
  const png_uint_32 w = png_get_image_width(png, info), h = png_get_image_height(png, info);
  if (!WithinPixels(w, h, request.maxPixels, &in->why)) return false;
  const int type = png_get_color_type(png, info);
  const int depth = png_get_bit_depth(png, info);
  TakeColour(png, info, &out->colour);
  if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (type == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
  const bool trns = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
  if (trns) png_set_tRNS_to_alpha(png);
  // Grey with alpha as RGBA: the later steps know one, three or four samples.
  if ((type & PNG_COLOR_MASK_COLOR) == 0 && (trns || (type & PNG_COLOR_MASK_ALPHA) != 0)) {
    png_set_gray_to_rgb(png);
    if (out->colour.icc.size() >= 20 && memcmp(out->colour.icc.data() + 16, "GRAY", 4) == 0) out->colour.icc.clear();
  }
  if (depth == 16) png_set_swap(png);
  const int passes = png_set_interlace_handling(png);
  png_read_update_info(png, info);
  out->channels = png_get_channels(png, info);
  out->bits = depth == 16 ? 16 : 8;
  const size_t bytes = depth == 16 ? 2 : 1;
  const size_t rowBytes = png_get_rowbytes(png, info);
  if (rowBytes != size_t{w} * out->channels * bytes || out->channels == 2) png_error(png, "unexpected row layout");

  const uint32_t k = ReadFactor(w, h, request.need);
  out->width = (w + k - 1) / k;
  out->height = (h + k - 1) / k;
  const size_t outSamples = size_t{out->width} * out->height * out->channels;
  if (bytes == 2) out->data16.resize(outSamples); else out->data8.resize(outSamples);
  png_bytep target = bytes == 2 ? reinterpret_cast<png_bytep>(out->data16.data()) : out->data8.data();
  if (k == 1) {
    rows->resize(h);
    for (png_uint_32 y = 0; y < h; ++y) (*rows)[y] = target + rowBytes * y;
    png_read_image(png, rows->data());
    return true;
  }
  *blocks = Blocks{w, out->width, k, out->channels, out->channels == 4, 0, {}};
  blocks->sums.assign(size_t{out->width} * out->channels, 0);
  // Interlaced rows arrive in seven passes: the whole picture is read first.
  const bool whole = passes > 1;
  scratch->resize(rowBytes * (whole ? h : 1));
  if (whole) {
    rows->resize(h);
    for (png_uint_32 y = 0; y < h; ++y) (*rows)[y] = scratch->data() + rowBytes * y;
    png_read_image(png, rows->data());
  }
  const size_t outRowBytes = size_t{out->width} * out->channels * bytes;
  for (png_uint_32 y = 0; y < h; ++y) {
    png_bytep row = scratch->data() + (whole ? rowBytes * y : 0);
    if (!whole) png_read_row(png, row, nullptr);
    if (bytes == 2) blocks->Add(reinterpret_cast<const uint16_t*>(row)); else blocks->Add(row);
    if (blocks->rows == k || y + 1 == h) {
      png_bytep dst = target + outRowBytes * (y / k);
      if (bytes == 2) blocks->Emit(reinterpret_cast<uint16_t*>(dst)); else blocks->Emit(dst);
    }
  }
  return true;
}

}  // namespace

bool DecodePng(int fd, const DecodeRequest& request, Image* out, std::string* why) {
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return *why = "not a regular file", false;
  if (static_cast<uint64_t>(st.st_size) > kMaxSourceBytes) return *why = "source too large", false;
  auto in = std::make_unique<Input>();
  in->fd = fd;
  in->size = st.st_size;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, in.get(), OnError, OnWarning);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (info == nullptr) {
    png_destroy_read_struct(&png, nullptr, nullptr);
    return *why = "libpng cannot start", false;
  }
  const uint64_t side = std::min(kMaxSide, request.maxPixels);
  png_set_user_limits(png, static_cast<png_uint_32>(side), static_cast<png_uint_32>(side));
  png_set_chunk_cache_max(png, kMaxChunksCached);
  png_set_chunk_malloc_max(png, kMaxChunkBytes);
  // Only what bears on the picture is kept: text and the rest are skipped
  // unread, cICP (which this libpng does not know) kept as it stands.
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, 0);
  static const png_byte kSkipped[] = "tEXt\0zTXt\0iTXt\0sPLT\0eXIf\0tIME\0hIST\0pCAL\0sCAL\0";
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, kSkipped, 9);
  static const png_byte kCicp[] = "cICP";
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_ALWAYS, kCicp, 1);
  png_set_read_fn(png, in.get(), OnRead);
  std::vector<png_byte> scratch;
  std::vector<png_bytep> rows;
  Blocks blocks;
  const bool ok = Read(png, info, request, in.get(), out, &scratch, &rows, &blocks);
  png_destroy_read_struct(&png, &info, nullptr);
  if (!ok) *why = in->why.empty() ? "libpng cannot read it" : in->why;
  return ok;
}

}  // namespace internal
}  // namespace kovathumb
