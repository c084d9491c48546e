// The capture writer checked byte by byte against the file formats, and the
// synthetic plate scene against its model.
#include "frfmap/capture_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <vector>

#include "frfmap/synthetic_scene.h"
#include "support/test_support.h"

namespace frfcam::frfmap {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

Bytes ReadAll(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::uint32_t LE32(const Bytes& b, std::size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) |
         (static_cast<std::uint32_t>(b[at + 3]) << 24);
}
std::uint32_t BE32(const Bytes& b, std::size_t at) {
  return (static_cast<std::uint32_t>(b[at]) << 24) | (b[at + 1] << 16) | (b[at + 2] << 8) |
         b[at + 3];
}

// A recognisable sample for every pixel of every frame.
std::uint16_t Pattern(std::int32_t f, std::size_t p) {
  return static_cast<std::uint16_t>((f * 613 + p * 37 + 5) % 4096);
}
FrameSource PatternSource(std::size_t pixels) {
  return [pixels](std::int32_t f, std::uint16_t* s) {
    for (std::size_t p = 0; p < pixels; ++p) s[p] = Pattern(f, p);
  };
}

CaptureSpec MakeCapture(std::uint16_t w, std::uint16_t h, std::int32_t frames, std::uint32_t format,
                        std::uint32_t fpd) {
  CaptureSpec s;
  s.width = w;
  s.height = h;
  s.frames = frames;
  s.fps = 1234.5;
  s.pixel_format = format;
  s.frames_per_file = fpd;
  return s;
}

// ---- Header and division files -------------------------------------------

TEST(CaptureWriter, HeaderHoldsTheFieldsAtTheirOffsetsAndNothingElse) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("plate.hdr");
  std::string error;
  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(300, 200, 7, 1, 3), PatternSource(60000), &error))
      << error;
  Bytes h = ReadAll(hdr);
  ASSERT_EQ(h.size(), 2998u);
  EXPECT_EQ(h[176] | (h[177] << 8), 300);
  EXPECT_EQ(h[178] | (h[179] << 8), 200);
  EXPECT_EQ(LE32(h, 180), 1u);
  double fps;
  std::memcpy(&fps, &h[184], 8);
  EXPECT_EQ(fps, 1234.5);
  EXPECT_EQ(LE32(h, 464), 3u);
  EXPECT_EQ(LE32(h, 468), 7u);
  EXPECT_EQ(h[2006], 0);
  for (std::size_t at :
       {176, 177, 178, 179, 180, 181, 182, 183, 464, 465, 466, 467, 468, 469, 470, 471}) {
    h[at] = 0;
  }
  std::fill(&h[184], &h[192], 0);
  EXPECT_EQ(std::count(h.begin(), h.end(), 0), 2998);

  CaptureSpec single = MakeCapture(4, 2, 3, 1, 3);
  single.single_file = true;
  ASSERT_TRUE(WriteCapture(hdr, single, PatternSource(8), &error)) << error;
  EXPECT_EQ(ReadAll(hdr)[2006], 1);
}

TEST(CaptureWriter, DivisionFilesSplitFramesWhenTheCountIsNotAMultiple) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("cap.hdr");
  std::string error;
  // 12-bit: S = 5 * 3 * 3 / 2 = 22 (odd pixel count: whole part).
  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(5, 3, 7, 1, 3), PatternSource(15), &error)) << error;
  const fs::path folder = dir.path() / "cap";
  EXPECT_EQ(fs::file_size(folder / "cap_0001.div"), 3u * (22 + 16));
  EXPECT_EQ(fs::file_size(folder / "cap_0002.div"), 3u * (22 + 16));
  EXPECT_EQ(fs::file_size(folder / "cap_0003.div"), 1u * (22 + 16));
  EXPECT_FALSE(fs::exists(folder / "cap_0004.div"));

  // 8-bit: S = 15; one file when FPD exceeds the frame count.
  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(5, 3, 7, 0, 500), PatternSource(15), &error)) << error;
  EXPECT_EQ(fs::file_size(folder / "cap_0001.div"), 7u * (15 + 16));
  EXPECT_FALSE(fs::exists(folder / "cap_0002.div"));
}

