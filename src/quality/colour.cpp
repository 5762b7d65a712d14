// Colour to sRGB. ICC profiles and SDR code points go through lcms2; HDR
// (PQ, HLG) is turned into light here, tone-mapped on each pixel's largest
// component (hue and saturation kept, nothing clipped), then encoded as sRGB.
#include "quality/colour.h"

#include <lcms2.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace kovathumb {
namespace internal {

namespace {

using Mat3 = std::array<double, 9>;

struct Xy {
  double x, y;
};
struct Primaries {
  Xy r, g, b;
};
constexpr Xy kD65{0.3127, 0.3290};

Primaries PrimariesOf(Gamut g) {
  switch (g) {
    case Gamut::kDisplayP3:
      return {{0.680, 0.320}, {0.265, 0.690}, {0.150, 0.060}};
    case Gamut::kBt2020:
      return {{0.708, 0.292}, {0.170, 0.797}, {0.131, 0.046}};
    case Gamut::kSrgb:
      break;
  }
  return {{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}};
}

Mat3 Mul(const Mat3& a, const Mat3& b) {
  Mat3 m{};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      for (int k = 0; k < 3; ++k) m[i * 3 + j] += a[i * 3 + k] * b[k * 3 + j];
    }
  }
  return m;
}

Mat3 Inverse(const Mat3& m) {
  const double a = m[0], b = m[1], c = m[2], d = m[3], e = m[4], f = m[5], g = m[6], h = m[7], i = m[8];
  const double det = a * (e * i - f * h) - b * (d * i - f * g) + c * (d * h - e * g);
  return {(e * i - f * h) / det, (c * h - b * i) / det, (b * f - c * e) / det,
          (f * g - d * i) / det, (a * i - c * g) / det, (c * d - a * f) / det,
          (d * h - e * g) / det, (b * g - a * h) / det, (a * e - b * d) / det};
}

// Linear RGB of `p` (D65) to XYZ.
Mat3 RgbToXyz(const Primaries& p) {
  const Mat3 xyz = {p.r.x / p.r.y, p.g.x / p.g.y, p.b.x / p.b.y, 1, 1, 1, (1 - p.r.x - p.r.y) / p.r.y,
                    (1 - p.g.x - p.g.y) / p.g.y, (1 - p.b.x - p.b.y) / p.b.y};
  const Mat3 inv = Inverse(xyz);
  const double w[3] = {kD65.x / kD65.y, 1, (1 - kD65.x - kD65.y) / kD65.y};
  Mat3 m = xyz;
  for (int col = 0; col < 3; ++col) {
    const double s = inv[col * 3] * w[0] + inv[col * 3 + 1] * w[1] + inv[col * 3 + 2] * w[2];
    for (int row = 0; row < 3; ++row) m[row * 3 + col] *= s;
  }
  return m;
}

// ---- ICC bytes ----------------------------------------------------------------

uint32_t Be32(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }
double S15(const uint8_t* p) { return static_cast<int32_t>(Be32(p)) / 65536.0; }

// The tag `sig`'s bytes, or null.
const uint8_t* FindTag(const uint8_t* icc, size_t size, const char* sig, size_t* len) {
  if (size < 132) return nullptr;
  const uint32_t count = Be32(icc + 128);
  for (uint64_t i = 0; i < count && 132 + 12 * (i + 1) <= size; ++i) {
    const uint8_t* e = icc + 132 + 12 * i;
    const uint64_t at = Be32(e + 4), n = Be32(e + 8);
    if (memcmp(e, sig, 4) == 0 && at + n <= size && n >= 8) {
      *len = static_cast<size_t>(n);
      return icc + at;
    }
  }
  return nullptr;
}

double SrgbDecode(double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }
double SrgbEncode(double v) { return v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1 / 2.4) - 0.055; }

