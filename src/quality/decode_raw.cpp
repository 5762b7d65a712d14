// Raw files by the camera's own largest preview, never by developing the
// raw data. A CR3's previews are read from its boxes here (LibRaw 0.20
// gives up on a CR3 whose raw data is damaged or missing, and a preview
// needs none of it); other raws, and a CR3 asked for more than its previews
// hold, through LibRaw's unpack_thumb(). JPEG previews are decoded by
// libjpeg at the smallest eighth that covers the size asked for.
#include <stddef.h>
#include <stdio.h>
#include <jpeglib.h>
#include <libraw/libraw.h>
#include <setjmp.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

#include "quality/formats_module.h"
#include "quality/source_bytes.h"

namespace kovathumb {
namespace internal {
namespace {

uint32_t Be32(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }
uint32_t Be16(const uint8_t* p) { return uint32_t{p[0]} << 8 | p[1]; }

// IFD0's short or long value of `tag` in a TIFF structure, or 0.
uint32_t TiffTag(const uint8_t* t, size_t n, uint16_t tag) {
  if (n < 8) return 0;
  const bool le = t[0] == 'I' && t[1] == 'I';
  if (!le && !(t[0] == 'M' && t[1] == 'M')) return 0;
  auto u16 = [&](size_t at) { return le ? uint32_t(t[at] | t[at + 1] << 8) : Be16(t + at); };
  auto u32 = [&](size_t at) { return le ? u16(at) | u16(at + 2) << 16 : Be32(t + at); };
  const size_t ifd = u32(4);
  if (ifd > n - 2) return 0;
  const size_t count = u16(ifd);
  for (size_t i = 0; i < count && ifd + 2 + 12 * (i + 1) <= n; ++i) {
    const size_t e = ifd + 2 + 12 * i;
    if (u16(e) != tag) continue;
    const uint32_t type = u16(e + 2);
    return type == 3 ? u16(e + 8) : type == 4 ? u32(e + 8) : 0;
  }
  return 0;
}

struct Preview {
  size_t at = 0, size = 0;  // the JPEG's bytes in the file
  uint32_t width = 0, height = 0;
};

struct Cr3 {
  uint32_t width = 0, height = 0;
  int orientation = 0;
  std::vector<Preview> previews;
  bool cut = false;  // the file ends inside a box: its raw data is not all there
};

const uint8_t kCanonUuid[16] = {0x85, 0xc0, 0xb6, 0x87, 0x82, 0x0f, 0x11, 0xe0,
                                0x81, 0x11, 0xf4, 0xce, 0x46, 0x2b, 0x6a, 0x48};
const uint8_t kPreviewUuid[16] = {0xea, 0xf4, 0x2b, 0x5e, 0x1c, 0x98, 0x4b, 0x88,
                                  0xb9, 0xfb, 0xb7, 0xdc, 0x40, 0x6e, 0x4d, 0x16};

// The boxes in [from, to) of `d`, each as (type, payload start, end);
// false when one runs past `to` (the file was cut short).
template <typename Visit>
bool Boxes(const uint8_t* d, size_t from, size_t to, int depth, const Visit& visit) {
  for (size_t at = from; depth < 4 && at + 8 <= to;) {
    uint64_t size = Be32(d + at);
    size_t head = 8;
    if (size == 1 && at + 16 <= to) {
      size = uint64_t{Be32(d + at + 8)} << 32 | Be32(d + at + 12);
      head = 16;
    } else if (size == 0) {
      size = to - at;
    }
    if (size < head || size > to - at) return false;
    visit(d + at + 4, at + head, static_cast<size_t>(at + size), depth);
    at += static_cast<size_t>(size);
  }
  return true;
}

void AddPreview(const uint8_t* d, size_t jpeg, size_t declared, size_t end, uint32_t w, uint32_t h, Cr3* out) {
  if (jpeg + 2 > end || d[jpeg] != 0xFF || d[jpeg + 1] != 0xD8) return;
  out->previews.push_back({jpeg, std::min(declared, end - jpeg), w, h});
}

// What a CR3's boxes say: its size and orientation (IFD0 in CMT1), its
// THMB and PRVW previews.
bool ReadCr3(const uint8_t* d, size_t n, Cr3* out) {
  if (n < 12 || memcmp(d + 4, "ftypcrx ", 8) != 0) return false;
  std::function<void(const uint8_t*, size_t, size_t, int)> visit = [&](const uint8_t* type, size_t at, size_t end,
                                                                       int depth) {
    const bool uuid = memcmp(type, "uuid", 4) == 0 && end - at >= 16;
    if (memcmp(type, "moov", 4) == 0) {
      Boxes(d, at, end, depth + 1, visit);
    } else if (uuid && memcmp(d + at, kCanonUuid, 16) == 0) {
      Boxes(d, at + 16, end, depth + 1, visit);
    } else if (uuid && memcmp(d + at, kPreviewUuid, 16) == 0 && end - at >= 24) {
      Boxes(d, at + 24, end, depth + 1, visit);
    } else if (memcmp(type, "CMT1", 4) == 0) {
      out->width = TiffTag(d + at, end - at, 0x100);
      out->height = TiffTag(d + at, end - at, 0x101);
      out->orientation = static_cast<int>(TiffTag(d + at, end - at, 0x112));
    } else if (memcmp(type, "THMB", 4) == 0 && end - at >= 16) {
      AddPreview(d, at + 16, Be32(d + at + 8), end, Be16(d + at + 4), Be16(d + at + 6), out);
    } else if (memcmp(type, "PRVW", 4) == 0 && end - at >= 16) {
      AddPreview(d, at + 16, Be32(d + at + 12), end, Be16(d + at + 6), Be16(d + at + 8), out);
    }
  };
  out->cut = !Boxes(d, 0, n, 0, visit);
  return true;
}

struct JpegError {
  jpeg_error_mgr mgr;
  jmp_buf jump;
  char text[JMSG_LENGTH_MAX];
};

void OnJpegError(j_common_ptr c) {
  JpegError* e = reinterpret_cast<JpegError*>(c->err);
  c->err->format_message(c, e->text);
  longjmp(e->jump, 1);
}

// A JPEG preview from memory, at the least eighth covering `need`; what a
// cut-short stream holds is kept (libjpeg fills the rest).
bool DecodeJpeg(const uint8_t* data, size_t size, const DecodeRequest& request, Image* out, std::string* why) {
  jpeg_decompress_struct c;
  JpegError err;
  c.err = jpeg_std_error(&err.mgr);
  err.mgr.error_exit = OnJpegError;
  err.mgr.output_message = [](j_common_ptr) {};
  std::vector<uint8_t>& px = out->data8;
  if (setjmp(err.jump) != 0) {
    jpeg_destroy_decompress(&c);
    *why = std::string("libjpeg: ") + err.text;
    return false;
  }
  jpeg_create_decompress(&c);
  jpeg_mem_src(&c, data, static_cast<unsigned long>(size));
  jpeg_read_header(&c, TRUE);
  if (!WithinPixels(c.image_width, c.image_height, request.maxPixels, why)) {
    jpeg_destroy_decompress(&c);
    return false;
  }
  c.out_color_space = JCS_RGB;
  c.scale_denom = 8;
  c.scale_num = 8;
  for (unsigned m = 1; m < 8 && request.need.width != 0; ++m) {
    if ((c.image_width * m + 7) / 8 >= request.need.width && (c.image_height * m + 7) / 8 >= request.need.height) {
      c.scale_num = m;
      break;
    }
  }
  jpeg_start_decompress(&c);
  out->width = c.output_width;
  out->height = c.output_height;
  out->channels = 3;
  out->bits = 8;
  px.resize(size_t{c.output_width} * c.output_height * 3);
  while (c.output_scanline < c.output_height) {
    JSAMPROW row = &px[size_t{c.output_scanline} * c.output_width * 3];
    jpeg_read_scanlines(&c, &row, 1);
  }
  jpeg_finish_decompress(&c);
  jpeg_destroy_decompress(&c);
  return true;
}

// EXIF orientation of LibRaw's flip.
int FromFlip(int flip) {
  switch (flip) {
    case 3: return 3;
    case 5: return 8;
    case 6: return 6;
    default: return 1;
  }
}

// LibRaw 0.20 reads a planar ("layer") preview by the length the file
// declares into a buffer sized by its width and height (a fuzzed DNG wrote
// 172,800 bytes into 76,800), and its Kodak preview decoders trust the file
// as much: only its JPEG and plain bitmap readers are let run, and a bitmap
// only when declared whole (a shorter one it gathers from strips, a path no
// camera needs).
class Raw : public LibRaw {
 public:
  Raw() : LibRaw(LIBRAW_OPTIONS_NONE) {}
  bool PreviewReaderTrusted() const {
    if (thumb_load_raw != nullptr) return false;
    if (write_thumb == &Raw::jpeg_thumb || write_thumb == &Raw::ppm16_thumb) return true;
    const libraw_thumbnail_t& t = imgdata.thumbnail;
    const uint64_t whole = uint64_t{t.twidth} * t.theight * (libraw_internal_data.unpacker_data.thumb_misc >> 5 & 7);
    return write_thumb == &Raw::ppm_thumb && (t.tlength == 0 || t.tlength >= whole);
  }
};

bool ViaLibRaw(std::vector<uint8_t>& bytes, const DecodeRequest& request, Image* out, KovathumbModernFacts* facts,
               std::string* why) {
  // LibRaw 0.20's CR3 parser recurses through boxes without bound (a fuzzed
  // file held it for minutes): CR3s are read by their own boxes only.
  if (bytes.size() >= 12 && memcmp(bytes.data() + 4, "ftypcrx ", 8) == 0) {
    return *why = "a CR3 whose previews cannot be read", false;
  }
  std::unique_ptr<Raw> raw(new Raw);
  int rc = raw->open_buffer(bytes.data(), bytes.size());
  if (rc == LIBRAW_SUCCESS && facts != nullptr) {
    facts->width = static_cast<uint32_t>(raw->imgdata.sizes.width);
    facts->height = static_cast<uint32_t>(raw->imgdata.sizes.height);
    facts->orientation = FromFlip(raw->imgdata.sizes.flip);
    return true;
  }
  const libraw_thumbnail_t& declared = raw->imgdata.thumbnail;
  if (rc == LIBRAW_SUCCESS && !WithinPixels(std::max<uint64_t>(declared.twidth, 1), std::max<uint64_t>(declared.theight, 1),
                                            request.maxPixels, why)) {
    return false;
  }
  if (rc == LIBRAW_SUCCESS && !raw->PreviewReaderTrusted()) return *why = "LibRaw: a preview of a kind it misreads", false;
  if (rc == LIBRAW_SUCCESS && out != nullptr) rc = raw->unpack_thumb();
  if (rc != LIBRAW_SUCCESS) return *why = std::string("LibRaw: ") + libraw_strerror(rc), false;
  const libraw_thumbnail_t& t = raw->imgdata.thumbnail;
  out->orientation = FromFlip(raw->imgdata.sizes.flip);
  if (t.tformat == LIBRAW_THUMBNAIL_JPEG) {
    return DecodeJpeg(reinterpret_cast<const uint8_t*>(t.thumb), t.tlength, request, out, why);
  }
  if (t.tformat == LIBRAW_THUMBNAIL_BITMAP && t.tcolors == 3 &&
      uint64_t{t.twidth} * t.theight * 3 <= t.tlength && WithinPixels(t.twidth, t.theight, request.maxPixels, why)) {
    out->width = t.twidth;
    out->height = t.theight;
    out->channels = 3;
    out->bits = 8;
    out->data8.assign(t.thumb, t.thumb + size_t{t.twidth} * t.theight * 3);
    return true;
  }
  return *why = "LibRaw: no preview it can hand out", false;
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb

using namespace kovathumb::internal;

extern "C" __attribute__((visibility("default"))) bool kovathumb_probe_raw(int fd, KovathumbModernFacts* facts) {
  memset(facts, 0, sizeof *facts);
  std::vector<uint8_t> bytes;
  std::string why;
  Cr3 cr3;
  bool ok = ReadSource(fd, &bytes, &why);
  if (ok && ReadCr3(bytes.data(), bytes.size(), &cr3)) {
    // A size the CMT1 block does not give is its largest preview's; so is
    // a cut-short file's, whose picture is no more than that preview.
    const bool told = cr3.width != 0 && cr3.height != 0 && !cr3.cut;
    if (!told) cr3.width = cr3.height = 0;
    for (const Preview& p : cr3.previews) {
      if (!told && p.width > cr3.width) cr3.width = p.width, cr3.height = p.height;
    }
    facts->width = cr3.width;
    facts->height = cr3.height;
    facts->orientation = cr3.orientation == 0 ? 1 : cr3.orientation;
    ok = cr3.width != 0 && cr3.height != 0 && !cr3.previews.empty();
    if (!ok) why = "a CR3 with no preview";
  } else if (ok) {
    ok = ViaLibRaw(bytes, DecodeRequest(), nullptr, facts, &why);
  }
  if (!ok) strncpy(facts->message, why.c_str(), sizeof facts->message - 1);
  return ok;
}

extern "C" __attribute__((visibility("default"))) bool kovathumb_decode_raw(int fd, const DecodeRequest& request,
                                                                           Image* out, std::string* why) {
  std::vector<uint8_t> bytes;
  if (!ReadSource(fd, &bytes, why)) return false;
  Cr3 cr3;
  if (!ReadCr3(bytes.data(), bytes.size(), &cr3)) return ViaLibRaw(bytes, request, out, nullptr, why);
  // The smallest preview that covers the size asked for, else the largest.
  const Preview* best = nullptr;
  for (const Preview& p : cr3.previews) {
    const bool covers = p.width >= request.need.width && p.height >= request.need.height && request.need.width != 0;
    const bool bestCovers = best != nullptr && best->width >= request.need.width &&
                            best->height >= request.need.height && request.need.width != 0;
    if (best == nullptr || (covers && (!bestCovers || p.width < best->width)) || (!bestCovers && p.width > best->width)) {
      best = &p;
    }
  }
  const bool covers = best != nullptr && best->width >= request.need.width && best->height >= request.need.height &&
                      request.need.width != 0;
  // More than the previews hold: the full-size JPEG, when LibRaw can have it.
  if (!covers && ViaLibRaw(bytes, request, out, nullptr, why)) return true;
  if (best == nullptr) return *why = "a CR3 with no preview", false;
  out->orientation = cr3.orientation == 0 ? 1 : cr3.orientation;
  return DecodeJpeg(bytes.data() + best->at, best->size, request, out, why);
}