TEST(CaptureWriter, RecordsAndEightBitPixelsSitWhereTheFrameIndexPutsThem) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("cap.hdr");
  std::string error;
  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(5, 3, 7, 0, 3), PatternSource(15), &error)) << error;
  for (std::int32_t f = 0; f < 7; ++f) {
    const Bytes d = ReadAll(dir.path() / "cap" /
                            (f < 3   ? "cap_0001.div"
                             : f < 6 ? "cap_0002.div"
                                     : "cap_0003.div"));
    const std::size_t at = static_cast<std::size_t>(f % 3) * (15 + 16);
    EXPECT_EQ(LE32(d, at), static_cast<std::uint32_t>(f + 1)) << f;
    EXPECT_EQ(LE32(d, at + 4), static_cast<std::uint32_t>(std::lround(f * 1e6 / 1234.5))) << f;
    EXPECT_EQ(LE32(d, at + 8), static_cast<std::uint32_t>(f)) << f;
    EXPECT_EQ(LE32(d, at + 12), 0u) << f;
    for (std::size_t p = 0; p < 15; ++p) {
      ASSERT_EQ(d[at + 16 + p], Pattern(f, p) >> 4) << f << " " << p;
    }
  }
}

// ---- 12-bit packing ------------------------------------------------------

// The reading rule, written out independently of the packer.
void Unpack12(const std::uint8_t* b, std::uint16_t* first, std::uint16_t* second) {
  *first = static_cast<std::uint16_t>(b[0] * 16 + (b[1] >> 4));
  *second = static_cast<std::uint16_t>(b[2] * 16 + (b[1] & 15));
}

TEST(CaptureWriter, TwelveBitPairsPackIntoThreeBytes) {
  const std::uint16_t in[] = {0xABC, 0x123, 0x000, 0xFFF, 0xFFF, 0x000, 0x801, 0x10F};
  std::uint8_t out[12];
  Pack12(in, 8, out);
  const std::uint8_t expected[] = {0xAB, 0xC3, 0x12, 0x00, 0x0F, 0xFF,
                                   0xFF, 0xF0, 0x00, 0x80, 0x1F, 0x10};
  EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), out));

  // Every value survives in either position of a pair.
  for (std::uint16_t v = 0; v < 4096; ++v) {
    const std::uint16_t pair[] = {v, static_cast<std::uint16_t>(4095 - v)};
    std::uint8_t b[3];
    Pack12(pair, 2, b);
    std::uint16_t a, c;
    Unpack12(b, &a, &c);
    ASSERT_EQ(a, pair[0]);
    ASSERT_EQ(c, pair[1]);
  }
}

TEST(CaptureWriter, TwelveBitFramesOfAnOddPixelCountKeepTheLastHighByte) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("odd.hdr");
  const std::uint16_t frame[] = {0xABC, 0x123, 0x9F7};
  std::string error;
  ASSERT_TRUE(WriteCapture(
      hdr, MakeCapture(3, 1, 1, 1, 10),
      [&](std::int32_t, std::uint16_t* s) { std::copy_n(frame, 3, s); }, &error))
      << error;
  const Bytes d = ReadAll(dir.path() / "odd" / "odd_0001.div");
  ASSERT_EQ(d.size(), 16u + 4u);
  EXPECT_EQ(d[16], 0xAB);
  EXPECT_EQ(d[17], 0xC3);
  EXPECT_EQ(d[18], 0x12);
  EXPECT_EQ(d[19], 0x9F);
}

TEST(CaptureWriter, SamplesAboveTheScaleAreClampedNotWrapped) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("hot.hdr");
  std::string error;
  ASSERT_TRUE(WriteCapture(
      hdr, MakeCapture(2, 1, 1, 1, 1), [](std::int32_t, std::uint16_t* s) { s[0] = s[1] = 5000; },
      &error));
  const Bytes d = ReadAll(dir.path() / "hot" / "hot_0001.div");
  std::uint16_t a, b;
  Unpack12(&d[16], &a, &b);
  EXPECT_EQ(a, 4095);
  EXPECT_EQ(b, 4095);
}

// ---- Single file ----------------------------------------------------------

