// Displacement modes from video of a moving, speckled beam under camera
// noise: the modes found, and the shapes against the scene's truth.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <tuple>
#include <utility>
#include <vector>

#include "modes/modes.h"
#include "modes_fixture.h"

namespace frfcam::modes {
namespace {

using test::RenderedBeam;

struct ShapeCheck {
  double mac = 0.0;          // along the beam, motion component vs truth
  double acrossShare = 0.0;  // energy of the other component
  double gain = 0.0;         // measured over true amplitude
};

// The shape of mode k along the beam: the motion component averaged across
// the beam at each position (rows of an upright beam, columns of a lying
// one), against the true displacement there.
ShapeCheck CheckShape(const RenderedBeam& b, const ModesResult& r, std::size_t found,
                      std::size_t truth) {
  const frfmap::BeamRect rect = b.scene.beam();
  const bool upright = b.scene.MotionAxis() == 0;
  const auto& along = upright ? r.modes[found].dispX : r.modes[found].dispY;
  const auto& across = upright ? r.modes[found].dispY : r.modes[found].dispX;
  std::vector<std::complex<double>> measured, expected;
  double alongEnergy = 0.0, acrossEnergy = 0.0;
  const int n0 = upright ? rect.y0 : rect.x0, n1 = upright ? rect.y1 : rect.x1;
  const int m0 = upright ? rect.x0 : rect.y0, m1 = upright ? rect.x1 : rect.y1;
  for (int i = n0; i < n1; ++i) {
    std::complex<double> sum = 0.0;
    int count = 0;
    for (int j = m0; j < m1; ++j) {
      const int x = upright ? j : i, y = upright ? i : j;
      const std::size_t p = static_cast<std::size_t>(y) * r.width + x;
      if (std::isfinite(along[p].real())) {
        sum += std::complex<double>(along[p]);
        alongEnergy += std::norm(std::complex<double>(along[p]));
        ++count;
      }
      if (std::isfinite(across[p].real())) {
        acrossEnergy += std::norm(std::complex<double>(across[p]));
      }
    }
    if (count == 0) continue;
    measured.push_back(sum / static_cast<double>(count));
    const int cx = upright ? (rect.x0 + rect.x1) / 2 : i,
              cy = upright ? i : (rect.y0 + rect.y1) / 2;
    // The mode's displacement per unit force at its natural frequency.
    expected.push_back(b.scene.ModalFrf(truth, b.scene.setup().modes[truth].frequency_hz) *
                       b.scene.Displacement(truth, cx, cy));
  }
  ShapeCheck c;
  c.mac = Mac(measured, expected);
  c.acrossShare = acrossEnergy / (alongEnergy + acrossEnergy);
  std::complex<double> cross = 0.0;
  double norm = 0.0;
  for (std::size_t i = 0; i < measured.size(); ++i) {
    cross += measured[i] * std::conj(expected[i]);
    norm += std::norm(expected[i]);
  }
  c.gain = std::abs(cross) / norm;
  return c;
}

ModesResult RunModes(const RenderedBeam& b, ModesOptions options = {}) {
  options.fps = b.scene.setup().fps;
  ModesResult r;
  std::string error;
  EXPECT_EQ(ComputeModes(b.header, b.scene.excitation(), options, &r, &error), ModesStatus::kOk)
      << error;
  return r;
}

// Every mode of the scene found once, within 0.1 % in frequency and 10 % in
// damping, with nothing else; the shape along the beam against the truth;
// little in the component across it.
void ExpectAllModes(const char* what, const RenderedBeam& b, const ModesResult& r) {
  const double minMac[] = {0.99, 0.99, 0.95};
  SCOPED_TRACE(what);
  EXPECT_EQ(r.kind, ShapeKind::kDisplacement);
  const auto& truth = b.scene.setup().modes;
  ASSERT_EQ(r.modes.size(), truth.size());
  for (std::size_t k = 0; k < truth.size(); ++k) {
    EXPECT_NEAR(r.modes[k].frequencyHz / truth[k].frequency_hz, 1.0, 1e-3) << "mode " << k + 1;
    EXPECT_NEAR(r.modes[k].damping / truth[k].damping, 1.0, 0.1) << "mode " << k + 1;
    const ShapeCheck c = CheckShape(b, r, k, k);
    EXPECT_GE(c.mac, minMac[k]) << "mode " << k + 1;
    EXPECT_LE(c.acrossShare, 0.1) << "mode " << k + 1;
    EXPECT_NEAR(c.gain, 1.0, 0.1) << "mode " << k + 1;
  }
}

frfmap::BeamSetup Beam() {
  frfmap::BeamSetup setup;
  setup.width = 96;
  setup.height = 256;
  return setup;
}

TEST(DisplacementModes, BeamMovingSidewaysUnderCameraNoise) {
  const RenderedBeam b(Beam());
  ExpectAllModes("upright beam, 12-bit, random force", b, RunModes(b));
}

TEST(DisplacementModes, LyingBeamEightBitCameraAndChirp) {
  frfmap::BeamSetup lying = Beam(), chirp = Beam();
  lying.horizontal = true;
  std::swap(lying.width, lying.height);
  chirp.excitation = frfmap::Excitation::kChirp;
  for (const auto& [what, setup, bits] : {std::tuple{"lying beam", lying, 12},
                                          {"8-bit camera", Beam(), 8},
                                          {"periodic chirp", chirp, 12}}) {
    const RenderedBeam b(setup, bits);
    ExpectAllModes(what, b, RunModes(b));
  }
}

// A tenth of the motion: the first two modes still stand out of the noise.
TEST(DisplacementModes, ATenthOfThePixelMotion) {
  frfmap::BeamSetup setup = Beam();
  setup.motion = 0.025;
  const RenderedBeam b(setup);
  const ModesResult r = RunModes(b);
  ASSERT_GE(r.modes.size(), 2u);
  const auto& truth = b.scene.setup().modes;
  for (std::size_t k = 0; k < 2; ++k) {
    EXPECT_NEAR(r.modes[k].frequencyHz / truth[k].frequency_hz, 1.0, 1e-3) << "mode " << k + 1;
  }
}

// Windows with nothing to follow are unmeasured, not made up: inside the
// plain stretch of the beam and on the dark background.
TEST(DisplacementModes, NoTextureNoNumber) {
  frfmap::BeamSetup setup = Beam();
  setup.plain_patch = true;
  const RenderedBeam b(setup);
  const ModesResult r = RunModes(b);
  ASSERT_FALSE(r.modes.empty());
  const frfmap::BeamRect patch = b.scene.plain_patch();
  ASSERT_FALSE(patch.empty());
  const int radius = ModesOptions().flow.radius;
  int inside = 0;
  for (int y = patch.y0 + radius; y < patch.y1 - radius; ++y) {
    for (int x = patch.x0 + radius; x < patch.x1 - radius; ++x) {
      const std::size_t p = static_cast<std::size_t>(y) * r.width + x;
      EXPECT_TRUE(std::isnan(r.modes[0].dispX[p].real())) << x << "," << y;
      EXPECT_TRUE(std::isnan(r.modes[0].dispY[p].real())) << x << "," << y;
      ++inside;
    }
  }
  EXPECT_GT(inside, 0);
  EXPECT_TRUE(std::isnan(r.modes[0].dispX[0].real()));  // the background's corner
  // The speckled stretch next to it is measured.
  const frfmap::BeamRect beam = b.scene.beam();
  const int cx = (beam.x0 + beam.x1) / 2, cy = beam.y0 + 10;
  EXPECT_TRUE(std::isfinite(r.modes[0].dispX[static_cast<std::size_t>(cy) * r.width + cx].real()));
}

}  // namespace
}  // namespace frfcam::modes
