// From a decoded picture to 8-bit sRGB: ICC profiles, CICP/nclx colour,
// CMYK, HDR transfer functions (PQ, HLG) tone-mapped to SDR, 16-bit samples
// rounded. A profile that is sRGB already is recognised and costs no
// transform. Runs in the sandbox with the decoders.
#ifndef KOVATHUMB_QUALITY_COLOUR_H_
#define KOVATHUMB_QUALITY_COLOUR_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "quality/image.h"

namespace kovathumb {
namespace internal {

// Converts `in` (consumed) to sRGB pixels; false with `why` when its colour
// cannot be understood. Alpha is composited on white, as browsers show a
// transparent photo on a white page, unless `keepAlpha` asks for RGBA
// (straight alpha), given when some pixel is not opaque. CMYK samples come
// plain (0: no ink): decoders undo Adobe's inversion.
bool ToSrgb8(Image&& in, Pixels* out, std::string* why, bool keepAlpha = false);

// ---- The decisions behind it --------------------------------------------------

enum class Gamut { kSrgb, kDisplayP3, kBt2020 };
enum class Curve { kSrgb, kLinear, kGamma22, kGamma28, kPq, kHlg, kPower };

// How a picture's numbers become sRGB.
struct ColourPlan {
  enum Kind {
    kAsIs,     // already sRGB (or says nothing): samples only rounded to 8 bits
    kIcc,      // through its ICC profile
    kCicp,     // an SDR transform built from the code points
    kHdr,      // PQ or HLG: to light, tone-mapped, to sRGB
    kRefused,  // code points we cannot honour
  };
  Kind kind = kAsIs;
  Gamut gamut = Gamut::kSrgb;
  Curve curve = Curve::kSrgb;
  double gamma = 0;  // kPower's exponent
};

// `iccIsSrgb`: what IsSrgbProfile said of the profile, when there is one.
ColourPlan PlanColour(const ColourDesc& colour, bool iccIsSrgb);

// Whether an ICC profile describes sRGB: RGB, sRGB's colourants and its
// tone curve, read from the profile's bytes (no colour engine involved).
bool IsSrgbProfile(const uint8_t* icc, size_t size);

// PQ (SMPTE ST 2084) signal in [0, 1] to nits, and back.
double PqToNits(double signal);
double NitsToPq(double nits);
// HLG signal in [0, 1] to nits on a 1000-nit display (system gamma 1.2
// applied to the luminance `sceneY`, the scene light of the pixel).
double HlgSceneLight(double signal);
double HlgToNits(double sceneLight, double sceneY);

// The tone curve from HDR light to SDR: diffuse white (203 nits) stays
// white, what lies above it is rolled off smoothly (the BT.2390 knee in the
// PQ domain) so that `peakNits`, the brightest the content gets, just
// reaches white. Answers the SDR level, 1.0 being white.
double ToneMap(double nits, double peakNits);
constexpr double kSdrWhiteNits = 203.0;

// A sample of `bits` bits to 8 bits, rounded to the nearest.
inline uint8_t To8(uint32_t v, int bits) {
  const uint32_t max = (uint32_t{1} << bits) - 1;
  return static_cast<uint8_t>((v * 255 + max / 2) / max);
}

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_QUALITY_COLOUR_H_