TEST(CaptureWriter, CapRowsHoldFiveSamplesPerBigEndianWord) {
  const std::uint16_t row[] = {0x123, 0x456, 0x789, 0xABC, 0xDEF, 0x001, 0x002};
  std::uint8_t out[16];
  std::fill(std::begin(out), std::end(out), 0xEE);
  PackCapRow(row, 7, out);
  const std::uint8_t expected[] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                   0x00, 0x01, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00};
  EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), out));
}

// Sample i of a .cap row, decoded the way the format describes.
std::uint16_t CapSample(const std::uint8_t* row, std::size_t i) {
  std::uint64_t word = 0;
  for (int b = 0; b < 8; ++b) word = (word << 8) | row[8 * (i / 5) + b];
  return static_cast<std::uint16_t>((word >> (48 - 12 * (i % 5))) & 0xFFF);
}

TEST(CaptureWriter, CapFramesWrapAroundTheRingFromTheFirstSlot) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("ring.hdr");
  CaptureSpec desc = MakeCapture(7, 3, 4, 1, 500);
  desc.single_file = true;
  desc.ring_slots = 5;
  desc.first_slot = 3;
  std::string error;
  ASSERT_TRUE(WriteCapture(hdr, desc, PatternSource(21), &error)) << error;
  EXPECT_FALSE(fs::exists(dir.path() / "ring" / "ring_0001.div"));
  const Bytes c = ReadAll(dir.path() / "ring" / "ring.cap");

  const std::uint32_t row_bytes = 2 * 8;  // ceil(7 / 5) words
  const std::uint32_t slot_size = 3 * row_bytes + 64;
  EXPECT_EQ(c[134], '0');
  EXPECT_EQ(c[144] | (c[145] << 8), 7);
  EXPECT_EQ(c[146] | (c[147] << 8), 3);
  EXPECT_EQ(LE32(c, 224), 5u);
  EXPECT_EQ(LE32(c, 228), slot_size);
  EXPECT_EQ(LE32(c, 232), 3u);
  const std::uint32_t slot0 = LE32(c, 248);
  EXPECT_GE(slot0, 648u);
  const std::uint32_t subtracted = LE32(c, 644);
  ASSERT_EQ(c.size(), slot0 + 5u * slot_size);

  for (std::uint32_t f = 0; f < 4; ++f) {
    const std::uint32_t slot = (3 + f) % 5 - subtracted;
    const std::size_t at = static_cast<std::size_t>(slot) * slot_size + slot0;
    for (std::size_t y = 0; y < 3; ++y) {
      for (std::size_t x = 0; x < 7; ++x) {
        ASSERT_EQ(CapSample(&c[at + y * row_bytes], x), Pattern(f, y * 7 + x)) << f;
      }
    }
    const std::size_t trailer = at + slot_size - 64;
    EXPECT_EQ(BE32(c, trailer), f + 1);
    EXPECT_EQ(BE32(c, trailer + 4), static_cast<std::uint32_t>(std::lround(f * 1e6 / 1234.5)));
    EXPECT_EQ(BE32(c, trailer + 8) & 0xFFFFFFu, f);
  }
  // Slot 2 is the one no frame reached: empty, its index zero.
  const std::size_t empty = 2u * slot_size + slot0;
  EXPECT_TRUE(std::all_of(&c[empty], &c[empty] + slot_size, [](std::uint8_t b) { return b == 0; }));
}

TEST(CaptureWriter, EightBitCapturesInASingleFileKeepEightBitPrecision) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("eight.hdr");
  CaptureSpec desc = MakeCapture(6, 2, 2, 0, 500);
  desc.single_file = true;
  std::string error;
  ASSERT_TRUE(WriteCapture(hdr, desc, PatternSource(12), &error)) << error;
  const Bytes c = ReadAll(dir.path() / "eight" / "eight.cap");
  const std::uint32_t slot0 = LE32(c, 248);
  const std::uint32_t slot_size = LE32(c, 228);
  for (std::uint32_t f = 0; f < 2; ++f) {
    for (std::size_t p = 0; p < 12; ++p) {
      const std::uint8_t* row = &c[slot0 + f * slot_size + (p / 6) * 16];
      ASSERT_EQ(CapSample(row, p % 6), Pattern(static_cast<std::int32_t>(f), p) & 0xFF0);
    }
  }
}