// Whether a 'curv' or 'para' tone curve is sRGB's, tried at a few points.
bool IsSrgbCurve(const uint8_t* t, size_t len) {
  const double xs[] = {0.02, 0.1, 0.25, 0.5, 0.75, 1.0};
  for (double x : xs) {
    double y;
    if (memcmp(t, "curv", 4) == 0 && len >= 12) {
      const size_t n = Be32(t + 8);
      if (n < 2 || 12 + 2 * n > len) return false;
      const double at = x * static_cast<double>(n - 1);
      const size_t i = std::min(static_cast<size_t>(at), n - 2);
      const double f = at - static_cast<double>(i);
      const double a = (t[12 + 2 * i] << 8 | t[13 + 2 * i]) / 65535.0;
      const double b = (t[14 + 2 * i] << 8 | t[15 + 2 * i]) / 65535.0;
      y = a + (b - a) * f;
    } else if (memcmp(t, "para", 4) == 0 && len >= 12) {
      const int type = t[8] << 8 | t[9];
      static const size_t kParams[] = {1, 3, 4, 5, 7};
      if (type > 4 || 12 + 4 * kParams[type] > len) return false;
      double p[7] = {1, 1, 0, 1, 0, 0, 0};
      for (size_t i = 0; i < kParams[type]; ++i) p[i] = S15(t + 12 + 4 * i);
      const double g = p[0], a = p[1], b = p[2], c = p[3], d = p[4], e = p[5], f = p[6];
      switch (type) {
        case 0: y = std::pow(x, g); break;
        case 1: y = x >= -b / a ? std::pow(a * x + b, g) : 0; break;
        case 2: y = x >= -b / a ? std::pow(a * x + b, g) + c : c; break;
        case 3: y = x >= d ? std::pow(a * x + b, g) : c * x; break;
        default: y = x >= d ? std::pow(a * x + b, g) + e : c * x + f; break;
      }
    } else {
      return false;
    }
    if (std::fabs(y - SrgbDecode(x)) > 0.01) return false;
  }
  return true;
}

// ---- Sample handling ------------------------------------------------------------

struct ProfileCloser {
  void operator()(void* p) const { cmsCloseProfile(p); }
};
struct TransformCloser {
  void operator()(void* t) const { cmsDeleteTransform(t); }
};
using Profile = std::unique_ptr<void, ProfileCloser>;
using Transform = std::unique_ptr<void, TransformCloser>;

