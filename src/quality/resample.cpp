#include "quality/resample.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kovathumb {
namespace internal {

namespace {

constexpr int kShift = 14;  // weights in fixed point
constexpr int kOne = 1 << kShift;

double CatmullRom(double x) {
  x = std::fabs(x);
  if (x < 1) return 1.5 * x * x * x - 2.5 * x * x + 1;
  if (x < 2) return -0.5 * x * x * x + 2.5 * x * x - 4 * x + 2;
  return 0;
}

// Taps of each output sample along one axis, fixed point, summing to kOne;
// taps past the edges fold onto the edge sample.
struct Taps {
  int count = 0;                // per output sample
  std::vector<uint32_t> first;  // per output sample
  std::vector<int32_t> weights; // count per output sample
};

Taps KernelTaps(uint32_t n, uint32_t m) {
  const double scale = static_cast<double>(n) / m;
  const double support = 2 * std::max(scale, 1.0);
  // The kernel spans `span` samples; a window of `count` (no more than
  // the axis has) holds them once those past the edges are folded in.
  const int span = static_cast<int>(std::ceil(support * 2)) + 1;
  Taps t;
  t.count = static_cast<int>(std::min<uint32_t>(static_cast<uint32_t>(span), n));
  t.first.resize(m);
  t.weights.assign(size_t{m} * t.count, 0);
  std::vector<double> w(t.count);
  for (uint32_t i = 0; i < m; ++i) {
    const double centre = (i + 0.5) * scale - 0.5;
    const long lo = static_cast<long>(std::floor(centre - support)) + 1;
    const long firstIn = std::max(0L, std::min(lo, static_cast<long>(n) - t.count));
    t.first[i] = static_cast<uint32_t>(std::max(0L, firstIn));
    std::fill(w.begin(), w.end(), 0.0);
    double sum = 0;
    for (int k = 0; k < span; ++k) {
      const long j = lo + k;
      const double v = CatmullRom((j - centre) / std::max(scale, 1.0));
      const long at = std::min(std::max(j, 0L), static_cast<long>(n) - 1) - static_cast<long>(t.first[i]);
      if (at >= 0 && at < t.count) w[static_cast<size_t>(at)] += v;
      sum += v;
    }
    int32_t* dst = &t.weights[size_t{i} * t.count];
    int32_t total = 0, peak = 0;
    for (int k = 0; k < t.count; ++k) {
      dst[k] = static_cast<int32_t>(std::lround(w[k] / sum * kOne));
      total += dst[k];
      if (dst[k] > dst[peak]) peak = k;
    }
    dst[peak] += kOne - total;  // flat areas stay exactly flat
  }
  return t;
}

uint8_t Clamp(int32_t v) {
  v = (v + (kOne >> 1)) >> kShift;
  return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}

// Averages `kx` x `ky` blocks of `C`-sample pixels; the last ones along an
// edge may be partial.
template <int C>
Pixels BlockAverage(const Pixels& in, uint32_t kx, uint32_t ky) {
  Pixels out;
  out.width = (in.width + kx - 1) / kx;
  out.height = (in.height + ky - 1) / ky;
  out.channels = C;
  out.rgb.resize(size_t{out.width} * out.height * C);
  std::vector<uint32_t> sums(size_t{out.width} * C);
  for (uint32_t oy = 0; oy < out.height; ++oy) {
    std::fill(sums.begin(), sums.end(), 0);
    const uint32_t y0 = oy * ky, y1 = std::min(in.height, y0 + ky);
    for (uint32_t y = y0; y < y1; ++y) {
      const uint8_t* row = &in.rgb[size_t{y} * in.width * C];
      for (uint32_t x = 0; x < in.width; ++x) {
        uint32_t* s = &sums[size_t{x / kx} * C];
        for (int c = 0; c < C; ++c) s[c] += row[size_t{x} * C + c];
      }
    }
    uint8_t* dst = &out.rgb[size_t{oy} * out.width * C];
    for (uint32_t ox = 0; ox < out.width; ++ox) {
      const uint32_t n = (std::min(in.width, (ox + 1) * kx) - ox * kx) * (y1 - y0);
      for (int c = 0; c < C; ++c) dst[ox * C + c] = static_cast<uint8_t>((sums[ox * C + c] + n / 2) / n);
    }
  }
  return out;
}

// One output row of the vertical pass: `count` rows blended by `wt`.
void BlendRows(const uint8_t* const* rows, const int32_t* wt, int count, size_t n, int32_t* acc, uint8_t* dst) {
  size_t i0 = 0;
#if defined(__SSE2__)
  // Two rows at a time, sixteen samples at a time: pmaddwd multiplies
  // interleaved samples of both by their weights and adds the pairs.
  for (; i0 + 16 <= n; i0 += 16) {
    const __m128i zero = _mm_setzero_si128();
    __m128i s0 = _mm_set1_epi32(kOne >> 1), s1 = s0, s2 = s0, s3 = s0;
    for (int k = 0; k < count; k += 2) {
      const bool pair = k + 1 < count;
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[k] + i0));
      const __m128i b = pair ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[k + 1] + i0)) : zero;
      const int16_t wa = static_cast<int16_t>(wt[k]), wb = static_cast<int16_t>(pair ? wt[k + 1] : 0);
      const __m128i w = _mm_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(static_cast<uint16_t>(wb)) << 16) |
                                                            static_cast<uint16_t>(wa)));
      const __m128i alo = _mm_unpacklo_epi8(a, zero), ahi = _mm_unpackhi_epi8(a, zero);
      const __m128i blo = _mm_unpacklo_epi8(b, zero), bhi = _mm_unpackhi_epi8(b, zero);
      s0 = _mm_add_epi32(s0, _mm_madd_epi16(_mm_unpacklo_epi16(alo, blo), w));
      s1 = _mm_add_epi32(s1, _mm_madd_epi16(_mm_unpackhi_epi16(alo, blo), w));
      s2 = _mm_add_epi32(s2, _mm_madd_epi16(_mm_unpacklo_epi16(ahi, bhi), w));
      s3 = _mm_add_epi32(s3, _mm_madd_epi16(_mm_unpackhi_epi16(ahi, bhi), w));
    }
    s0 = _mm_srai_epi32(s0, kShift), s1 = _mm_srai_epi32(s1, kShift);
    s2 = _mm_srai_epi32(s2, kShift), s3 = _mm_srai_epi32(s3, kShift);
    // Saturating packs clamp to 0..255 as Clamp() does.
    const __m128i lo = _mm_packs_epi32(s0, s1), hi = _mm_packs_epi32(s2, s3);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i0), _mm_packus_epi16(lo, hi));
  }