// ---- Refusals and housekeeping ---------------------------------------------

TEST(CaptureWriter, RefusesCapturesThatCannotBeReadBackAndWritesNothing) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("bad.hdr");
  auto refused = [&](CaptureSpec desc, const std::string& path) {
    std::string error;
    const bool ok = WriteCapture(
        path, desc, [](std::int32_t, std::uint16_t*) {}, &error);
    return !ok && !error.empty() && error.find('\n') == std::string::npos;
  };
  const CaptureSpec good = MakeCapture(4, 4, 10, 1, 5);
  CaptureSpec s = good;
  s.width = 0;
  EXPECT_TRUE(refused(s, hdr));
  s = good;
  s.frames = 0;
  EXPECT_TRUE(refused(s, hdr));
  s = good;
  s.fps = 0;
  EXPECT_TRUE(refused(s, hdr));
  s = good;
  s.pixel_format = 2;
  EXPECT_TRUE(refused(s, hdr));
  s = good;
  s.frames_per_file = 0;
  EXPECT_TRUE(refused(s, hdr));
  s = good;
  s.frames = 128;  // one frame per file: 128 files, one more than can be addressed
  s.frames_per_file = 1;
  EXPECT_TRUE(refused(s, hdr));
  s = MakeCapture(65535, 65535, 2, 1, 500);  // 6.4 GB per frame
  EXPECT_TRUE(refused(s, hdr));
  s = good;
  s.single_file = true;
  s.ring_slots = 9;
  EXPECT_TRUE(refused(s, hdr));
  s.ring_slots = 10;
  s.first_slot = 10;
  EXPECT_TRUE(refused(s, hdr));
  EXPECT_TRUE(refused(good, dir.file("noextension")));
  EXPECT_FALSE(fs::exists(hdr));
  EXPECT_FALSE(fs::exists(dir.path() / "bad"));

  s = good;
  s.frames = 127;
  s.frames_per_file = 1;
  std::string error;
  EXPECT_TRUE(WriteCapture(hdr, s, PatternSource(16), &error)) << error;
}

TEST(CaptureWriter, ReportsAFolderThatCannotBeCreated) {
  test::ScratchDir dir;
  std::ofstream(dir.file("blocker")) << "x";
  std::string error;
  EXPECT_FALSE(WriteCapture(dir.file("blocker/cap.hdr"), MakeCapture(2, 2, 1, 1, 1),
                            PatternSource(4), &error));
  EXPECT_NE(error.find("blocker"), std::string::npos) << error;
}

TEST(CaptureWriter, RewritingACaptureRemovesItsStaleDataFiles) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("cap.hdr");
  const fs::path folder = dir.path() / "cap";
  std::string error;
  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(4, 2, 10, 1, 2), PatternSource(8), &error)) << error;
  std::ofstream(folder / "cap_0001.fft") << "old spectra";
  std::ofstream(folder / "cap.cap") << "old ring";
  std::ofstream(folder / "notes_0001.div") << "someone else's";
  std::ofstream(folder / "cap_01.div") << "not ours either";

  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(4, 2, 4, 1, 2), PatternSource(8), &error)) << error;
  EXPECT_TRUE(fs::exists(folder / "cap_0002.div"));
  EXPECT_FALSE(fs::exists(folder / "cap_0003.div"));
  EXPECT_FALSE(fs::exists(folder / "cap_0005.div"));
  EXPECT_FALSE(fs::exists(folder / "cap_0001.fft"));
  EXPECT_FALSE(fs::exists(folder / "cap.cap"));
  EXPECT_TRUE(fs::exists(folder / "notes_0001.div"));
  EXPECT_TRUE(fs::exists(folder / "cap_01.div"));
}

// ---- Synthetic scene --------------------------------------------------------

std::vector<std::uint16_t> Frames(const PlateScene& scene) {
  const SceneSpec& s = scene.desc();
  const std::size_t pixels = static_cast<std::size_t>(s.width) * s.height;
  std::vector<std::uint16_t> all(pixels * s.frames);
  for (std::int32_t f = 0; f < s.frames; ++f) scene.Frame(f, &all[f * pixels]);
  return all;
}

