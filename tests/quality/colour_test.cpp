// Colour and tone-mapping decisions, and the conversion on made pixels.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <cmath>

#include "quality/colour.h"
#include "quality/decoders.h"
#include "support/test_util.h"
#include "thumb_info/modern_probe.h"

namespace kovathumb {
namespace internal {
namespace {

TEST(ColourTest, CodePointsChooseTheTransform) {
  using K = ColourPlan::Kind;
  const struct {
    int primaries, transfer;
    bool icc, iccSrgb;
    K kind;
    Gamut gamut;
    Curve curve;
  } rows[] = {
      {2, 2, false, false, K::kAsIs, Gamut::kSrgb, Curve::kSrgb},  // says nothing: sRGB
      {1, 13, false, false, K::kAsIs, Gamut::kSrgb, Curve::kSrgb},
      {1, 1, false, false, K::kAsIs, Gamut::kSrgb, Curve::kSrgb},  // BT.709 shown as browsers show it
      {6, 6, false, false, K::kAsIs, Gamut::kSrgb, Curve::kSrgb},
      {12, 13, false, false, K::kCicp, Gamut::kDisplayP3, Curve::kSrgb},
      {9, 14, false, false, K::kCicp, Gamut::kBt2020, Curve::kSrgb},
      {1, 8, false, false, K::kCicp, Gamut::kSrgb, Curve::kLinear},
      {9, 16, false, false, K::kHdr, Gamut::kBt2020, Curve::kPq},
      {2, 16, false, false, K::kHdr, Gamut::kBt2020, Curve::kPq},  // HDR10 naming no primaries
      {12, 18, false, false, K::kHdr, Gamut::kDisplayP3, Curve::kHlg},
      {9, 16, true, false, K::kHdr, Gamut::kBt2020, Curve::kPq},  // HDR code points win over a profile
      {2, 2, true, true, K::kAsIs, Gamut::kSrgb, Curve::kSrgb},   // an sRGB profile costs nothing
      {2, 2, true, false, K::kIcc, Gamut::kSrgb, Curve::kSrgb},
      {1, 13, true, false, K::kIcc, Gamut::kSrgb, Curve::kSrgb},
      {22, 13, false, false, K::kRefused, Gamut::kSrgb, Curve::kSrgb},
      {1, 17, false, false, K::kRefused, Gamut::kSrgb, Curve::kSrgb},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.primaries) + "/" + std::to_string(r.transfer) + (r.icc ? " icc" : ""));
    ColourDesc c;
    c.primaries = r.primaries;
    c.transfer = r.transfer;
    if (r.icc) c.icc = "x";
    const ColourPlan p = PlanColour(c, r.iccSrgb);
    EXPECT_EQ(p.kind, r.kind);
    if (p.kind == K::kRefused) continue;
    EXPECT_EQ(p.gamut, r.gamut);
    EXPECT_EQ(p.curve, r.curve);
  }
  // PNG's bare gAMA: 1/2.2 is sRGB as written; code points say more; nonsense is ignored.
  const struct {
    double gamma;
    int transfer;
    K kind;
  } gammas[] = {{2.2, 2, K::kAsIs}, {2.24, 2, K::kAsIs}, {1.8, 2, K::kCicp}, {1.0, 2, K::kCicp},
                {1.8, 13, K::kAsIs}, {40, 2, K::kAsIs}, {0.1, 2, K::kAsIs}};
  for (const auto& g : gammas) {
    ColourDesc c;
    c.gamma = g.gamma;
    c.transfer = g.transfer;
    const ColourPlan p = PlanColour(c, false);
    EXPECT_EQ(p.kind, g.kind) << g.gamma;
    EXPECT_EQ(p.curve == Curve::kPower, g.kind == K::kCicp) << g.gamma;
  }
}

std::string SavedProfile(cmsHPROFILE p) {
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(p, nullptr, &size);
  std::string bytes(size, '\0');
  cmsSaveProfileToMem(p, &bytes[0], &size);
  cmsCloseProfile(p);
  return bytes;
}

// Display P3: P3's primaries, sRGB's curve.
std::string P3Profile() {
  const cmsCIExyY white{0.3127, 0.3290, 1};
  const cmsCIExyYTRIPLE prim{{0.680, 0.320, 1}, {0.265, 0.690, 1}, {0.150, 0.060, 1}};
  const double srgb[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* c = cmsBuildParametricToneCurve(nullptr, 4, srgb);
  cmsToneCurve* curves[3] = {c, c, c};
  std::string bytes = SavedProfile(cmsCreateRGBProfile(&white, &prim, curves));
  cmsFreeToneCurve(c);
  return bytes;
}

TEST(ColourTest, SrgbProfilesAreToldFromOthersByTheirBytes) {
  const std::string dir = "/usr/share/color/icc/colord/";
  const struct {
    std::string name, bytes;
    bool srgb;
  } rows[] = {
      {"lcms2's sRGB", SavedProfile(cmsCreate_sRGBProfile()), true},
      {"Display P3", P3Profile(), false},
      {"colord sRGB", test::ReadFile(dir + "sRGB.icc"), true},
      {"Adobe RGB", test::ReadFile(dir + "AdobeRGB1998.icc"), false},
      {"ProPhoto", test::ReadFile(dir + "ProPhotoRGB.icc"), false},
      {"BT.709 curve", test::ReadFile(dir + "Rec709.icc"), false},
      {"cut short", SavedProfile(cmsCreate_sRGBProfile()).substr(0, 200), false},
      {"empty", "", false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    if (r.name.rfind("colord", 0) == 0 && r.bytes.empty()) continue;  // colord-data absent
    EXPECT_EQ(IsSrgbProfile(reinterpret_cast<const uint8_t*>(r.bytes.data()), r.bytes.size()), r.srgb);
  }
}

TEST(ColourTest, HdrLightIsRolledOffToSdrWhite) {
  for (double nits : {0.0, 0.1, 100.0, 203.0, 1000.0, 4000.0, 10000.0}) {
    EXPECT_NEAR(PqToNits(NitsToPq(nits)), nits, 1e-6 + nits * 1e-6) << nits;
  }
  EXPECT_NEAR(PqToNits(1), 10000, 1e-6);
  EXPECT_NEAR(HlgSceneLight(0.5), 1.0 / 12, 1e-9);
  EXPECT_NEAR(HlgSceneLight(1), 1, 1e-6);
  EXPECT_NEAR(HlgToNits(1, 1), 1000, 1e-9);
  for (double peak : {203.0, 600.0, 1000.0, 4000.0, 10000.0}) {
    SCOPED_TRACE(peak);
    EXPECT_NEAR(ToneMap(peak, peak), 1.0, 1e-6);  // the content's brightest just reaches white
    EXPECT_NEAR(ToneMap(20, peak), 20 / kSdrWhiteNits, 1e-6);  // shadows and midtones untouched
    double last = 0;
    for (double n = 1; n <= peak; n *= 1.1) {  // rising all the way: no flat top
      const double v = ToneMap(n, peak);
      EXPECT_GT(v, last) << n;
      last = v;
    }
  }
  // Diffuse white stays bright, well above a midtone.
  EXPECT_GT(ToneMap(kSdrWhiteNits, 1000), 0.75);
  EXPECT_LT(ToneMap(50, 1000), 0.3);
  EXPECT_NEAR(ToneMap(100, 150), 100 / kSdrWhiteNits, 1e-9);  // SDR-bright content is not stretched
}

Image Picture(int channels, int bits, std::vector<uint32_t> samples) {
  Image im;
  im.channels = channels;
  im.bits = bits;
  im.width = static_cast<uint32_t>(samples.size() / channels);
  im.height = 1;
  for (uint32_t s : samples) {
    if (bits == 8) im.data8.push_back(static_cast<uint8_t>(s)); else im.data16.push_back(static_cast<uint16_t>(s));
  }
  return im;
}

std::vector<int> Rgb(Image im, std::string* why = nullptr) {
  Pixels px;
  std::string ignored;
  if (!ToSrgb8(std::move(im), &px, why != nullptr ? why : &ignored)) return {};
  return std::vector<int>(px.rgb.begin(), px.rgb.end());
}

std::vector<int> Near(const std::vector<int>& got, const std::vector<int>& want, int slack) {
  if (got.size() != want.size()) return got;
  for (size_t i = 0; i < got.size(); ++i) {
    if (std::abs(got[i] - want[i]) > slack) return got;
  }
  return want;
}

TEST(ColourTest, SamplesRoundAndAlphaGoesOnWhite) {
  const struct {
    const char* name;
    Image in;
    std::vector<int> rgb;
  } rows[] = {
      {"16 bits rounded", Picture(3, 16, {32896, 65535, 128}), {128, 255, 0}},
      {"16 bits rounded up", Picture(3, 16, {129, 0, 385}), {1, 0, 1}},
      {"10 bits", Picture(3, 10, {1023, 512, 2}), {255, 128, 0}},
      {"grey", Picture(1, 8, {7, 200}), {7, 7, 7, 200, 200, 200}},
      {"clear is white", Picture(4, 8, {0, 0, 0, 0}), {255, 255, 255}},
      {"opaque stays", Picture(4, 8, {10, 20, 30, 255}), {10, 20, 30}},
      {"half on white", Picture(4, 8, {255, 0, 0, 128}), {255, 127, 127}},
      {"12-bit alpha", Picture(4, 12, {0, 0, 0, 4095}), {0, 0, 0}},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(Rgb(r.in), r.rgb) << r.name;
  }
  Image cmyk = Picture(4, 8, {0, 0, 0, 0, 255, 0, 0, 0, 0, 0, 0, 255});
  cmyk.colour.cmyk = true;  // no ink, full cyan, full black
  EXPECT_EQ(Rgb(cmyk), (std::vector<int>{255, 255, 255, 0, 255, 255, 0, 0, 0}));
  std::string why;
  Image odd = Picture(2, 8, {1, 2});
  EXPECT_TRUE(Rgb(odd, &why).empty() && !why.empty());
  // Kept for PNG thumbnails where it shows, dropped where all is opaque.
  for (const uint32_t alpha : {32896u, 65535u}) {
    Pixels px;
    ASSERT_TRUE(ToSrgb8(Picture(4, 16, {65535, 0, 0, alpha}), &px, &why, true));
    const std::vector<int> want = alpha == 65535 ? std::vector<int>{255, 0, 0} : std::vector<int>{255, 0, 0, 128};
    EXPECT_EQ(std::vector<int>(px.rgb.begin(), px.rgb.end()), want);
  }
}

TEST(ColourTest, ProfilesAndCodePointsGiveTheSameSrgb) {
  const std::vector<uint32_t> p3 = {234, 51, 35, 128, 128, 128, 40, 200, 90};
  // sRGB's red is P3's (234, 51, 35); grey stays grey.
  const std::vector<int> want = {255, 0, 0, 128, 128, 128};
  Image icc = Picture(3, 8, p3);
  icc.colour.icc = P3Profile();
  Image cicp = Picture(3, 8, p3);
  cicp.colour.primaries = 12;
  cicp.colour.transfer = 13;
  const std::vector<int> viaIcc = Rgb(std::move(icc)), viaCicp = Rgb(std::move(cicp));
  ASSERT_EQ(viaIcc.size(), 9u);
  EXPECT_EQ(Near(std::vector<int>(viaIcc.begin(), viaIcc.begin() + 6), want, 6), want);
  EXPECT_EQ(Near(viaCicp, viaIcc, 2), viaIcc);
  EXPECT_LT(viaIcc[6], 40);  // P3's green is beyond sRGB's: more saturated once converted

  Image srgb = Picture(3, 8, {10, 200, 30});
  srgb.colour.icc = test::ReadFile("/usr/share/color/icc/colord/sRGB.icc");
  EXPECT_EQ(Rgb(std::move(srgb)), (std::vector<int>{10, 200, 30}));
  Image adobe = Picture(3, 8, {0, 255, 0, 128, 128, 128});
  adobe.colour.icc = test::ReadFile("/usr/share/color/icc/colord/AdobeRGB1998.icc");
  if (!adobe.colour.icc.empty()) {
    const std::vector<int> got = Rgb(std::move(adobe));
    ASSERT_EQ(got.size(), 6u);
    EXPECT_TRUE(got[0] < 10 && got[1] > 245 && got[2] < 10) << got[0] << " " << got[1] << " " << got[2];
    EXPECT_EQ(Near({got[3], got[4], got[5]}, {128, 128, 128}, 3), (std::vector<int>{128, 128, 128}));
  }
}

TEST(ColourTest, HdrIsToneMappedNotShownFlat) {
  auto pq = [](double nits) { return static_cast<uint32_t>(std::lround(NitsToPq(nits) * 1023)); };
  // Grey patches in PQ, 10 bits: black, 20, 100, 203 and 1000 nits.
  std::vector<uint32_t> s;
  for (double n : {0.0, 20.0, 100.0, 203.0, 1000.0}) s.insert(s.end(), 3, pq(n));
  Image hdr = Picture(3, 10, s);
  hdr.colour.primaries = 9;
  hdr.colour.transfer = 16;
  const std::vector<int> out = Rgb(std::move(hdr));
  ASSERT_EQ(out.size(), 15u);
  EXPECT_EQ(out[0], 0);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(out[i * 3] == out[i * 3 + 1] && out[i * 3] == out[i * 3 + 2]) << i;
  EXPECT_NEAR(out[3], 88, 3);  // 20 nits: sRGB of 20/203 of white, as SDR shows it
  EXPECT_GT(out[9], 225);              // diffuse white nearly white
  EXPECT_EQ(out[12], 255);             // the peak just white
  EXPECT_LT(out[6], out[9] - 30);      // contrast kept: not flat grey

  // HLG's 75 % signal (diffuse white) comes out near white too.
  Image hlg = Picture(3, 10, {767, 767, 767, 1023, 1023, 1023});
  hlg.colour.primaries = 9;
  hlg.colour.transfer = 18;
  const std::vector<int> h = Rgb(std::move(hlg));
  ASSERT_EQ(h.size(), 6u);
  EXPECT_GT(h[0], 200);
  EXPECT_EQ(h[3], 255);
}

TEST(ColourTest, DecodeSizesAndSniffing) {
  const struct {
    uint32_t w, h, needW, needH, outW, outH;
  } sizes[] = {
      {4000, 3000, 0, 0, 4000, 3000},    {4000, 3000, 640, 480, 640, 480},
      {4000, 3000, 640, 640, 854, 640},  {4000, 3000, 5000, 10, 4000, 3000},
      {3, 1000, 1, 1, 1, 334},           {100, 100, 99, 1, 99, 99},
  };
  for (const auto& r : sizes) {
    const ThumbDimension got = ScaledCover(r.w, r.h, {r.needW, r.needH});
    EXPECT_EQ(std::to_string(got.width) + "x" + std::to_string(got.height),
              std::to_string(r.outW) + "x" + std::to_string(r.outH));
  }
  const struct {
    std::string head;
    ModernKind kind;
  } heads[] = {
      {std::string("\xFF\x0A\xFA", 3), ModernKind::kJxl},
      {std::string("\0\0\0\x0CJXL \r\n\x87\n\0\0\0\x14", 16), ModernKind::kJxl},
      {std::string("\0\0\0\x1C" "ftypavif\0\0\0\0mif1miafMA1B", 28), ModernKind::kAvif},
      {std::string("\0\0\0\x1C" "ftypmif1\0\0\0\0mif1avifmiaf", 28), ModernKind::kAvif},  // a phone's
      {std::string("\0\0\0\x18" "ftypavis\0\0\0\0avismsf1", 24), ModernKind::kAvif},
      {std::string("\0\0\0\x18" "ftypheic\0\0\0\0mif1heic", 24), ModernKind::kHeif},
      {std::string("\0\0\0\x18" "ftypcrx \0\0\0\x01" "crx isom", 24), ModernKind::kCr3},
      {std::string("\0\0\0\x14" "ftypisom\0\0\0\0isom", 20), ModernKind::kNone},  // a video
      // A compatible brand past the box's end does not count.
      {std::string("\0\0\0\x10" "ftypisom\0\0\0\0avif", 20), ModernKind::kNone},
      {std::string("\xFF\xD8\xFF\xE0", 4), ModernKind::kNone},
  };
  for (const auto& r : heads) {
    EXPECT_EQ(SniffModern(reinterpret_cast<const uint8_t*>(r.head.data()), r.head.size()), r.kind) << r.head.substr(4, 8);
  }
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb
