// Quality mode's in-process pipeline: its plans, its reduction filter, and
// JPEGs and PNGs encoded and decoded through their libraries, without any tool.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kovathumb/thumb_const.h"
#include "quality/decoders.h"
#include "quality/pipeline.h"
#include "quality/resample.h"
#include "support/dng.h"
#include "support/test_util.h"

namespace kovathumb {
namespace internal {
namespace {

bool Same(ThumbDimension a, ThumbDimension b) { return a.width == b.width && a.height == b.height; }

TEST(PipelineTest, PlansFitFillTurnAndPickTheDecodeScale) {
  const struct {
    uint32_t w, h;
    int turns;
    ThumbDimension box;
    bool crop;
    ThumbDimension scaled, cut, upright;
    int eighths;  // the DCT scale that covers `scaled`
  } rows[] = {
      {4000, 3000, 0, {1280, 1280}, false, {1280, 960}, {1280, 960}, {1280, 960}, 3},
      {4000, 3000, 0, {120, 120}, false, {120, 90}, {120, 90}, {120, 90}, 1},
      // Turned a quarter: fitted as it lies, stored upright.
      {4000, 3000, 1, {1280, 640}, false, {640, 480}, {640, 480}, {480, 640}, 2},
      {4000, 3000, 3, {640, 1280}, false, {853, 640}, {853, 640}, {640, 853}, 2},
      // Never enlarged, unless a crop must fill its box.
      {300, 200, 0, {640, 640}, false, {300, 200}, {300, 200}, {300, 200}, 8},
      {300, 200, 0, {640, 640}, true, {960, 640}, {640, 640}, {640, 640}, 8},
      // A crop fills the box and cuts the overhang of the longer side.
      {4000, 3000, 0, {120, 120}, true, {160, 120}, {120, 120}, {120, 120}, 1},
      {3000, 4000, 1, {200, 100}, true, {150, 200}, {100, 200}, {200, 100}, 1},
      {6000, 4000, 0, {640, 640}, false, {640, 427}, {640, 427}, {640, 427}, 1},
      {6000, 4000, 0, {1280, 1280}, false, {1280, 853}, {1280, 853}, {1280, 853}, 2},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.w) + "x" + std::to_string(r.h) + " box " + std::to_string(r.box.width));
    const ThumbPlan p = PlanThumb(r.w, r.h, r.turns, r.box, r.crop);
    EXPECT_TRUE(Same(p.scaled, r.scaled)) << p.scaled.width << "x" << p.scaled.height;
    EXPECT_TRUE(Same(p.cut, r.cut)) << p.cut.width << "x" << p.cut.height;
    EXPECT_TRUE(Same(p.upright, r.upright)) << p.upright.width << "x" << p.upright.height;
    EXPECT_EQ(DjpegEighths(r.w, r.h, p.scaled), r.eighths);
  }
}

TEST(PipelineTest, WhatTakesTheInProcessPathAndItsBounds) {
  JpegFacts plain;
  plain.ok = true;
  plain.components = 3;
  JpegFacts profiled = plain, cmyk = plain, unread;
  profiled.icc = true;
  cmyk.components = 4;
  EXPECT_TRUE(PipelineTakes(kMimeJpeg, plain));
  EXPECT_FALSE(PipelineTakes(kMimeJpeg, unread));
  // Colour is converted in process.
  EXPECT_TRUE(PipelineTakes(kMimeJpeg, profiled));
  EXPECT_TRUE(PipelineTakes(kMimeJpeg, cmyk));
  EXPECT_FALSE(PipelineTakes(kMimeGif, unread));
  for (const char* mime : {"image/png", "image/webp", "image/avif", "image/heic", "image/jxl", "image/x-canon-cr3"}) {
    EXPECT_TRUE(PipelineTakes(mime, unread)) << mime;
  }
  // Larger sources get more time and address space, up to the pixel bound.
  const sandbox::Limits small = PipelineLimits(12u << 20), big = PipelineLimits(24u << 20);
  const sandbox::Limits huge = PipelineLimits(uint64_t{1} << 40), bound = PipelineLimits(DecodeRequest().maxPixels);
  EXPECT_LT(small.cpuSeconds, big.cpuSeconds);
  EXPECT_LT(small.addressSpace, big.addressSpace);
  EXPECT_EQ(huge.addressSpace, bound.addressSpace);
  EXPECT_EQ(huge.wallSeconds, bound.wallSeconds);
}

Pixels Pattern(uint32_t w, uint32_t h, uint8_t (*at)(uint32_t x, uint32_t y)) {
  Pixels p;
  p.width = w;
  p.height = h;
  p.rgb.resize(size_t{w} * h * 3);
  for (uint32_t y = 0; y < h; ++y) {
    for (uint32_t x = 0; x < w; ++x) {
      for (int c = 0; c < 3; ++c) p.rgb[(size_t{y} * w + x) * 3 + c] = at(x, y);
    }
  }
  return p;
}

// Samples of the middle row strictly between the two levels of an edge.
int Blurred(const Pixels& p) {
  int n = 0;
  for (uint32_t x = 0; x < p.width; ++x) {
    const uint8_t v = p.rgb[(size_t{p.height / 2} * p.width + x) * 3];
    n += v > 8 && v < 247 ? 1 : 0;
  }
  return n;
}

TEST(PipelineTest, ReductionIsFlatWhereFlatSharpAtEdgesAndDoesNotAlias) {
  const Pixels flat = Pattern(1000, 600, [](uint32_t, uint32_t) -> uint8_t { return 77; });
  // Down, up, and from pictures narrower than the kernel.
  for (const ThumbDimension d : {ThumbDimension{333, 200}, ThumbDimension{120, 72}, ThumbDimension{1500, 900}}) {
    const Pixels r = Resize(flat, d.width, d.height);
    ASSERT_EQ(r.rgb.size(), size_t{d.width} * d.height * 3);
    EXPECT_TRUE(std::all_of(r.rgb.begin(), r.rgb.end(), [](uint8_t v) { return v == 77; })) << d.width;
  }
  for (const ThumbDimension d : {ThumbDimension{1, 1}, ThumbDimension{2, 3}, ThumbDimension{5, 7}}) {
    const Pixels tiny = Pattern(d.width, d.height, [](uint32_t, uint32_t) -> uint8_t { return 77; });
    for (const ThumbDimension to : {ThumbDimension{1, 1}, ThumbDimension{40, 3}, ThumbDimension{3, 90}}) {
      const Pixels r = Resize(tiny, to.width, to.height);
      EXPECT_TRUE(std::all_of(r.rgb.begin(), r.rgb.end(), [](uint8_t v) { return v == 77; })) << d.width;
    }
  }
  // An edge between two columns stays within two samples.
  const Pixels edge = Pattern(901, 300, [](uint32_t x, uint32_t) -> uint8_t { return x < 451 ? 0 : 255; });
  EXPECT_LE(Blurred(Resize(edge, 300, 100)), 2);
  // One-pixel stripes reduced 7.5 times: grey, not a pattern of its own.
  const Pixels stripes = Pattern(1500, 60, [](uint32_t x, uint32_t) -> uint8_t { return x % 2 ? 255 : 0; });
  const Pixels grey = Resize(stripes, 200, 8);
  for (uint8_t v : grey.rgb) ASSERT_NEAR(v, 128, 16);
  EXPECT_EQ(BlockFactor(1500, 200), 3u);
  EXPECT_EQ(BlockFactor(1500, 1280), 1u);
  const Pixels cut = CropCentre(edge, 4, 1);  // columns 448 to 451
  EXPECT_EQ(cut.rgb[6], 0);
  EXPECT_EQ(cut.rgb[9], 255);
}

class JpegCodecTest : public ::testing::Test {
 protected:
  // A 401 x 301 JPEG of the edge pattern, returned open.
  int Write(const std::string& name) {
    const int dir = open(dir_.path().c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    const Pixels p = Pattern(401, 301, [](uint32_t x, uint32_t) -> uint8_t { return x < 200 ? 20 : 230; });
    uint64_t bytes = 0;
    std::string why;
    EXPECT_TRUE(EncodeJpeg(p, JpegParamsFor(p.width, p.height), dir, name, &bytes, &why)) << why;
    // Never over a file that is there.
    EXPECT_FALSE(EncodeJpeg(p, JpegParams(), dir, name, &bytes, &why));
    close(dir);
    EXPECT_EQ(test::ReadFile(dir_ / name).size(), bytes);
    return Open(name);
  }
  int Open(const std::string& name) {
    fds_.push_back(open((dir_ / name).c_str(), O_RDONLY | O_CLOEXEC));
    return fds_.back();
  }
  ~JpegCodecTest() override {
    for (int fd : fds_) close(fd);
  }
  test::TempDir dir_;
  std::vector<int> fds_;
};

TEST_F(JpegCodecTest, DecodesAtTheLeastEighthAsFarAsTheDataGoesWithinItsBound) {
  const int fd = Write("a.jpg");
  const struct {
    ThumbDimension need;
    uint64_t maxPixels;
    bool ok;
    uint32_t w, h;
  } rows[] = {
      {{0, 0}, 1u << 20, true, 401, 301},      {{50, 20}, 1u << 20, true, 51, 38},
      {{150, 100}, 1u << 20, true, 151, 113}, {{400, 1}, 1u << 20, true, 401, 301},
      {{0, 0}, 401 * 301 - 1, false, 0, 0},
  };
  for (const auto& r : rows) {
    Image img;
    std::string why;
    DecodeRequest req;
    req.need = r.need;
    req.maxPixels = r.maxPixels;
    lseek(fd, 1234, SEEK_SET);  // read from the start, wherever the offset is
    ASSERT_EQ(DecodeJpeg(fd, req, &img, &why), r.ok) << why;
    EXPECT_EQ(img.width, r.w);
    EXPECT_EQ(img.height, r.h);
    if (!r.ok) {
      EXPECT_EQ(why, "too many pixels");
    }
  }
  // Cut in half: the top decodes, the rest is filled, as browsers show it.
  const std::string whole = test::ReadFile(dir_ / "a.jpg");
  test::WriteFile(dir_ / "cut.jpg", whole.substr(0, whole.size() / 2));
  test::WriteFile(dir_ / "junk.jpg", "\xff\xd8\xff\xe0 not a jpeg at all");
  Image img;
  std::string why;
  ASSERT_TRUE(DecodeJpeg(Open("cut.jpg"), DecodeRequest(), &img, &why));
  EXPECT_EQ(img.width, 401u);
  EXPECT_NEAR(img.data8[0], 20, 4);
  EXPECT_NEAR(img.data8[300 * 3], 230, 4);
  EXPECT_FALSE(DecodeJpeg(Open("junk.jpg"), DecodeRequest(), &img, &why));
  EXPECT_FALSE(why.empty());
}

TEST_F(JpegCodecTest, ThousandsOfRepeatedScansAreRefusedAndAnEighthReadsOnlyTheDcScan) {
  // A progressive file whose first scan comes 300 times.
  ASSERT_TRUE(WritePpm(dir_ / "p.ppm", Pattern(64, 64, [](uint32_t x, uint32_t y) -> uint8_t { return x ^ y; })));
  test::MustSh("cjpeg -progressive -outfile " + test::Quote(dir_ / "p.jpg") + " " + test::Quote(dir_ / "p.ppm"));
  const std::string jpeg = test::ReadFile(dir_ / "p.jpg");
  const size_t sos = jpeg.find("\xff\xda");
  size_t end = sos + 2;
  while ((end = jpeg.find('\xff', end + 1)) != std::string::npos && (jpeg[end + 1] == 0 || (jpeg[end + 1] & 0xF8) == 0xD0)) {
  }
  ASSERT_NE(end, std::string::npos);
  std::string bomb = jpeg.substr(0, sos);
  for (int i = 0; i < 300; ++i) bomb += jpeg.substr(sos, end - sos);
  test::WriteFile(dir_ / "bomb.jpg", bomb + jpeg.substr(end));
  Image img;
  std::string why;
  EXPECT_TRUE(DecodeJpeg(Open("p.jpg"), DecodeRequest(), &img, &why)) << why;
  EXPECT_FALSE(DecodeJpeg(Open("bomb.jpg"), DecodeRequest(), &img, &why));
  EXPECT_EQ(why, "more than 100 scans");
  // At an eighth only the DC scan is read (the repeats after it never are):
  // the baseline file's picture, within the DC's last bit.
  test::MustSh("cjpeg -outfile " + test::Quote(dir_ / "b.jpg") + " " + test::Quote(dir_ / "p.ppm"));
  DecodeRequest eighth;
  eighth.need = {8, 8};
  Image base;
  ASSERT_TRUE(DecodeJpeg(Open("b.jpg"), eighth, &base, &why));
  ASSERT_TRUE(DecodeJpeg(Open("bomb.jpg"), eighth, &img, &why)) << why;
  ASSERT_EQ(img.data8.size(), 8u * 8 * 3);
  for (size_t i = 0; i < img.data8.size(); ++i) ASSERT_NEAR(img.data8[i], base.data8[i], 2) << i;
}

TEST_F(JpegCodecTest, OneChildMakesEverySizeAndRootTakesOnlyWhatItChecked) {
  PipelineSource source;
  source.fd = Write("src.jpg");
  source.mime = kMimeJpeg;
  source.width = 401;
  source.height = 301;
  source.rotate = 1;  // stored lying: made upright
  const int work = open(dir_.path().c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  std::vector<PipelineSize> sizes = {{"s.jpg", PlanThumb(401, 301, 1, {120, 120}, false), false},
                                     {"b.jpg", PlanThumb(401, 301, 1, {360, 360}, false), false},
                                     {"src.jpg", PlanThumb(401, 301, 1, {100, 100}, false), false}};
  std::string why;
  EXPECT_TRUE(RunPipeline(source, &sizes, work, &why));
  EXPECT_TRUE(sizes[0].made && sizes[1].made);
  EXPECT_FALSE(sizes[2].made);  // its name was taken: not written, not taken
  EXPECT_EQ(test::ImageSize(dir_ / "s.jpg"), std::make_pair(90u, 120u));
  EXPECT_EQ(test::ImageSize(dir_ / "b.jpg"), std::make_pair(270u, 360u));
  // Garbage gets nothing made, and says why.
  test::WriteFile(dir_ / "junk.jpg", "\xff\xd8\xff\xe0 not a jpeg at all");
  source.fd = Open("junk.jpg");
  std::vector<PipelineSize> one = {{"j.jpg", PlanThumb(401, 301, 0, {120, 120}, false), false}};
  EXPECT_FALSE(RunPipeline(source, &one, work, &why));
  EXPECT_FALSE(one[0].made || test::Exists(dir_ / "j.jpg"));
  EXPECT_FALSE(why.empty());
  close(work);
}

// A fuzzed AVIF: its container says 64 x 48, its AV1 sequence header a frame
// of gigabytes, which libdav1d allocates before it finds the tiles missing.
TEST_F(JpegCodecTest, RawPreviewsAreReadOnlyByReadersThatBoundWhatTheyWrite) {
  // IFD0's 160 x 120 bitmap; declared planar (compression 0), LibRaw
  // writes past its buffer.
  const std::string bitmap = test::MakeDng(256, 192, "", 0, 0);
  const size_t compression = bitmap.find(std::string("\x03\x01\x03\x00\x01\x00\x00\x00\x01\x00", 10));
  ASSERT_NE(compression, std::string::npos);
  std::string planar = bitmap;
  planar[compression + 8] = 0;
  close(Write("preview.jpg"));
  const struct {
    const char* name;
    std::string bytes;
    uint32_t width;  // 0: refused
  } rows[] = {{"bitmap", bitmap, 160},
              {"planar", planar, 0},
              {"jpeg", test::MakeDng(256, 192, test::ReadFile(dir_ / "preview.jpg"), 401, 301), 401}};
  const DecodeFn decode = DecoderFor("image/x-nikon-nef");
  ASSERT_NE(decode, nullptr);
  for (const auto& row : rows) {
    test::WriteFile(dir_ / row.name, row.bytes);
    DecodeRequest request;
    Image image;
    std::string why;
    EXPECT_EQ(decode(Open(row.name), request, &image, &why), row.width != 0) << row.name << ": " << why;
    EXPECT_EQ(image.width, row.width) << row.name;
  }
}

// A PNG chunk: length, type, data, CRC.
std::string Chunk(const std::string& type, const std::string& data) {
  const auto be32 = [](uint32_t v) { return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; };
  uint32_t crc = ~0u;
  for (unsigned char b : type + data) {
    crc ^= b;
    for (int k = 0; k < 8; ++k) crc = crc >> 1 ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return be32(static_cast<uint32_t>(data.size())) + type + data + be32(~crc);
}

TEST_F(JpegCodecTest, PngsOfEveryLayoutDecodeAveragedWhileReadWithinTheirBound) {
  // Left of column 200 red, right of it blue (transparent where it says so).
  const std::string halves = "-size 401x301 xc:blue -fill red -draw 'rectangle 0,0 200,300' ";
  const struct {
    const char* name;
    std::string make;  // ImageMagick arguments writing the file
    ThumbDimension need;
    uint32_t w, h;
    int channels, bits;
  } rows[] = {
      {"rgb8", halves + "PNG24:", {0, 0}, 401, 301, 3, 8},
      {"rgb16", halves + "-depth 16 PNG48:", {100, 75}, 101, 76, 3, 16},
      {"palette+tRNS", halves + "-transparent blue PNG8:", {100, 75}, 101, 76, 4, 8},
      {"interlaced", halves + "-interlace PNG PNG24:", {200, 100}, 201, 151, 3, 8},
      {"grey", "-size 401x301 xc:gray50 -depth 8 -type Grayscale PNG:", {0, 0}, 401, 301, 1, 8},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    const std::string path = dir_ / (std::string(r.name) + ".png");
    test::MustSh("/usr/bin/convert " + r.make + test::Quote(path));
    Image img;
    std::string why;
    DecodeRequest req;
    req.need = r.need;
    ASSERT_TRUE(DecodePng(Open(r.name + std::string(".png")), req, &img, &why)) << why;
    EXPECT_EQ(img.width, r.w);
    EXPECT_EQ(img.height, r.h);
    EXPECT_EQ(img.channels, r.channels);
    EXPECT_EQ(img.bits, r.bits);
    if (r.channels == 1) continue;
    // Top left red and opaque; the last column blue or transparent.
    const auto at = [&](uint32_t x, int c) -> uint32_t {
      const size_t i = size_t{x} * img.channels + c;
      return r.bits == 8 ? img.data8[i] : img.data16[i] >> 8;
    };
    EXPECT_EQ(at(0, 0), 255u);
    EXPECT_EQ(at(0, 2), 0u);
    if (r.channels == 4) {
      EXPECT_EQ(at(0, 3), 255u);
      EXPECT_EQ(at(img.width - 1, 3), 0u);
    } else {
      EXPECT_EQ(at(img.width - 1, 2), 255u);
    }
  }
  // A giant header is refused before any row is read or allocated; a file
  // cut short is refused, not shown in part.
  const std::string whole = test::ReadFile(dir_ / "rgb8.png");
  std::string giant = whole;
  giant.replace(8, 25, Chunk("IHDR", std::string("\0\0N\x20\0\0N\x20\x08\x02\0\0\0", 13)));  // 20000 x 20000
  test::WriteFile(dir_ / "giant.png", giant);
  test::WriteFile(dir_ / "cut.png", whole.substr(0, whole.size() / 2));
  for (const char* name : {"giant.png", "cut.png"}) {
    Image img;
    std::string why;
    EXPECT_FALSE(DecodePng(Open(name), DecodeRequest(), &img, &why)) << name;
    EXPECT_EQ(why, name[0] == 'g' ? "picture larger than the pixel bound" : "libpng: the file ends inside the picture");
  }
}

TEST_F(JpegCodecTest, PngSourcesMakePngsWhoseTransparentEdgesDoNotDarken) {
  // Opaque red beside transparent black: scaled without premultiplying, the
  // black would bleed into the red edge.
  test::MustSh("/usr/bin/convert -size 400x300 xc:'rgba(0,0,0,0)' -fill red -draw 'rectangle 0,0 201,299' PNG32:" +
               test::Quote(dir_ / "src.png"));
  PipelineSource source;
  source.fd = Open("src.png");
  source.mime = kMimePng;
  source.outMime = kMimePng;
  source.width = 400;
  source.height = 300;
  const int work = open(dir_.path().c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  std::vector<PipelineSize> sizes = {{"b.png", PlanThumb(400, 300, 0, {130, 130}, false), false},
                                     {"s.png", PlanThumb(400, 300, 0, {45, 45}, false), false}};
  std::string why;
  ASSERT_TRUE(RunPipeline(source, &sizes, work, &why)) << why;
  for (const PipelineSize& s : sizes) {
    SCOPED_TRACE(s.file);
    ASSERT_TRUE(s.made);
    Image img;
    ASSERT_TRUE(DecodePng(Open(s.file), DecodeRequest(), &img, &why)) << why;
    ASSERT_EQ(img.channels, 4);
    int edge = 0;
    for (size_t i = 0; i < img.data8.size(); i += 4) {
      if (img.data8[i + 3] == 0) continue;
      EXPECT_GE(img.data8[i], 250) << "dark at " << i / 4 % img.width;
      edge += img.data8[i + 3] < 255 ? 1 : 0;
    }
    EXPECT_GT(edge, 0) << "no edge between opaque and transparent";
  }
  // Cut short: nothing made, and the reason.
  const std::string whole = test::ReadFile(dir_ / "src.png");
  test::WriteFile(dir_ / "cut.png", whole.substr(0, whole.size() * 2 / 3));
  source.fd = Open("cut.png");
  std::vector<PipelineSize> one = {{"c.png", PlanThumb(400, 300, 0, {120, 120}, false), false}};
  EXPECT_FALSE(RunPipeline(source, &one, work, &why));
  EXPECT_FALSE(one[0].made || test::Exists(dir_ / "c.png"));
  EXPECT_EQ(why, "libpng: the file ends inside the picture");
  close(work);
}

}  // namespace
}  // namespace internal
}  // namespace kovathumb
