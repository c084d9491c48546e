#include "stability/synthetic.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <stdexcept>

namespace frfcam::stability {
namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

SyntheticSystem TwoModes() {
  SyntheticSystem s;
  s.modes = {{50.0, 0.02}, {130.0, 0.01}};
  s.fMinHz = 20.0;
  s.fMaxHz = 200.0;
  s.numLines = 361;
  s.numChannels = 3;
  return s;
}

// The second-order terms written as first-order partial fractions around the
// conjugate pole pair: an independent evaluation of the same FRFs.
TEST(Synthetic, MatchesPolePairFormAndLineGrid) {
  SyntheticSystem s = TwoModes();
  s.upperResidual = {0.3, -0.1};
  s.lowerResidual = {2.0e4, 1.0e3};
  const SyntheticFrfs out = SynthesizeFrfs(s);
  ASSERT_EQ(out.omega.size(), 361);
  ASSERT_EQ(out.matrix.rows(), 361);
  ASSERT_EQ(out.matrix.cols(), 3);
  ASSERT_EQ(out.residues.size(), 3u);
  EXPECT_DOUBLE_EQ(out.omega[0], kTwoPi * 20.0);
  EXPECT_DOUBLE_EQ(out.omega[360], kTwoPi * 200.0);
  EXPECT_NEAR(out.omega[180], kTwoPi * 110.0, 1e-9);

  for (int c = 0; c < 3; ++c) {
    for (int k = 0; k < 361; k += 37) {
      const std::complex<double> iw(0.0, out.omega[k]);
      std::complex<double> expected = 0.0;
      for (size_t r = 0; r < s.modes.size(); ++r) {
        const std::complex<double> p = ModePole(s.modes[r]);
        expected += out.residues[c][r] / ((iw - p) * (iw - std::conj(p)));
      }
      if (c == 0) expected += s.upperResidual + s.lowerResidual / (iw * iw);
      EXPECT_NEAR(std::abs(out.matrix(k, c) - expected), 0.0, 1e-12 * std::abs(expected))
          << "channel " << c << " line " << k;
    }
  }
  EXPECT_NE(out.residues[0][1], out.residues[1][1]);  // channels see the modes differently
  EXPECT_EQ(out.frf, ComplexVector(out.matrix.col(0)));
  EXPECT_EQ(out.upperResidual, s.upperResidual);
  EXPECT_EQ(out.lowerResidual, s.lowerResidual);
}

TEST(Synthetic, NoiseHasRequestedLevelAndIsReproducible) {
  SyntheticSystem clean = TwoModes();
  clean.numLines = 4000;
  SyntheticSystem noisy = clean;
  noisy.noise = 0.01;
  noisy.seed = 7;
  const SyntheticFrfs a = SynthesizeFrfs(clean);
  const SyntheticFrfs b = SynthesizeFrfs(noisy);
  const SyntheticFrfs b2 = SynthesizeFrfs(noisy);
  noisy.seed = 8;
  const SyntheticFrfs other = SynthesizeFrfs(noisy);

  EXPECT_EQ(b.matrix, b2.matrix);
  EXPECT_NE(b.matrix, other.matrix);
  for (int c = 0; c < 3; ++c) {
    const double signalRms = a.matrix.col(c).norm() / std::sqrt(4000.0);
    const ComplexVector diff = b.matrix.col(c) - a.matrix.col(c);
    const double noiseRms = diff.norm() / std::sqrt(4000.0);
    EXPECT_NEAR(noiseRms / signalRms, 0.01, 0.0006) << "channel " << c;
    // Real and imaginary parts carry equal shares and no offset.
    EXPECT_NEAR(diff.real().norm() / diff.imag().norm(), 1.0, 0.08);
    EXPECT_LT(std::abs(diff.mean()), 4.0 * 0.01 * signalRms / std::sqrt(4000.0));
  }
}

TEST(Synthetic, DegenerateAndInvalidSystems) {
  SyntheticSystem s = TwoModes();
  s.fMinHz = 0.0;  // a 0 Hz line is finite without a lower residual
  EXPECT_TRUE(SynthesizeFrfs(s).matrix.allFinite());
  s.fMinHz = 20.0;

  s.numLines = 1;
  SyntheticFrfs one = SynthesizeFrfs(s);
  ASSERT_EQ(one.omega.size(), 1);
  EXPECT_DOUBLE_EQ(one.omega[0], kTwoPi * 20.0);

  s.numLines = 0;
  s.numChannels = 0;
  SyntheticFrfs none = SynthesizeFrfs(s);
  EXPECT_EQ(none.matrix.size(), 0);
  EXPECT_EQ(none.frf.size(), 0);

  const auto bad = [](auto mutate) {
    SyntheticSystem t = TwoModes();
    mutate(t);
    return t;
  };
  EXPECT_THROW(SynthesizeFrfs(bad([](SyntheticSystem& t) { t.numLines = -1; })),
               std::invalid_argument);
  EXPECT_THROW(SynthesizeFrfs(bad([](SyntheticSystem& t) { t.fMaxHz = 10.0; })),
               std::invalid_argument);
  EXPECT_THROW(SynthesizeFrfs(bad([](SyntheticSystem& t) { t.noise = -0.1; })),
               std::invalid_argument);
  EXPECT_THROW(SynthesizeFrfs(bad([](SyntheticSystem& t) { t.modes[1].damping = -0.01; })),
               std::invalid_argument);
}

}  // namespace
}  // namespace frfcam::stability