#endif
  for (size_t i = i0; i < n; ++i) acc[i] = 0;
  for (int k = 0; k < count; ++k) {
    const uint8_t* row = rows[k];
    const int32_t wk = wt[k];
    for (size_t i = i0; i < n; ++i) acc[i] += wk * row[i];
  }
  for (size_t i = i0; i < n; ++i) dst[i] = Clamp(acc[i]);
}

// One output row of the horizontal pass from a row of `in` pixels of `ch`
// (3 or 4) samples; reads and writes up to one byte past the last pixel
// (callers pad).
void BlendColumns(const uint8_t* row, const Taps& tx, uint32_t w, size_t ch, uint8_t* dst) {
  uint32_t x = 0;
#if defined(__SSE2__)
  // A pixel's samples (and a spare for RGB) in the lanes of one vector; two
  // taps at a time through pmaddwd.
  const __m128i zero = _mm_setzero_si128();
  const __m128i round = _mm_set1_epi32(kOne >> 1);
  const auto pixel = [&](uint32_t j) {
    int32_t v;
    memcpy(&v, row + size_t{j} * ch, 4);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(v), zero);
  };
  for (; x < w; ++x) {
    const int32_t* wt = &tx.weights[size_t{x} * tx.count];
    const uint32_t first = tx.first[x];
    __m128i sum = round;
    int k = 0;
    for (; k + 1 < tx.count; k += 2) {
      const __m128i w2 = _mm_set1_epi32(static_cast<int32_t>(
          (static_cast<uint32_t>(static_cast<uint16_t>(wt[k + 1])) << 16) | static_cast<uint16_t>(wt[k])));
      sum = _mm_add_epi32(sum, _mm_madd_epi16(_mm_unpacklo_epi16(pixel(first + k), pixel(first + k + 1)), w2));
    }
    if (k < tx.count) {
      const __m128i w1 = _mm_set1_epi32(static_cast<uint16_t>(wt[k]));
      sum = _mm_add_epi32(sum, _mm_madd_epi16(_mm_unpacklo_epi16(pixel(first + k), zero), w1));
    }
    sum = _mm_srai_epi32(sum, kShift);
    const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(sum, sum), zero);
    const int32_t v = _mm_cvtsi128_si32(packed);
    memcpy(dst + size_t{x} * ch, &v, 4);
  }
