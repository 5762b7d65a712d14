// Real camera and phone files (../shared/corpus, listed in MANIFEST.tsv):
// what the probe reads, and what quality mode makes of every one of them.
#include <gtest/gtest.h>
#include <lcms2.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <signal.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "kovathumb/error.h"
#include "kovathumb/thumb.h"
#include "quality/colour.h"
#include "quality/decoders.h"
#include "sandbox/sandbox.h"
#include "support/test_util.h"

namespace kovathumb {
namespace {

using test::Quote;

// Beside the project's root; KOVATHUMB_CORPUS names it from elsewhere.
std::string CorpusDir() {
  const char* dir = getenv("KOVATHUMB_CORPUS");
  return dir != nullptr ? dir : std::string(KOVATHUMB_SOURCE_DIR) + "/../shared/corpus";
}

// Exiv2 reads everything but the ISO media files (HEIF, AVIF) the same way
// as Debian's exiv2 command, which the manifest records. Every stored
// thumbnail is what its name says and fits its box; a file that can not be
// read leaves nothing behind. (Uprightness is pinned on made fixtures, where
// the expected picture is known.)
TEST(CorpusTest, ProbeAgreesWithExiv2AndQualityThumbnailsFit) {
  if (access((CorpusDir() + "/MANIFEST.tsv").c_str(), R_OK) != 0) GTEST_SKIP() << CorpusDir() << " is absent";
  int probed = 0;
  const std::map<char, unsigned> boxes = {{'S', 120}, {'M', 360}, {'B', 640}, {'X', 1280}};
  const std::map<std::string, std::string> formats = {{"jpg", "JPEG"}, {"png", "PNG"}, {"gif", "GIF"}};
  const std::string pid = std::to_string(getpid());
  test::TempDir dir;
  std::ifstream manifest(CorpusDir() + "/MANIFEST.tsv");
  std::string line;
  std::getline(manifest, line);  // the header
  while (std::getline(manifest, line)) {
    struct { std::string file, origin, mime, w, h; } row;
    std::istringstream fields(line);
    for (std::string* f : {&row.file, &row.origin, &row.mime, &row.w, &row.h}) std::getline(fields, *f, '\t');
    SCOPED_TRACE(row.file);
    const std::string base = row.file.substr(row.file.find('/') + 1), src = dir / base;
    test::MustSh("cp " + Quote(CorpusDir() + "/" + row.file) + " " + Quote(src));
    // Exiv2 reads the new types only with features Debian's library lacks:
    // they are the next test's.
    const bool modern = row.file.rfind("modern/", 0) == 0 || row.file.rfind(".cr3") == row.file.size() - 4;
    if (row.mime != "-" && row.file.rfind("heif/", 0) != 0 && row.mime != "image/avif" && !modern) {
      try {
        ThumbInfo info(src, "small", {120, 120});
        info.ExtractImgInfo(false);
        EXPECT_EQ(info.GetMimeType() + " " + std::to_string(info.GetWidth()) + " " + std::to_string(info.GetHeight()),
                  row.mime + " " + row.w + " " + row.h);
        ++probed;
      } catch (const Error& e) {
        ADD_FAILURE() << e.what();
      }
    }
    try {  // as the web asks, then as make does; a clean error is an Error, and leaves nothing (checked below)
      Thumb request(src, kThumbOptQuality, false);
      if (!request.CalcOutputFile("big").empty() && request.IsNeedDelete()) unlink(request.GetOutputFile().c_str());
      Thumb(src, kThumbOptQuality, false).ConvertAll();
    } catch (const Error&) {}
    const std::string ea = dir.path() + "/.kovaea/" + base;
    for (const std::string& name : test::ListDir(ea)) {
      SCOPED_TRACE(name);
      ASSERT_EQ(name.rfind("KOVAFILE_THUMB_", 0), 0u) << "a leftover in the EA directory";
      const std::string path = ea + "/" + name, ext = name.substr(name.rfind('.') + 1);
      std::string format;
      unsigned w = 0, h = 0, box = boxes.at(name[15]);
      std::istringstream(test::Capture("/usr/bin/identify -format '%m %w %h\\n' " + Quote(path) + " 2>/dev/null")) >>
          format >> w >> h;
      EXPECT_EQ(format, formats.count(ext) ? formats.at(ext) : "?") << "stored as ." << ext;
      EXPECT_TRUE(w > 0 && w <= box && h > 0 && h <= box) << w << "x" << h << " for " << box;
    }
    EXPECT_EQ(test::Capture("ls \"$TMPDIR\" /tmp /var/tmp | grep " + pid), "") << "leftovers";
    test::MustSh("rm -rf " + Quote(dir.path()) + "/.kovaea " + Quote(src));
  }
  EXPECT_GT(probed, 30);
}

// What the decoded picture of a file shows, measured in the sandbox where
// decoders run: its size, mean sRGB colour and the colours at the middle of
// its left and right halves; the decoder's reason when there is none.
struct Decoded {
  unsigned w = 0, h = 0;
  int rgb[3] = {0, 0, 0}, left[3] = {0, 0, 0}, right[3] = {0, 0, 0};
  std::string why;
};

Decoded Decode(const std::string& mime, const std::string& path, ThumbDimension need) {
  Decoded d;
  const internal::DecodeFn decode = internal::DecoderFor(mime);
  if (decode == nullptr) return d.why = "no decoder for " + mime, d;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  sandbox::Spec spec;
  spec.keep = {fd};
  std::string reply;
  int status = -1;
  const sandbox::Outcome outcome = sandbox::Run(spec, [&](int out) {
    internal::Image image;
    internal::DecodeRequest request;
    request.need = need;
    internal::Pixels px;
    std::string why;
    std::ostringstream text;
    if (decode(fd, request, &image, &why) && internal::ToSrgb8(std::move(image), &px, &why)) {
      double sum[3] = {0, 0, 0};
      for (size_t i = 0; i < px.rgb.size(); ++i) sum[i % 3] += px.rgb[i];
      const double n = double(px.width) * px.height;
      text << px.width << " " << px.height << " " << std::lround(sum[0] / n) << " " << std::lround(sum[1] / n) << " "
           << std::lround(sum[2] / n);
      for (uint32_t x : {px.width / 4, px.width * 3 / 4}) {
        for (int c = 0; c < 3; ++c) text << " " << int(px.rgb[(size_t{px.height / 2} * px.width + x) * 3 + c]);
      }
    } else {
      text << "0 0 0 0 0 0 0 0 0 0 0 " << why;
    }
    const std::string t = text.str();
    return write(out, t.data(), t.size()) == ssize_t(t.size()) ? 0 : 1;
  }, &reply, 4096, &status);
  close(fd);
  if (outcome != sandbox::kExited) return d.why = "decoder crashed or hung", d;
  std::istringstream in(reply);
  in >> d.w >> d.h;
  for (int* v : {d.rgb, d.left, d.right}) in >> v[0] >> v[1] >> v[2];
  std::getline(in >> std::ws, d.why);
  return d;
}

// Where the corpus has none: HDR AVIFs in PQ and HLG (tone-mapped, not
// shown flat), wide-gamut pictures by their code points (AVIF) and by
// their Display P3 profile (JPEG), an animated WebP (its
// first frame), a JPEG XL with alpha (on white). Each picture's left half
// and right half are one colour each; `lo`..`hi` bound what each channel of
// the decoded sRGB may be there.
TEST(CorpusTest, MadeHdrWideGamutAnimatedAndTransparentSourcesDecodeInSrgb) {
  test::TempDir dir;
  const std::string im = "/usr/bin/convert ";
  auto twoColours = [&](const std::string& a, const std::string& b, const std::string& out) {
    test::MustSh(im + "-size 64x32 xc:'" + a + "' -size 64x32 xc:'" + b + "' +append -depth 16 +repage " +
                 (a.rfind("rgba", 0) == 0 ? "PNG64:" : "PNG48:") + Quote(out));  // never grey
  };
  // PQ code values of 100 and 1000 nits, and HLG's 50 % and 100 %, as 16-bit grey.
  twoColours("gray(50.808%)", "gray(75.183%)", dir / "pq.png");
  twoColours("gray(50%)", "gray(100%)", dir / "hlg.png");
  // Display P3's red and sRGB's red expressed in P3.
  twoColours("rgb(255,0,0)", "rgb(234,51,35)", dir / "p3.png");
  // Debian's heif-enc 1.15 writes its nclx box as 2/2/6 whatever its
  // options say: the code points are set in the box it wrote. (Its aom
  // asserts on 4:2:0 and 4:4:4 from a 16-bit PNG; 4:2:2 encodes.)
  auto avif = [&](const std::string& png, int primaries, int transfer) {
    const std::string out = png.substr(0, png.size() - 3) + "avif";
    test::MustSh("heif-enc -b 10 -q 95 -p chroma=422 " + Quote(png) + " -o " + Quote(out) + " >/dev/null");
    std::string bytes = test::ReadFile(out);
    const size_t at = bytes.find("colrnclx");
    ASSERT_NE(at, std::string::npos);
    bytes[at + 9] = static_cast<char>(primaries);
    bytes[at + 11] = static_cast<char>(transfer);
    test::WriteFile(out, bytes);
  };
  avif(dir / "pq.png", 9, 16);
  avif(dir / "hlg.png", 9, 18);
  avif(dir / "p3.png", 12, 13);
  // The same P3 colours in a JPEG carrying a Display P3 profile (lcms2's, from P3's primaries).
  const cmsCIExyY white{0.3127, 0.3290, 1};
  const cmsCIExyYTRIPLE p3{{0.680, 0.320, 1}, {0.265, 0.690, 1}, {0.150, 0.060, 1}};
  const double srgbCurve[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* curve = cmsBuildParametricToneCurve(nullptr, 4, srgbCurve);
  cmsToneCurve* curves[3] = {curve, curve, curve};
  cmsHPROFILE profile = cmsCreateRGBProfile(&white, &p3, curves);
  ASSERT_TRUE(cmsSaveProfileToFile(profile, (dir / "p3.icc").c_str()));
  cmsCloseProfile(profile);
  cmsFreeToneCurve(curve);
  test::MustSh(im + Quote(dir / "p3.png") + " -depth 8 -profile " + Quote(dir / "p3.icc") + " -quality 98 " +
               Quote(dir / "p3.jpg"));
  test::MustSh(im + "-delay 10 -size 128x32 xc:red xc:blue " + Quote(dir / "anim.gif") + " && gif2webp -quiet " +
               Quote(dir / "anim.gif") + " -o " + Quote(dir / "anim.webp"));
  twoColours("rgba(0,0,255,0)", "rgba(0,0,255,1)", dir / "alpha.png");
  test::MustSh("cjxl -d 0 " + Quote(dir / "alpha.png") + " " + Quote(dir / "alpha.jxl") + " >/dev/null 2>&1");
  const struct {
    const char* file;
    const char* mime;
    int lo[3], hi[3], rlo[3], rhi[3];  // left half, right half
  } rows[] = {
      // 100 nits: a midtone (flat would be 130); 1000 nits, the peak: white (flat would be 192).
      {"pq.avif", "image/avif", {165, 165, 165}, {200, 200, 200}, {250, 250, 250}, {255, 255, 255}},
      // HLG's 50 % is below diffuse white, 100 % its peak.
      {"hlg.avif", "image/avif", {90, 90, 90}, {170, 170, 170}, {250, 250, 250}, {255, 255, 255}},
      // P3's red is beyond sRGB: clipped to sRGB's red; sRGB's red stays itself.
      {"p3.avif", "image/avif", {245, 0, 0}, {255, 20, 20}, {245, 0, 0}, {255, 20, 20}},
      {"p3.jpg", "image/jpeg", {245, 0, 0}, {255, 20, 20}, {245, 0, 0}, {255, 20, 20}},
      {"anim.webp", "image/webp", {250, 0, 0}, {255, 5, 5}, {250, 0, 0}, {255, 5, 5}},
      {"alpha.jxl", "image/jxl", {250, 250, 250}, {255, 255, 255}, {0, 0, 250}, {5, 5, 255}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    const Decoded d = Decode(row.mime, dir / row.file, {0, 0});
    ASSERT_EQ(std::to_string(d.w) + "x" + std::to_string(d.h) + d.why, "128x32");
    for (int c = 0; c < 3; ++c) {
      EXPECT_TRUE(d.left[c] >= row.lo[c] && d.left[c] <= row.hi[c]) << "left, channel " << c << ": " << d.left[c];
      EXPECT_TRUE(d.right[c] >= row.rlo[c] && d.right[c] <= row.rhi[c]) << "right, channel " << c << ": " << d.right[c];
    }
  }
}

// The new types (WebP, AVIF, JPEG XL, CR3): what the probe says in quality
// mode, what the decoder makes of the whole picture and for a small size,
// and in what colours: the mean sRGB of the decoded picture against that of
// another reader (vips, or ImageMagick over heif-convert's output or the
// preview exiv2 extracts; alpha on white).
TEST(CorpusTest, ModernTypesProbeDecodeAndKeepTheirColours) {
  if (access((CorpusDir() + "/modern").c_str(), R_OK) != 0) GTEST_SKIP() << CorpusDir() << "/modern is absent";
  const struct {
    const char* file;
    const char* mime;
    unsigned w, h;          // as the probe says, as stored
    unsigned decW, decH;    // the whole decoded picture (a raw's largest preview)
    int rgb[3];
    int turns = 0;          // quarter turns to upright (exiftool's reading of the file)
  } rows[] = {
      {"modern/vp8.webp", "image/webp", 1600, 900, 1600, 900, {160, 148, 116}},
      {"modern/oiio_1.webp", "image/webp", 550, 368, 550, 368, {66, 99, 117}},
      {"modern/alpha.webp", "image/webp", 300, 300, 300, 300, {223, 222, 223}},
      {"modern/example.avif", "image/avif", 800, 533, 800, 533, {119, 122, 101}},
      {"modern/sdr_cicp1-13-6.avif", "image/avif", 2048, 858, 2048, 858, {119, 33, 86}},
      {"modern/phone.avif", "image/avif", 1280, 720, 1280, 720, {117, 124, 129}},
      {"modern/sequence.avif", "image/avif", 800, 450, 800, 450, {161, 119, 65}},  // its primary image
      {"modern/reagan.jxl", "image/jxl", 200, 130, 200, 130, {146, 146, 145}},
      {"modern/fixture.jxl", "image/jxl", 1, 1, 1, 1, {190, 190, 190}},
      {"modern/fixture2.jxl", "image/jxl", 1, 1, 1, 1, {190, 190, 190}},
      // Its raw data pruned: the 1620 x 1080 preview.
      {"raw/canon_r6_pruned.cr3", "image/x-canon-cr3", 3408, 2272, 1620, 1080, {146, 96, 79}},
      // Cut short after its 160 x 120 preview: a picture of that size, every
      // size made from it. Its orientation is 6: a portrait, stored sideways.
      {"raw/canon_fixture.cr3", "image/x-canon-cr3", 160, 120, 160, 120, {103, 87, 68}, 1},
  };
  test::TempDir dir;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    const std::string base = std::string(row.file).substr(std::string(row.file).find('/') + 1), src = dir / base;
    test::MustSh("cp " + Quote(CorpusDir() + "/" + row.file) + " " + Quote(src));
    ThumbInfo info(src, "big", {640, 640});
    info.SetQuality(true);
    try {
      info.ExtractImgInfo(false);
    } catch (const Error& e) {
      ADD_FAILURE() << e.what();
      continue;
    }
    EXPECT_EQ(info.GetMimeType() + " " + std::to_string(info.GetWidth()) + "x" + std::to_string(info.GetHeight()),
              std::string(row.mime) + " " + std::to_string(row.w) + "x" + std::to_string(row.h));
    EXPECT_EQ(info.GetRotate(), row.turns);
    const Decoded whole = Decode(info.GetMimeType(), src, {0, 0});
    EXPECT_EQ(std::to_string(whole.w) + "x" + std::to_string(whole.h) + whole.why,
              std::to_string(row.decW) + "x" + std::to_string(row.decH));
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(whole.rgb[c], row.rgb[c], 5) << "channel " << c;
    // Asked for less, a decoder may give less, but never below the size asked.
    const Decoded small = Decode(info.GetMimeType(), src, {120, 120});
    EXPECT_TRUE(small.w >= std::min(120u, whole.w) && small.h >= std::min(120u, whole.h) && small.w <= whole.w)
        << small.w << "x" << small.h << " " << small.why;
    // As the web asks: one size, the probe read with the preview.
    Thumb request(src, kThumbOptQuality, false);
    const std::string big = request.CalcOutputFile("big");
    EXPECT_EQ(test::ImageSize(big).first, std::min(640u, row.turns % 2 ? row.decH : row.decW)) << big;
    if (!big.empty() && request.IsNeedDelete()) unlink(big.c_str());
  }
  test::MustSh("rm -rf " + Quote(dir.path()) + "/.kovaea");
  // index makes every size of each, then nothing.
  const std::string index = std::string(KOVATHUMB_CLI) + " index --json " + Quote(dir.path()) + " 2>/dev/null | tail -1";
  const std::string first = test::Capture(index), second = test::Capture(index);
  EXPECT_NE(first.find("\"made\":" + std::to_string(4 * std::size(rows)) + ","), std::string::npos) << first;  // large and xlarge share a file
  EXPECT_NE(second.find("\"made\":0,"), std::string::npos) << second;
  EXPECT_EQ(test::EALeftovers(dir.path()), "");
}

// After the appliance's index (djpeg's BMPs under JPEG names, boxes twice
// over), quality's index and a quality request judge every stored file
// alike; a second index, HEICs with an orientation among its files,
// makes nothing.
TEST(CorpusTest, AfterTheAppliancesIndexQualityIndexWatchAndRequestsAgree) {
  if (access((CorpusDir() + "/MANIFEST.tsv").c_str(), R_OK) != 0) GTEST_SKIP() << CorpusDir() << " is absent";
  test::TempDir dir;
  const std::string cli = KOVATHUMB_CLI, a = dir / "a";
  // Every file of the corpus, after the appliance's own thumbnails.
  test::MustSh("cd " + Quote(dir.path()) + " && mkdir a && cp -r " + Quote(CorpusDir()) + "/*/ a/ && " + cli +
               " index --appliance --no-progress a >/dev/null; cp -a a b && cp -a a before");
  const auto summary = [&](const std::string& tree) {
    return nlohmann::json::parse(test::Capture(cli + " index --json --no-progress " + Quote(dir / tree) + " | tail -n 1"));
  };
  EXPECT_GT(summary("a")["made"].get<int>(), 0);  // the BMPs and the oversized
  test::MustSh("cd " + Quote(dir / "b") + " && find . -type f ! -path '*/.kovaea/*' | while read -r f; do for s in xlarge "
               "big medium small; do " + cli + " get --quality --dossiva $s \"$f\" >/dev/null 2>&1; done; done");
  const std::string stored = "find . -path '*/.kovaea/*' -type f | sort";
  EXPECT_EQ(test::Capture("cd " + Quote(a) + " && " + stored), test::Capture("cd " + Quote(dir / "b") + " && " + stored));
  EXPECT_EQ(test::Capture("cd " + Quote(dir / "before") + " && for f in $(" + stored + "); do cmp -s $f ../a/$f; a=$?; " +
                          "cmp -s $f ../b/$f; [ $a = $? ] || echo $f; done"), "");
  EXPECT_TRUE(test::Exists(a + "/heif/.kovaea/iphone_7.heic/KOVAFILE_THUMB_S_r1.jpg"));  // turned by its orientation
  const nlohmann::json again = summary("a");
  EXPECT_EQ(again["made"], 0) << again;
  // Watch's catch-up finds the same tree in step: one worker, so a photo
  // added once it watches is made after anything it caught up with.
  const std::string out = dir / "watch.json";
  const pid_t watch = test::StartCli("watch --json -j 1 --settle 0.2 " + Quote(a), out);
  const std::string watches = "grep -q '^inotify wd:' /proc/" + std::to_string(watch) + "/fdinfo/* 2>/dev/null";
  EXPECT_TRUE(test::WaitFor([&] { return test::Sh(watches) == 0; }, 60));
  test::MustSh("cp " + Quote(a + "/jpeg/nikon_d90.jpg") + " " + Quote(a + "/added.jpg"));
  EXPECT_TRUE(test::WaitFor([&] { return test::ReadFile(out).find("/added.jpg\"") != std::string::npos; }, 120));
  kill(watch, SIGTERM);
  EXPECT_EQ(test::WaitExit(watch), 0);
  std::istringstream lines(test::ReadFile(out));
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json j = nlohmann::json::parse(line);
    EXPECT_EQ(j["made"].get<int>() > 0, j["path"] == a + "/added.jpg") << line;
  }
}

}  // namespace
}  // namespace kovathumb