cmsToneCurve* CurveFor(Curve c, double gamma) {
  switch (c) {
    case Curve::kPower: return cmsBuildGamma(nullptr, gamma);
    case Curve::kLinear: return cmsBuildGamma(nullptr, 1.0);
    case Curve::kGamma22: return cmsBuildGamma(nullptr, 2.2);
    case Curve::kGamma28: return cmsBuildGamma(nullptr, 2.8);
    default: break;
  }
  const double srgb[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  return cmsBuildParametricToneCurve(nullptr, 4, srgb);
}

Profile ProfileFromCodePoints(Gamut gamut, Curve curve, double gamma) {
  const Primaries p = PrimariesOf(gamut);
  const cmsCIExyY white{kD65.x, kD65.y, 1};
  const cmsCIExyYTRIPLE prim{{p.r.x, p.r.y, 1}, {p.g.x, p.g.y, 1}, {p.b.x, p.b.y, 1}};
  cmsToneCurve* tc = CurveFor(curve, gamma);
  cmsToneCurve* curves[3] = {tc, tc, tc};
  Profile prof(cmsCreateRGBProfile(&white, &prim, curves));
  cmsFreeToneCurve(tc);
  return prof;
}

// Colour samples of `in` (no alpha), widened to 16 bits where lcms2 wants
// them so.
std::vector<uint16_t> Widen16(const Image& in, int channels) {
  const size_t n = size_t{in.width} * in.height;
  std::vector<uint16_t> w(n * channels);
  const uint32_t max = (uint32_t{1} << in.bits) - 1;
  for (size_t i = 0; i < n; ++i) {
    for (int c = 0; c < channels; ++c) {
      const size_t at = i * in.channels + c;
      const uint32_t v = in.bits == 8 ? in.data8[at] : in.data16[at];
      w[i * channels + c] = static_cast<uint16_t>((std::min(v, max) * 65535 + max / 2) / max);
    }
  }
  return w;
}

uint32_t Sample(const Image& in, size_t at) { return in.bits == 8 ? in.data8[at] : in.data16[at]; }

bool RunTransform(void* t, const void* src, size_t srcRowBytes, const Image& in, Pixels* out) {
  if (t == nullptr) return false;
  const auto* s = static_cast<const uint8_t*>(src);
  for (uint32_t y = 0; y < in.height; ++y) {
    cmsDoTransform(t, s + srcRowBytes * y, out->rgb.data() + size_t{in.width} * 3 * y, in.width);
  }
  return true;
}

// lcms2's layout of `in`'s samples in `space` (alpha passed over), 8-bit
// samples as they are; 0 when they do not match.
cmsUInt32Number Layout(const Image& in, cmsColorSpaceSignature space, int colourChannels) {
  const bool eight = in.bits == 8;
  const cmsUInt32Number extra = EXTRA_SH(static_cast<cmsUInt32Number>(in.channels - colourChannels));
  if (space == cmsSigRgbData && colourChannels == 3) return (eight ? TYPE_RGB_8 : TYPE_RGB_16) | extra;
  if (space == cmsSigGrayData && colourChannels == 1) return eight ? TYPE_GRAY_8 : TYPE_GRAY_16;
  if (space == cmsSigCmykData && in.colour.cmyk) return eight ? TYPE_CMYK_8 : TYPE_CMYK_16;
  return 0;
}

// Runs `src` to sRGB over `in`: 8-bit samples straight from the picture
// (lcms2 optimises 8-bit matrix-shaper transforms into tables), deeper ones
// widened to 16 bits.
bool Convert(const Image& in, cmsHPROFILE src, cmsUInt32Number layout, int intent, Pixels* out) {
  Profile srgb(cmsCreate_sRGBProfile());
  if (layout == 0 || !srgb) return false;
  if (in.bits == 8) {
    // Samples already moved to `out` are converted where they are.
    const uint8_t* samples = in.data8.empty() ? out->rgb.data() : in.data8.data();
    Transform t(cmsCreateTransform(src, layout, srgb.get(), TYPE_RGB_8, intent, cmsFLAGS_NOCACHE));
    return RunTransform(t.get(), samples, size_t{in.width} * in.channels, in, out);
  }
  const int colourChannels = static_cast<int>(T_CHANNELS(layout));
  const cmsUInt32Number wideLayout = (layout & ~EXTRA_SH(7)) | BYTES_SH(2);
  Transform t(cmsCreateTransform(src, wideLayout, srgb.get(), TYPE_RGB_8, intent, cmsFLAGS_NOCACHE));
  const std::vector<uint16_t> wide = Widen16(in, colourChannels);
  return RunTransform(t.get(), wide.data(), size_t{in.width} * colourChannels * 2, in, out);
}

// Through the source's ICC profile; false when lcms2 cannot use it.
bool ViaIcc(const Image& in, int colourChannels, Pixels* out) {
  Profile src(cmsOpenProfileFromMem(in.colour.icc.data(), static_cast<cmsUInt32Number>(in.colour.icc.size())));
  if (!src) return false;
  return Convert(in, src.get(), Layout(in, cmsGetColorSpace(src.get()), colourChannels), INTENT_PERCEPTUAL, out);
}

bool ViaCodePoints(const Image& in, const ColourPlan& plan, Pixels* out) {
  Profile src = ProfileFromCodePoints(plan.gamut, plan.curve, plan.gamma);
  if (!src) return false;
  return Convert(in, src.get(), Layout(in, cmsSigRgbData, 3), INTENT_RELATIVE_COLORIMETRIC, out);
}

// PQ or HLG: light in nits, into sRGB's primaries, tone-mapped to SDR.
void Hdr(const Image& in, const ColourPlan& plan, Pixels* out) {
  const size_t n = size_t{in.width} * in.height;
  const uint32_t max = (uint32_t{1} << in.bits) - 1;
  const Mat3 toXyz = RgbToXyz(PrimariesOf(plan.gamut));
  const Mat3 toSrgb = Mul(Inverse(RgbToXyz(PrimariesOf(Gamut::kSrgb))), toXyz);
  // Code value to PQ light, or to HLG scene light.
  std::vector<float> signal(size_t{max} + 1);
  for (uint32_t v = 0; v <= max; ++v) {
    const double e = double(v) / max;
    signal[v] = static_cast<float>(plan.curve == Curve::kPq ? PqToNits(e) : HlgSceneLight(e));
  }
  std::vector<float> light(n * 3);
  float peak = 0;
  for (size_t i = 0; i < n; ++i) {
    double rgb[3];
    for (int c = 0; c < 3; ++c) rgb[c] = signal[std::min(Sample(in, i * in.channels + c), max)];
    if (plan.curve == Curve::kHlg) {
      const double ys = toXyz[3] * rgb[0] + toXyz[4] * rgb[1] + toXyz[5] * rgb[2];
      for (double& v : rgb) v = HlgToNits(v, ys);
    }
    for (int c = 0; c < 3; ++c) {
      const double v = toSrgb[c * 3] * rgb[0] + toSrgb[c * 3 + 1] * rgb[1] + toSrgb[c * 3 + 2] * rgb[2];
      light[i * 3 + c] = static_cast<float>(std::max(v, 0.0));
      peak = std::max(peak, light[i * 3 + c]);
    }
  }
  // The curve tabulated over [0, peak]; then the SDR level to sRGB's code.
  constexpr int kSteps = 4096;
  const double top = std::max<double>(peak, kSdrWhiteNits);
  std::vector<float> curve(kSteps + 1);
  for (int s = 0; s <= kSteps; ++s) curve[s] = static_cast<float>(ToneMap(top * s / kSteps, top));
  constexpr int kCodes = 16384;
  std::vector<uint8_t> encode(kCodes + 1);
  for (int s = 0; s <= kCodes; ++s) encode[s] = static_cast<uint8_t>(std::lround(255 * SrgbEncode(double(s) / kCodes)));
  for (size_t i = 0; i < n; ++i) {
    float* p = &light[i * 3];
    const float m = std::max({p[0], p[1], p[2]});
    if (m <= 0) {
      std::fill_n(&out->rgb[i * 3], 3, 0);
      continue;
    }
    const float at = static_cast<float>(m / top * kSteps);
    const int s = std::min(static_cast<int>(at), kSteps - 1);
    const float level = curve[s] + (curve[s + 1] - curve[s]) * (at - s);
    const float gain = level / m;
    for (int c = 0; c < 3; ++c) {
      const float v = std::min(p[c] * gain, 1.0f);
      out->rgb[i * 3 + c] = encode[static_cast<size_t>(std::lround(v * kCodes))];
    }
  }
}

void AsIs(const Image& in, int colourChannels, Pixels* out) {
  const size_t n = size_t{in.width} * in.height;
  for (size_t i = 0; i < n; ++i) {
    if (in.colour.cmyk) {  // no profile: the plain formula
      const uint32_t k = 255 - To8(Sample(in, i * 4 + 3), in.bits);
      for (int c = 0; c < 3; ++c) {
        out->rgb[i * 3 + c] = static_cast<uint8_t>(((255 - To8(Sample(in, i * 4 + c), in.bits)) * k + 127) / 255);
      }
      continue;
    }
    for (int c = 0; c < 3; ++c) {
      out->rgb[i * 3 + c] = To8(Sample(in, i * in.channels + (colourChannels == 1 ? 0 : c)), in.bits);
    }
  }
}

// Grey samples as RGB, for the paths that work on three channels.
void GreyToRgb(Image* in) {
  const size_t n = size_t{in->width} * in->height;
  const int ch = in->channels;
  auto spread = [&](auto& v) {
    std::remove_reference_t<decltype(v)> rgb(n * 3);
    for (size_t i = 0; i < n; ++i) std::fill_n(&rgb[i * 3], 3, v[i * ch]);
    v.swap(rgb);
  };
  if (in->bits == 8) spread(in->data8); else spread(in->data16);
  in->channels = 3;
}

}  // namespace