#endif
  for (; x < w; ++x) {
    const int32_t* wt = &tx.weights[size_t{x} * tx.count];
    for (size_t c = 0; c < ch; ++c) {
      const uint8_t* p = row + size_t{tx.first[x]} * ch + c;
      int32_t v = 0;
      for (int k = 0; k < tx.count; ++k, p += ch) v += wt[k] * *p;
      dst[x * ch + c] = Clamp(v);
    }
  }
}

}  // namespace

uint32_t BlockFactor(uint32_t from, uint32_t to) {
  if (to == 0) return 1;
  return std::max<uint32_t>(1, from / (to * 2));
}

Pixels Resize(const Pixels& in, uint32_t w, uint32_t h) {
  if (w == in.width && h == in.height) return in;
  const uint32_t kx = BlockFactor(in.width, w), ky = BlockFactor(in.height, h);
  const size_t ch = static_cast<size_t>(in.channels);
  Pixels blocks;
  const Pixels& src = kx == 1 && ky == 1 ? in
                      : (blocks = ch == 4 ? BlockAverage<4>(in, kx, ky) : BlockAverage<3>(in, kx, ky));

  // Each output row: the rows blended first, over a whole row at once
  // (which vectorises), then its columns. One row in between, not a picture:
  // every page a child touches first is a fault.
  const Taps ty = KernelTaps(src.height, h);
  const Taps tx = KernelTaps(src.width, w);
  const size_t srcRow = size_t{src.width} * ch;
  std::vector<uint8_t> mid(srcRow + 4);
  std::vector<int32_t> acc(srcRow);
  std::vector<const uint8_t*> rows(static_cast<size_t>(ty.count));
  Pixels out;
  out.width = w;
  out.height = h;
  out.channels = in.channels;
  out.rgb.resize(size_t{w} * h * ch);
  std::vector<uint8_t> line(size_t{w} * ch + 4);
  for (uint32_t y = 0; y < h; ++y) {
    for (int k = 0; k < ty.count; ++k) rows[static_cast<size_t>(k)] = &src.rgb[(ty.first[y] + k) * srcRow];
    BlendRows(rows.data(), &ty.weights[size_t{y} * ty.count], ty.count, srcRow, acc.data(), mid.data());
    BlendColumns(mid.data(), tx, w, ch, line.data());
    memcpy(&out.rgb[size_t{y} * w * ch], line.data(), size_t{w} * ch);
  }
  return out;
}

Pixels CropCentre(const Pixels& in, uint32_t w, uint32_t h) {
  if (w == in.width && h == in.height) return in;
  const size_t ch = static_cast<size_t>(in.channels);
  Pixels out;
  out.width = w;
  out.height = h;
  out.channels = in.channels;
  out.rgb.resize(size_t{w} * h * ch);
  const uint32_t x0 = (in.width - w) / 2, y0 = (in.height - h) / 2;
  for (uint32_t y = 0; y < h; ++y) {
    memcpy(&out.rgb[size_t{y} * w * ch], &in.rgb[(size_t{y0 + y} * in.width + x0) * ch], size_t{w} * ch);
  }
  return out;
}

void Premultiply(Pixels* p) {
  if (p->channels != 4) return;
  for (size_t i = 0; i + 3 < p->rgb.size(); i += 4) {
    const uint32_t a = p->rgb[i + 3];
    for (size_t c = 0; c < 3; ++c) p->rgb[i + c] = static_cast<uint8_t>((p->rgb[i + c] * a + 127) / 255);
  }
}

void Unpremultiply(Pixels* p) {
  if (p->channels != 4) return;
  for (size_t i = 0; i + 3 < p->rgb.size(); i += 4) {
    const uint32_t a = p->rgb[i + 3];
    // The kernel's overshoot can leave colour above its alpha: clamped.
    for (size_t c = 0; c < 3; ++c) {
      p->rgb[i + c] = a == 0 ? 0 : static_cast<uint8_t>(std::min<uint32_t>(255, (p->rgb[i + c] * 255 + a / 2) / a));
    }
  }
}

}  // namespace internal
}  // namespace kovathumb