// Bin k of the DFT of x[t * stride], t < n.
std::complex<double> Bin(const auto* x, std::size_t stride, std::size_t n, std::size_t k) {
  std::complex<double> sum = 0;
  for (std::size_t t = 0; t < n; ++t) {
    sum += static_cast<double>(x[t * stride]) *
           std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(k * t) / n);
  }
  return sum / static_cast<double>(n);
}

TEST(PlateScene, IsDeterministicInItsSeedAndStaysOnTheTwelveBitScale) {
  SceneSpec desc;
  desc.width = 40;
  desc.height = 30;
  desc.frames = 64;
  const PlateScene a(desc), b(desc);
  const std::vector<std::uint16_t> frames = Frames(a);
  EXPECT_EQ(frames, Frames(b));
  std::vector<std::uint16_t> again(40 * 30);
  a.Frame(17, again.data());
  EXPECT_TRUE(std::equal(again.begin(), again.end(), &frames[17 * 40 * 30]));
  EXPECT_EQ(a.excitation(), b.excitation());
  EXPECT_LE(*std::max_element(frames.begin(), frames.end()), 4095);

  desc.seed = 2;
  const PlateScene c(desc);
  EXPECT_NE(frames, Frames(c));
  EXPECT_NE(a.excitation(), c.excitation());
}

TEST(PlateScene, ExcitationHasUnitRmsAndAFlatSpectrum) {
  // 251 frames is prime: the long-prime transform path.
  for (const std::size_t frames : {200, 251}) {
    SceneSpec desc;
    desc.width = desc.height = 8;
    desc.frames = static_cast<std::int32_t>(frames);
    const PlateScene scene(desc);
    const std::vector<float>& e = scene.excitation();
    ASSERT_EQ(e.size(), frames);
    double sum = 0, sum2 = 0;
    for (float v : e) {
      sum += v;
      sum2 += v * v;
    }
    EXPECT_NEAR(sum / frames, 0.0, 1e-6) << frames;
    EXPECT_NEAR(std::sqrt(sum2 / frames), 1.0, 1e-5) << frames;
    const double line = std::abs(Bin(e.data(), 1, frames, 1));
    for (std::size_t k : {2, 37, 99}) {
      EXPECT_NEAR(std::abs(Bin(e.data(), 1, frames, k)), line, 1e-5) << frames << " " << k;
    }
    if (frames % 2 == 0) {  // nothing at Nyquist
      EXPECT_NEAR(std::abs(Bin(e.data(), 1, frames, frames / 2)), 0.0, 1e-6);
    }
  }
}

TEST(PlateScene, CapturesTooShortForAnyLineStayStill) {
  for (const std::int32_t frames : {1, 2}) {
    SceneSpec desc;
    desc.width = desc.height = 6;
    desc.frames = frames;
    desc.noise = 0;
    const PlateScene scene(desc);
    EXPECT_TRUE(std::all_of(scene.excitation().begin(), scene.excitation().end(),
                            [](float v) { return v == 0.0f; }));
    const std::vector<std::uint16_t> all = Frames(scene);
    EXPECT_TRUE(std::equal(all.begin(), all.begin() + 36, all.end() - 36));
  }
}

TEST(PlateScene, ModalCoordinatesHaveTheirAmplitudeAsRms) {
  SceneSpec desc;
  desc.width = desc.height = 8;
  desc.frames = 300;
  const PlateScene scene(desc);
  ASSERT_EQ(scene.modes().size(), 3u);
  for (std::size_t k = 0; k < 3; ++k) {
    double sum2 = 0;
    for (std::int32_t f = 0; f < 300; ++f) sum2 += scene.Modal(k, f) * scene.Modal(k, f);
    EXPECT_NEAR(std::sqrt(sum2 / 300), scene.modes()[k].amplitude, 1e-6) << k;
  }
}