// ---- Decisions ------------------------------------------------------------------

ColourPlan PlanColour(const ColourDesc& colour, bool iccIsSrgb) {
  ColourPlan plan;
  switch (colour.primaries) {
    case 9: plan.gamut = Gamut::kBt2020; break;
    case 11:  // DCI-P3's white is not D65; close enough for a thumbnail
    case 12: plan.gamut = Gamut::kDisplayP3; break;
    case 0: case 1: case 2: case 4: case 5: case 6: case 7: break;  // BT.709 and its SD siblings
    default: plan.kind = ColourPlan::kRefused; break;
  }
  switch (colour.transfer) {
    case 16: plan.curve = Curve::kPq; break;
    case 18: plan.curve = Curve::kHlg; break;
    case 8: plan.curve = Curve::kLinear; break;
    case 4: plan.curve = Curve::kGamma22; break;
    case 5: plan.curve = Curve::kGamma28; break;
    // BT.709's and BT.2020's camera curves are shown on sRGB displays as
    // sRGB, as browsers show video.
    case 0: case 1: case 2: case 6: case 13: case 14: case 15: break;
    default: plan.kind = ColourPlan::kRefused; break;
  }
  if (plan.kind == ColourPlan::kRefused) return plan;
  if (plan.curve == Curve::kPq || plan.curve == Curve::kHlg) {
    // HDR with no primaries named is HDR10's BT.2020.
    if (colour.primaries == 2 || colour.primaries == 0) plan.gamut = Gamut::kBt2020;
    plan.kind = ColourPlan::kHdr;
    return plan;
  }
  if (!colour.icc.empty()) {
    plan.kind = iccIsSrgb ? ColourPlan::kAsIs : ColourPlan::kIcc;
    return plan;
  }
  // A bare gamma (PNG's gAMA) counts where the code points say nothing.
  // Writers put 1/2.2 for sRGB: within a few percent it is sRGB; values no
  // display curve comes near are ignored, as browsers ignore them.
  const bool silent = colour.primaries == 2 && colour.transfer == 2;
  if (silent && colour.gamma >= 0.5 && colour.gamma <= 5 && std::fabs(colour.gamma - 2.2) > 0.05) {
    plan.curve = Curve::kPower;
    plan.gamma = colour.gamma;
  }
  plan.kind = plan.gamut == Gamut::kSrgb && plan.curve == Curve::kSrgb ? ColourPlan::kAsIs : ColourPlan::kCicp;
  return plan;
}

