// Quality mode's pixel work on the small decoded image: cheaper in our
// process than another ImageMagick start.
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "libkovathumb/quality.h"

namespace kovathumb {
namespace internal {

namespace {

// One PPM header number, after whitespace and comments.
bool HeaderNumber(FILE* f, uint64_t* value) {
  int c = fgetc(f);
  while (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '#') {
    if (c == '#') {
      while (c != '\n' && c != EOF) c = fgetc(f);
    }
    c = fgetc(f);
  }
  if (c < '0' || c > '9') return false;
  *value = 0;
  for (; c >= '0' && c <= '9'; c = fgetc(f)) {
    *value = *value * 10 + static_cast<uint64_t>(c - '0');
    if (*value > 0xFFFFFF) return false;
  }
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Weights of source samples for each output sample along one axis: output i
// covers source [i * n / m, (i + 1) * n / m).
struct Span {
  uint32_t first;
  std::vector<double> weights;
};
std::vector<Span> Spans(uint32_t n, uint32_t m) {
  std::vector<Span> spans(m);
  const double step = static_cast<double>(n) / m;
  for (uint32_t i = 0; i < m; ++i) {
    const double a = i * step, b = (i + 1) * step;
    Span& s = spans[i];
    s.first = static_cast<uint32_t>(a);
    for (uint32_t j = s.first; j < n && j < b; ++j) {
      const double lo = j > a ? j : a, hi = j + 1 < b ? j + 1 : b;
      s.weights.push_back((hi - lo) / step);
    }
  }
  return spans;
}

}  // namespace

bool ReadPpm(const std::string& path, uint64_t maxPixels, Pixels* out) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  uint64_t w = 0, h = 0, maxval = 0;
  const bool ok = fgetc(f) == 'P' && fgetc(f) == '6' && HeaderNumber(f, &w) && HeaderNumber(f, &h) &&
                  HeaderNumber(f, &maxval) && maxval == 255 && w != 0 && h != 0 && w * h <= maxPixels;
  if (ok) {
    out->width = static_cast<uint32_t>(w);
    out->height = static_cast<uint32_t>(h);
    out->rgb.resize(w * h * 3);
  }
  const bool read = ok && fread(out->rgb.data(), 1, out->rgb.size(), f) == out->rgb.size();
  fclose(f);
  return read;
}

bool WritePpm(const std::string& path, const Pixels& image) {
  FILE* f = fopen(path.c_str(), "wb");  // in our private directory
  if (f == nullptr) return false;
  bool ok = fprintf(f, "P6\n%u %u\n255\n", image.width, image.height) > 0 &&
            fwrite(image.rgb.data(), 1, image.rgb.size(), f) == image.rgb.size();
  if (fclose(f) != 0) ok = false;
  return ok;
}

Pixels Shrink(const Pixels& in, uint32_t w, uint32_t h) {
  if (w == in.width && h == in.height) return in;
  const std::vector<Span> xs = Spans(in.width, w), ys = Spans(in.height, h);
  Pixels out;
  out.width = w;
  out.height = h;
  out.rgb.resize(static_cast<size_t>(w) * h * 3);
  // One output row at a time: its input rows blended, then its columns.
  const size_t inRow = static_cast<size_t>(in.width) * 3;
  std::vector<double> row(inRow);
  for (uint32_t y = 0; y < h; ++y) {
    std::fill(row.begin(), row.end(), 0.0);
    for (size_t k = 0; k < ys[y].weights.size(); ++k) {
      const unsigned char* src = &in.rgb[(ys[y].first + k) * inRow];
      const double wk = ys[y].weights[k];
      for (size_t i = 0; i < inRow; ++i) row[i] += src[i] * wk;
    }
    unsigned char* dst = &out.rgb[static_cast<size_t>(y) * w * 3];
    for (uint32_t x = 0; x < w; ++x) {
      double r = 0, g = 0, b = 0;
      for (size_t k = 0; k < xs[x].weights.size(); ++k) {
        const double* p = &row[(xs[x].first + k) * 3];
        r += p[0] * xs[x].weights[k];
        g += p[1] * xs[x].weights[k];
        b += p[2] * xs[x].weights[k];
      }
      const auto clamp = [](double v) {
        return static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v + 0.5);
      };
      dst[x * 3] = clamp(r), dst[x * 3 + 1] = clamp(g), dst[x * 3 + 2] = clamp(b);
    }
  }
  return out;
}

Pixels Orient(const Pixels& in, int rotate, bool flop, int userRotate) {
  // Where each output pixel comes from, composing the steps backwards.
  const int r1 = rotate & 3, r2 = userRotate & 3;
  const bool odd1 = r1 & 1, odd2 = r2 & 1;
  const uint32_t w1 = odd1 ? in.height : in.width, h1 = odd1 ? in.width : in.height;
  const uint32_t w2 = odd2 ? h1 : w1, h2 = odd2 ? w1 : h1;
  // (x, y) in an image of w x h turned clockwise `r` times came from:
  const auto back = [](int r, uint32_t w, uint32_t h, uint32_t x, uint32_t y, uint32_t* sx, uint32_t* sy) {
    switch (r) {
      case 1: *sx = y, *sy = w - 1 - x; break;
      case 2: *sx = w - 1 - x, *sy = h - 1 - y; break;
      case 3: *sx = h - 1 - y, *sy = x; break;
      default: *sx = x, *sy = y;
    }
  };
  const size_t ch = static_cast<size_t>(in.channels);
  Pixels out;
  out.width = w2;
  out.height = h2;
  out.channels = in.channels;
  out.rgb.resize(in.rgb.size());
  for (uint32_t y = 0; y < h2; ++y) {
    for (uint32_t x = 0; x < w2; ++x) {
      uint32_t ax, ay, bx, by;
      back(r2, w2, h2, x, y, &ax, &ay);  // in the mirrored, once-turned image
      if (flop) ax = w1 - 1 - ax;
      back(r1, w1, h1, ax, ay, &bx, &by);
      const unsigned char* p = &in.rgb[(static_cast<size_t>(by) * in.width + bx) * ch];
      std::copy(p, p + ch, &out.rgb[(static_cast<size_t>(y) * w2 + x) * ch]);
    }
  }
  return out;
}

}  // namespace internal
}  // namespace kovathumb
