// FRF maps from a cube written by hand: rounding, saturation, gain and the
// reference division.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <filesystem>
#include <fstream>
#include <limits>
#include <vector>

#include "frfcam/frfcam.h"
#include "frfmap/capture_fixture.h"
#include "support/test_support.h"

namespace frfcam::frfmap {
namespace {

using test::ScratchDir;
namespace fs = std::filesystem;

constexpr std::uint16_t kW = 4, kH = 2;
constexpr std::int32_t kFrames = 4;  // bins 0, 1, 2

// A header for a 4 x 2, 4-frame capture and a cube of three planes whose
// bin b, pixel p holds planes[b][p].
std::string WriteCube(const ScratchDir& dir,
                      const std::vector<std::vector<std::complex<float>>>& planes,
                      std::uint8_t w = kW, std::uint8_t h = kH) {
  const std::string header = dir.file("m.hdr");
  WriteHeader(header, w, h, kFrames, 10);
  fs::create_directories(dir.path() / "m");
  std::ofstream cube(dir.path() / "m" / "m_0001.fft", std::ios::binary);
  for (const auto& plane : planes) {
    cube.write(reinterpret_cast<const char*>(plane.data()),
               static_cast<std::streamsize>(plane.size() * sizeof(plane[0])));
  }
  return header;
}

using Plane = std::vector<std::complex<float>>;
const float kNaN = std::numeric_limits<float>::quiet_NaN();

struct Opened {
  explicit Opened(const std::string& header) : calcs(CreateFrfMapCalcs("maps")) {
    EXPECT_EQ(OpenCube(calcs, header.c_str()), 0);
  }
  ~Opened() { DeleteFrfMapCalcs(calcs); }
  std::vector<unsigned char> Map(int bin, float gain, int* result = nullptr,
                                 std::size_t pixels = kW * kH) {
    std::vector<unsigned char> m(pixels, 77);
    const int r = ReadFRFMap(calcs, bin, gain, m.data());
    if (result != nullptr)
      *result = r;
    else
      EXPECT_EQ(r, 0);
    return m;
  }
  ::FrfMapCalcs* calcs;
};

// Maps are made 32 pixels at a time where the processor allows, the rest one
// by one: every position of a wide plane, and a tail, give round(gain x |v|)
// with ties to even, saturation at 255, and NaN or a negative gain as 0.
TEST(ReadFRFMap, EveryPixelOfAWidePlaneFollowsTheRule) {
  constexpr std::uint8_t kWide = 40, kRows = 3;  // 120 pixels: 3 x 32 and 24
  ScratchDir dir;
  const Plane zero(kWide * kRows);
  Plane plane(kWide * kRows);
  std::uint32_t seed = 12345;
  auto uniform = [&seed](float lo, float hi) {
    seed = seed * 1664525u + 1013904223u;
    return lo + (hi - lo) * static_cast<float>(seed >> 8) / 16777216.0f;
  };
  // Ties, exact magnitudes 5k, NaN or huge values, infinities, and the rest
  // at random.
  const float inf = std::numeric_limits<float>::infinity();
  for (std::size_t p = 0; p < plane.size(); ++p) {
    const float k = static_cast<float>(p % 61);
    const std::complex<float> special[] = {
        {k + 0.5f, 0}, {-3 * k, 4 * k}, {p % 2 ? kNaN : 1e30f, 1}, {0, -inf}};
    plane[p] =
        p % 7 < 4 ? special[p % 7] : std::complex<float>(uniform(-200, 200), uniform(-200, 200));
  }
  Opened o(WriteCube(dir, {zero, plane, zero}, kWide, kRows));
  for (const float gain : {1.0f, 0.5f, 2.0f, -1.0f}) {
    std::vector<unsigned char> expected(plane.size());
    for (std::size_t p = 0; p < plane.size(); ++p) {
      const double m = std::hypot<double>(plane[p].real(), plane[p].imag()) * gain;
      expected[p] = std::isnan(m) || gain < 0
                        ? 0
                        : static_cast<unsigned char>(std::nearbyint(std::min(255.0, m)));
    }
    EXPECT_EQ(o.Map(1, gain, nullptr, plane.size()), expected) << "gain " << gain;
  }
}

TEST(ReadFRFMap, DividesByTheReferenceAtThatBin) {
  ScratchDir dir;
  const Plane plane = {{1, 0}, {0, 2}, {3, 4}, {10, 0}, {0, 0}, {1, 1}, {6, 8}, {20, 0}};
  Opened o(WriteCube(dir, {plane, plane, plane}));
  const std::vector<unsigned char> plain = o.Map(1, 10.0f);
  EXPECT_EQ(plain, (std::vector<unsigned char>{10, 20, 50, 100, 0, 14, 100, 200}));

  // A unit impulse of 4 samples has the flat spectrum 1/4: the map is 4x.
  const float impulse[4] = {1, 0, 0, 0};
  SetReference(o.calcs, impulse, 4);
  EXPECT_EQ(o.Map(1, 10.0f), (std::vector<unsigned char>{40, 80, 200, 255, 0, 57, 255, 255}));

  // A constant has a spectrum only at bin 0: bins 1 and 2 read unreferenced.
  const float constant[4] = {2, 2, 2, 2};
  SetReference(o.calcs, constant, 4);
  EXPECT_EQ(o.Map(1, 10.0f), plain);
  EXPECT_EQ(o.Map(0, 10.0f), (std::vector<unsigned char>{5, 10, 25, 50, 0, 7, 50, 100}));

  // Bins at or past the reference's length read unreferenced too.
  SetReference(o.calcs, impulse, 1);
  EXPECT_EQ(o.Map(1, 10.0f), plain);

  // Length 0 clears; a negative length or a null signal keeps what was set.
  SetReference(o.calcs, impulse, 4);
  SetReference(o.calcs, impulse, -3);
  SetReference(o.calcs, nullptr, 4);
  EXPECT_EQ(o.Map(2, 1.0f)[3], 40);
  SetReference(o.calcs, impulse, 0);
  EXPECT_EQ(o.Map(2, 1.0f)[3], 10);
}

TEST(ReadFRFMap, TinyAndHugeReferenceValuesGiveTheRightQuotient) {
  ScratchDir dir;
  const Plane plane = {{1e-19f, 0}, {0, 3e-19f}, {0, 0}, {1e-10f, 0},
                       {2e30f, 0},  {0, 5e30f},  {1, 0}, {6e-20f, 8e-20f}};
  Opened o(WriteCube(dir, {plane, plane, plane}));
  // A constant signal: bin 0 of the reference is the constant.
  const float tiny[4] = {5e-20f, 5e-20f, 5e-20f, 5e-20f};
  SetReference(o.calcs, tiny, 4);
  EXPECT_EQ(o.Map(0, 1.0f), (std::vector<unsigned char>{2, 6, 0, 255, 255, 255, 255, 2}));
  const float huge[4] = {1e30f, 1e30f, 1e30f, 1e30f};
  SetReference(o.calcs, huge, 4);
  EXPECT_EQ(o.Map(0, 1.0f), (std::vector<unsigned char>{0, 0, 0, 0, 2, 5, 0, 0}));
  const float denormal[4] = {1e-40f, 1e-40f, 1e-40f, 1e-40f};
  SetReference(o.calcs, denormal, 4);
  EXPECT_EQ(o.Map(0, 1e-21f), (std::vector<unsigned char>{1, 3, 0, 255, 255, 255, 255, 1}));
  const float smallest[4] = {1e-45f, 1e-45f, 1e-45f, 1e-45f};
  SetReference(o.calcs, smallest, 4);
  EXPECT_EQ(o.Map(0, 1.0f), (std::vector<unsigned char>{255, 255, 0, 255, 255, 255, 255, 255}));
  EXPECT_EQ(o.Map(0, -1.0f), std::vector<unsigned char>(8, 0));

  // A reference of 2^-130 puts the scale past the float range: the quotients
  // are worked out in double precision and must still round ties to even.
  ScratchDir ties_dir;
  const float u = std::ldexp(1.0f, -131);  // half a unit of the quotient
  const Plane ties = {{5 * u, 0},  {7 * u, 0},   {0, u},       {0, 3 * u},
                      {-5 * u, 0}, {509 * u, 0}, {507 * u, 0}, {6 * u, 8 * u}};
  Opened t(WriteCube(ties_dir, {ties, ties, ties}));
  const float reference[4] = {2 * u, 2 * u, 2 * u, 2 * u};
  SetReference(t.calcs, reference, 4);
  EXPECT_EQ(t.Map(0, 1.0f), (std::vector<unsigned char>{2, 4, 0, 2, 2, 254, 254, 5}));
}

TEST(ReadFRFMap, UnreadablePlanesLeaveTheMapUntouched) {
  FRFCAM_SKIP_ON_WINDOWS(
      "removing or cutting a file another object holds open (Windows refuses it)");
  ScratchDir dir;
  const Plane plane(kW * kH, {1, 0});
  const std::string header = WriteCube(dir, {plane, plane});  // bin 2 missing
  Opened o(header);
  int r = -1;
  EXPECT_EQ(o.Map(2, 1.0f, &r), std::vector<unsigned char>(8, 77));
  EXPECT_EQ(r, 0);
  EXPECT_EQ(o.Map(-1, 1.0f, &r), std::vector<unsigned char>(8, 77));
  EXPECT_EQ(r, 0);
  EXPECT_EQ(o.Map(1, 1.0f)[0], 1);

  // Half a plane: the count of bytes that could be read.
  fs::resize_file(dir.path() / "m" / "m_0001.fft", 64 + 20);
  Opened cut(header);
  EXPECT_EQ(cut.Map(1, 1.0f, &r), std::vector<unsigned char>(8, 77));
  EXPECT_EQ(r, 20);

  fs::remove(dir.path() / "m" / "m_0001.fft");
  Opened gone(header);
  EXPECT_EQ(gone.Map(0, 1.0f, &r), std::vector<unsigned char>(8, 77));
  EXPECT_EQ(r, 0);

  unsigned char map[8];
  EXPECT_EQ(ReadFRFMap(o.calcs, 0, 1.0f, nullptr), FRFCAM_MAP_NULL_ARGUMENT);
  EXPECT_EQ(ReadFRFMap(nullptr, 0, 1.0f, map), FRFCAM_MAP_NULL_ARGUMENT);
  ::FrfMapCalcs* unopened = CreateFrfMapCalcs("u");
  EXPECT_EQ(ReadFRFMap(unopened, 0, 1.0f, map), 0);
  DeleteFrfMapCalcs(unopened);
}

}  // namespace
}  // namespace frfcam::frfmap
