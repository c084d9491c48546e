#include "stability/significance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "stability/synthetic.h"

namespace frfcam::stability {
namespace {

// Three modes (those of three equal masses on a fixed-free spring chain),
// three channels, complex noise of `noise` times each channel's RMS
// magnitude.
constexpr double kHz[] = {50.0, 140.1, 202.5};
constexpr double kZeta[] = {0.02, 0.015, 0.01};
SyntheticFrfs ThreeModes(double noise, unsigned seed) {
  SyntheticSystem desc{{}, 1.0, 300.0, 1000, 3, noise, seed};
  for (int r = 0; r < 3; ++r) desc.modes.push_back({kHz[r], kZeta[r]});
  return SynthesizeFrfs(desc);
}

// True when `got` holds exactly the true modes, each within 0.5 % in
// frequency.
bool ExactlyTheModes(const SelectedPoles& got) {
  if (got.frequency.size() != 3) return false;
  for (int r = 0; r < 3; ++r) {
    if (std::abs(got.frequency[r] / kHz[r] - 1.0) > 0.005) return false;
  }
  return true;
}

// The defaults pick the three true modes and nothing else in at least nine of
// ten noise seeds at 1 % noise, where the exact rule alone picks spurious ones.
TEST(Significance, DefaultsFindThreeModesAcrossNoiseSeeds) {
  const SelectionSettings d;
  int exactRight = 0, right = 0;
  for (unsigned seed = 1; seed <= 10; ++seed) {
    const SyntheticFrfs s = ThreeModes(0.01, seed);
    const EstimationResult e =
        Estimate(s.omega, ComplexVector(), s.matrix, {d.minOrder, d.maxOrder}, d.frequencyTolerance,
                 d.dampingTolerance, false, false);
    const SelectedPoles exact = SelectStablePoles(e.poleFrequencyByOrder, e.poleDampingByOrder,
                                                  d.selectionTolerance, d.minStableCount);
    const SelectedPoles got = SelectModes(e, s.omega, s.matrix, d);
    right += ExactlyTheModes(got);
    exactRight += ExactlyTheModes(exact);
    if (ExactlyTheModes(got)) {
      for (int r = 0; r < 3; ++r) EXPECT_NEAR(got.damping[r] / kZeta[r], 1.0, 0.1) << seed;
    }
  }
  std::printf("true modes only: %d of 10 seeds (exact rule alone: %d)\n", right, exactRight);
  EXPECT_GE(right, 9);
  EXPECT_LT(exactRight, right);
}

// Residual energy, over all channels, of the least-squares fit of the
// columns of `a` to `h`: the plain way, one solve per channel.
double ResidualEnergy(const ComplexMatrix& a, const ComplexMatrix& h) {
  return (h - a * a.colPivHouseholderQr().solve(h)).squaredNorm();
}

// Duplicates and noise poles go; unphysical poles are dropped before any fit.
// Each significance is the growth of the residual energy when that pole
// leaves the full fit, over the full fit's residual energy per line.
TEST(Significance, VerdictsAreTheResidualGrowthPerLine) {
  const SyntheticFrfs s = ThreeModes(0.001, 3);
  SelectedPoles candidates;
  candidates.frequency.resize(7);
  candidates.damping.resize(7);
  candidates.frequency << kHz[0], kHz[0] * 1.004, kHz[1], kHz[2], 260.0, 120.0, 400.0;
  candidates.damping << kZeta[0], kZeta[0], kZeta[1], kZeta[2], 0.01, 0.5, 0.01;
  std::vector<PoleVerdict> verdicts;
  const SelectedPoles got =
      FilterSignificantPoles(candidates, s.omega, s.matrix, SelectionSettings{}, &verdicts);
  ASSERT_TRUE(ExactlyTheModes(got));
  ASSERT_EQ(verdicts.size(), 7u);
  for (const auto& v : verdicts) {
    if (v.frequency == 120.0 || v.frequency == 400.0) {
      EXPECT_EQ(v.significance, 0.0);
    }
    EXPECT_EQ(v.kept, v.frequency == kHz[0] || v.frequency == kHz[1] || v.frequency == kHz[2]);
  }

  // With no threshold nothing is eliminated: every physical pole's verdict
  // is that of the full fit of the five.
  SelectionSettings all;
  all.minSignificance = 0.0;
  FilterSignificantPoles(candidates, s.omega, s.matrix, all, &verdicts);
  const std::vector<int> physical = {0, 1, 3, 4, 5};  // in frequency order; 120 Hz is not
  RealVector f(5), z(5);
  for (int r = 0; r < 5; ++r) f[r] = verdicts[physical[r]].frequency;
  for (int r = 0; r < 5; ++r) z[r] = verdicts[physical[r]].damping;
  const ComplexMatrix a = ModalDesignMatrix(s.omega, f, z);
  const double full = ResidualEnergy(a, s.matrix);
  for (int r = 0; r < 5; ++r) {
    ComplexMatrix without(a.rows(), a.cols() - 1);
    without << a.leftCols(r), a.rightCols(a.cols() - 1 - r);
    const double want =
        (ResidualEnergy(without, s.matrix) - full) / (full / double(s.omega.size()));
    // The filter solves normal equations: about 1e-5 of the plain solves.
    EXPECT_NEAR(verdicts[physical[r]].significance / want, 1.0, 2e-4) << f[r] << " Hz";
    EXPECT_TRUE(verdicts[physical[r]].kept);
  }
}

// The thresholds a few per cent either side of a pole's value: the least
// significant pole goes just above its significance and stays just below;
// damping up to maxDamping inclusive is physical, frequency strictly inside
// the band of the lines (1..300 Hz).
TEST(Significance, ThresholdsWithRealisticMargins) {
  const SyntheticFrfs s = ThreeModes(0.01, 5);
  SelectedPoles candidates;
  candidates.frequency = Eigen::Map<const RealVector>(kHz, 3);
  candidates.damping = Eigen::Map<const RealVector>(kZeta, 3);
  std::vector<PoleVerdict> verdicts;
  SelectionSettings settings;
  settings.minSignificance = 0.0;
  FilterSignificantPoles(candidates, s.omega, s.matrix, settings, &verdicts);
  const auto weakest = std::min_element(
      verdicts.begin(), verdicts.end(),
      [](const PoleVerdict& x, const PoleVerdict& y) { return x.significance < y.significance; });
  const double threshold = weakest->significance;
  const double hz = weakest->frequency;
  const auto keeps = [&](const SelectionSettings& with, double frequency) {
    const SelectedPoles got = FilterSignificantPoles(candidates, s.omega, s.matrix, with);
    return (got.frequency.array() == frequency).any();
  };
  settings.minSignificance = threshold * 1.03;
  EXPECT_FALSE(keeps(settings, hz));
  settings.minSignificance = threshold * 0.97;
  EXPECT_TRUE(keeps(settings, hz));

  settings.minSignificance = 0.0;
  settings.maxDamping = kZeta[1];  // inclusive
  EXPECT_TRUE(keeps(settings, kHz[1]));
  settings.maxDamping = kZeta[1] * 0.97;
  EXPECT_FALSE(keeps(settings, kHz[1]));
  EXPECT_TRUE(keeps(settings, kHz[2]));

  settings.maxDamping = 0.2;
  candidates.frequency << kHz[0], 1.0, 299.7;  // the first line, and just inside the last
  FilterSignificantPoles(candidates, s.omega, s.matrix, settings, &verdicts);
  EXPECT_FALSE(verdicts[0].kept);
  EXPECT_TRUE(verdicts[2].kept);
}

}  // namespace
}  // namespace frfcam::stability