bool IsSrgbProfile(const uint8_t* icc, size_t size) {
  if (size < 132 || memcmp(icc + 16, "RGB ", 4) != 0 || memcmp(icc + 20, "XYZ ", 4) != 0) return false;
  // sRGB's colourants adapted to D50, as every sRGB profile stores them.
  static const struct {
    const char* tag;
    double xyz[3];
  } kColourants[] = {{"rXYZ", {0.4361, 0.2225, 0.0139}},
                     {"gXYZ", {0.3851, 0.7169, 0.0971}},
                     {"bXYZ", {0.1431, 0.0606, 0.7141}}};
  for (const auto& c : kColourants) {
    size_t len = 0;
    const uint8_t* t = FindTag(icc, size, c.tag, &len);
    if (t == nullptr || len < 20 || memcmp(t, "XYZ ", 4) != 0) return false;
    for (int i = 0; i < 3; ++i) {
      if (std::fabs(S15(t + 8 + 4 * i) - c.xyz[i]) > 0.003) return false;
    }
  }
  for (const char* tag : {"rTRC", "gTRC", "bTRC"}) {
    size_t len = 0;
    const uint8_t* t = FindTag(icc, size, tag, &len);
    if (t == nullptr || !IsSrgbCurve(t, len)) return false;
  }
  return true;
}

namespace {
constexpr double kM1 = 2610.0 / 16384, kM2 = 2523.0 / 4096 * 128;
constexpr double kC1 = 3424.0 / 4096, kC2 = 2413.0 / 4096 * 32, kC3 = 2392.0 / 4096 * 32;
constexpr double kHlgA = 0.17883277, kHlgB = 1 - 4 * kHlgA, kHlgC = 0.55991073;
}  // namespace

double PqToNits(double e) {
  const double p = std::pow(std::clamp(e, 0.0, 1.0), 1 / kM2);
  return 10000 * std::pow(std::max(p - kC1, 0.0) / (kC2 - kC3 * p), 1 / kM1);
}

double NitsToPq(double nits) {
  const double y = std::pow(std::clamp(nits / 10000, 0.0, 1.0), kM1);
  return std::pow((kC1 + kC2 * y) / (1 + kC3 * y), kM2);
}

double HlgSceneLight(double e) {
  e = std::clamp(e, 0.0, 1.0);
  return e <= 0.5 ? e * e / 3 : (std::exp((e - kHlgC) / kHlgA) + kHlgB) / 12;
}

double HlgToNits(double sceneLight, double sceneY) {
  return sceneY <= 0 ? 0 : 1000 * std::pow(sceneY, 0.2) * sceneLight;
}

double ToneMap(double nits, double peakNits) {
  if (peakNits <= kSdrWhiteNits) return std::min(nits, peakNits) / kSdrWhiteNits;
  const double top = NitsToPq(peakNits);
  const double e = std::min(NitsToPq(nits) / top, 1.0);
  const double maxLum = NitsToPq(kSdrWhiteNits) / top;
  const double ks = 1.5 * maxLum - 0.5;
  double mapped = e;
  if (e > ks) {
    const double t = (e - ks) / (1 - ks), t2 = t * t, t3 = t2 * t;
    mapped = (2 * t3 - 3 * t2 + 1) * ks + (t3 - 2 * t2 + t) * (1 - ks) + (-2 * t3 + 3 * t2) * maxLum;
  }
  return std::min(PqToNits(mapped * top) / kSdrWhiteNits, 1.0);
}