TEST(PlateScene, APixelsSpectrumFollowsTheModesTransferFunction) {
  SceneSpec desc;
  desc.width = 48;
  desc.height = 32;
  desc.fps = 1000;
  desc.frames = 499;  // prime: the long-prime transform path
  desc.noise = 0;
  desc.modes = {{150.0, 0.02, 2, 1, 0.08}};
  const PlateScene scene(desc);
  const PlateRect r = scene.plate();
  // An antinode of the (2,1) shape: a quarter across, half way down.
  const int x = r.x0 + (r.x1 - r.x0) / 4;
  const int y = (r.y0 + r.y1) / 2;
  const std::vector<std::uint16_t> frames = Frames(scene);
  const std::uint16_t* series = &frames[static_cast<std::size_t>(y) * 48 + x];

  const std::size_t n = 499;
  std::size_t peak = 1;
  double peak_mag = 0;
  for (std::size_t k = 1; k < n / 2; ++k) {
    const double m = std::abs(Bin(series, 48 * 32, n, k));
    if (m > peak_mag) peak_mag = m, peak = k;
  }
  EXPECT_EQ(peak, 75u);  // 150 Hz at 1000 / 499 Hz per bin

  // Brightness over force = texture x shape x modal transfer, bin by bin.
  // Rounding to whole counts adds about 0.3 (RMS) to the ratio at any bin.
  const double scale = scene.Texture(x, y) * scene.Shape(0, x, y);
  for (std::size_t k : {10, 60, 75, 90, 200}) {
    const std::complex<double> ratio =
        Bin(series, 48 * 32, n, k) / Bin(scene.excitation().data(), 1, n, k);
    const std::complex<double> model = scale * scene.ModalFrf(0, k * 1000.0 / n);
    EXPECT_LT(std::abs(ratio - model), 0.01 * std::abs(model) + 1.2) << k;
  }
}

TEST(PlateScene, DefaultModesShowDistinctShapesAtTheirFrequencies) {
  SceneSpec desc;
  desc.width = 64;
  desc.height = 48;
  desc.frames = 400;
  const PlateScene scene(desc);
  const std::vector<std::uint16_t> frames = Frames(scene);
  const std::size_t pixels = 64 * 48;
  const std::size_t modes = scene.modes().size();
  ASSERT_EQ(modes, 3u);

  // The spectrum at a mode's bin, pixel by pixel, against each mode's signed
  // texture x shape: the shapes are orthogonal over the plate, so the map
  // should match its own mode and hardly project on the others.
  std::vector<std::vector<double>> shapes(modes, std::vector<double>(pixels));
  for (std::size_t k = 0; k < modes; ++k) {
    for (int y = 0; y < 48; ++y) {
      for (int x = 0; x < 64; ++x)
        shapes[k][y * 64 + x] = scene.Texture(x, y) * scene.Shape(k, x, y);
    }
  }
  for (std::size_t k = 0; k < modes; ++k) {
    const auto bin = static_cast<std::size_t>(
        std::lround(scene.modes()[k].frequency_hz / desc.fps * desc.frames));
    std::vector<std::complex<double>> map(pixels);
    double map2 = 0;
    for (std::size_t p = 0; p < pixels; ++p) {
      map[p] = Bin(&frames[p], pixels, desc.frames, bin);
      map2 += std::norm(map[p]);
    }
    for (std::size_t j = 0; j < modes; ++j) {
      std::complex<double> dot = 0;
      double shape2 = 0;
      for (std::size_t p = 0; p < pixels; ++p) {
        dot += map[p] * shapes[j][p];
        shape2 += shapes[j][p] * shapes[j][p];
      }
      const double similarity = std::abs(dot) / std::sqrt(map2 * shape2);
      if (j == k) {
        EXPECT_GT(similarity, 0.95) << "mode " << k;
      } else {
        EXPECT_LT(similarity, 0.15) << "mode " << k << " against " << j;
      }
    }
  }
}

TEST(PlateScene, RejectsModesItCannotSample) {
  SceneSpec desc;
  desc.fps = 1000;
  desc.modes = {{500.0, 0.01, 1, 1, 0.05}};
  EXPECT_THROW(PlateScene{desc}, std::invalid_argument);
  desc.modes = {{100.0, 0.0, 1, 1, 0.05}};
  EXPECT_THROW(PlateScene{desc}, std::invalid_argument);
  desc.modes = {{100.0, 0.01, 0, 1, 0.05}};
  EXPECT_THROW(PlateScene{desc}, std::invalid_argument);
  desc.modes.clear();
  desc.frames = 0;
  EXPECT_THROW(PlateScene{desc}, std::invalid_argument);
}

}  // namespace
}  // namespace frfcam::frfmap