// ---- The conversion ------------------------------------------------------------

bool ToSrgb8(Image&& in, Pixels* out, std::string* why, bool keepAlpha) {
  auto fail = [&](const char* text) {
    if (why != nullptr) *why = text;
    return false;
  };
  const size_t n = size_t{in.width} * in.height;
  const bool layout = (in.channels == 1 || in.channels == 3 || in.channels == 4) && (!in.colour.cmyk || in.channels == 4);
  if (!layout || in.bits < 8 || in.bits > 16 || n == 0) return fail("unsupported sample layout");
  if ((in.bits == 8 ? in.data8.size() : in.data16.size()) < n * in.channels) return fail("fewer samples than pixels");
  const bool alpha = in.channels == 4 && !in.colour.cmyk;
  const int colourChannels = in.colour.cmyk ? 4 : alpha ? 3 : in.channels;

  const bool srgbIcc = !in.colour.icc.empty() &&
                       IsSrgbProfile(reinterpret_cast<const uint8_t*>(in.colour.icc.data()), in.colour.icc.size());
  const ColourPlan plan = PlanColour(in.colour, srgbIcc);
  if (plan.kind == ColourPlan::kRefused) return fail("unsupported colour code points");

  out->width = in.width;
  out->height = in.height;
  out->channels = 3;
  if (plan.kind == ColourPlan::kAsIs && in.bits == 8 && in.channels == 3) {
    out->rgb = std::move(in.data8);  // the common case: nothing to do
    return true;
  }
  const bool inPlace = in.bits == 8 && in.channels == 3 && plan.kind != ColourPlan::kHdr;
  if (inPlace) {
    out->rgb = std::move(in.data8);
    in.data8.clear();
  } else {
    out->rgb.assign(n * 3, 0);
  }
  bool done = false;
  if (plan.kind == ColourPlan::kIcc) {
    Image rgb;
    const Image* src = &in;
    // A grey picture with an RGB profile: spread, then convert as RGB.
    if (colourChannels == 1 && in.colour.icc.size() >= 20 && memcmp(in.colour.icc.data() + 16, "RGB ", 4) == 0) {
      rgb = in;
      GreyToRgb(&rgb);
      src = &rgb;
    }
    done = ViaIcc(*src, src == &in ? colourChannels : 3, out);
    // A profile lcms2 cannot use is ignored, as browsers ignore it.
  } else if (plan.kind == ColourPlan::kCicp || plan.kind == ColourPlan::kHdr) {
    if (colourChannels == 1) GreyToRgb(&in);
    if (plan.kind == ColourPlan::kHdr) {
      Hdr(in, plan, out);
      done = true;
    } else {
      done = ViaCodePoints(in, plan, out);
    }
  }
  if (!done && inPlace) return true;  // the samples, untouched, as sRGB
  if (!done) AsIs(in, in.channels == 1 ? 1 : colourChannels, out);

  if (alpha && keepAlpha) {
    std::vector<uint8_t> a(n);
    for (size_t i = 0; i < n; ++i) a[i] = To8(Sample(in, i * 4 + 3), in.bits);
    if (std::any_of(a.begin(), a.end(), [](uint8_t v) { return v != 255; })) {
      std::vector<uint8_t> rgba(n * 4);
      for (size_t i = 0; i < n; ++i) {
        std::copy_n(&out->rgb[i * 3], 3, &rgba[i * 4]);
        rgba[i * 4 + 3] = a[i];
      }
      out->rgb.swap(rgba);
      out->channels = 4;
    }
  } else if (alpha) {  // on white
    for (size_t i = 0; i < n; ++i) {
      const uint32_t a = To8(Sample(in, i * 4 + 3), in.bits);
      for (int c = 0; c < 3; ++c) {
        uint8_t& v = out->rgb[i * 3 + c];
        v = static_cast<uint8_t>((v * a + 255 * (255 - a) + 127) / 255);
      }
    }
  }
  return true;
}

}  // namespace internal
}  // namespace kovathumb
