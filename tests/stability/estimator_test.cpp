#include "stability/estimator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>

#include "stability/direct_fit.h"
#include "stability/lscf.h"
#include "stability/synthetic.h"

namespace frfcam::stability {
namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

std::vector<std::int32_t> Range(int lo, int hi) {
  std::vector<std::int32_t> orders;
  for (int n = lo; n <= hi; ++n) orders.push_back(n);
  return orders;
}

// What the estimator's mapping makes of a true continuous-time pole p: the
// modulus of the pole shifted down by the band start, plus the band start.
struct Expected {
  double frequencyHz;
  double damping;
};
Expected Mapped(const SyntheticMode& mode, double fMin) {
  const std::complex<double> p = ModePole(mode);
  const double wn = std::abs(p - std::complex<double>(0.0, kTwoPi * fMin)) + kTwoPi * fMin;
  return {wn / kTwoPi, -p.real() / wn};
}

// The pole of `poles` nearest in frequency to `target`.
Eigen::Index Nearest(const lscf::SortedPoles& poles, double target) {
  Eigen::Index best = -1;
  double distance = std::numeric_limits<double>::infinity();
  for (Eigen::Index i = 0; i < poles.frequency.size(); ++i) {
    if (std::abs(poles.frequency[i] - target) < distance) {
      distance = std::abs(poles.frequency[i] - target);
      best = i;
    }
  }
  return best;
}

struct Sweep {
  lscf::Band band;
  ComplexMatrix basis;
  std::vector<RealVector> denominators;
  lscf::SortedPoles PolesOf(int n, int nMin) const {
    return lscf::SortPoles(lscf::DenominatorPoles(denominators[n - nMin], band.dt), band.fMin);
  }
};
Sweep FitAll(const SyntheticFrfs& data, int nMin, int nMax) {
  Sweep s;
  s.band = lscf::BandOf(data.omega);
  s.basis = lscf::BuildBasis(lscf::ShiftedOmega(data.omega, s.band), s.band.dt, nMax);
  s.denominators = lscf::FitDenominators(s.basis, data.matrix, nMin, nMax);
  return s;
}

// ---------------------------------------------------------------------------
// Recovery of known modes.

void ExpectModesRecovered(const SyntheticSystem& system, int nLo, int nHi, int step,
                          double frequencyTolerance, double dampingTolerance) {
  const SyntheticFrfs data = SynthesizeFrfs(system);
  const Sweep sweep = FitAll(data, nLo, nHi);
  EXPECT_DOUBLE_EQ(sweep.band.fMin, system.fMinHz);
  for (int n = nLo; n <= nHi; n += step) {
    const lscf::SortedPoles poles = sweep.PolesOf(n, nLo);
    for (const SyntheticMode& mode : system.modes) {
      const Expected want = Mapped(mode, system.fMinHz);
      const Eigen::Index i = Nearest(poles, want.frequencyHz);
      ASSERT_GE(i, 0) << "order " << n;
      EXPECT_NEAR(poles.frequency[i] / want.frequencyHz, 1.0, frequencyTolerance)
          << "order " << n << ", mode at " << mode.frequencyHz << " Hz";
      EXPECT_NEAR(poles.damping[i] / want.damping, 1.0, dampingTolerance)
          << "order " << n << ", mode at " << mode.frequencyHz << " Hz";
    }
  }
}

TEST(EstimatorRecovery, NoiseFreeModesAtHighOrders) {
  ExpectModesRecovered(DefaultFiveModeSystem(1000, 4, 0.0), 40, 60, 4, 1e-5, 1e-3);
}

TEST(EstimatorRecovery, NoiseFreeModesWithBandFromZero) {
  // No offset: the mapped pole is the physical one.
  SyntheticSystem s;
  s.modes = {{35.0, 0.03}, {80.0, 0.01}, {140.0, 0.02}};
  s.fMinHz = 0.0;
  s.fMaxHz = 200.0;
  s.numLines = 801;
  s.numChannels = 3;
  const Expected e = Mapped(s.modes[0], 0.0);
  EXPECT_DOUBLE_EQ(e.frequencyHz, 35.0);
  ExpectModesRecovered(s, 40, 56, 8, 1e-5, 1e-3);
}

TEST(EstimatorRecovery, NoisyModes) {
  ExpectModesRecovered(DefaultFiveModeSystem(2000, 8, 0.002), 40, 60, 5, 1e-3, 0.05);
}

// The whole estimation on noisy data: the physical modes end up in class s
// of the last order, each with the damping of the same pole.
TEST(EstimatorRecovery, LastOrderStablePolesAreTheModes) {
  const SyntheticSystem system = DefaultFiveModeSystem(2000, 8, 0.002);
  const SyntheticFrfs data = SynthesizeFrfs(system);
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, Range(36, 48), 0.01, 0.1, false, false);
  ASSERT_EQ(r.eigenFrequency.size(), r.dampingFactor.size());
  for (const SyntheticMode& mode : system.modes) {
    const Expected want = Mapped(mode, system.fMinHz);
    bool found = false;
    for (Eigen::Index i = 0; i < r.eigenFrequency.size(); ++i) {
      if (std::abs(r.eigenFrequency[i] / want.frequencyHz - 1.0) < 1e-3) {
        EXPECT_NEAR(r.dampingFactor[i] / want.damping, 1.0, 0.05);
        found = true;
      }
    }
    EXPECT_TRUE(found) << "mode at " << mode.frequencyHz << " Hz";
  }
}

// ---------------------------------------------------------------------------
// The fast formulation against the plain per-order normal equations.

TEST(EstimatorFormulation, MatchesPerOrderNormalEquations) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(600, 3, 0.002));
  const int nMin = 4, nMax = 32;
  const Sweep sweep = FitAll(data, nMin, nMax);
  ASSERT_EQ(sweep.denominators.size(), static_cast<size_t>(nMax - nMin + 1));
  for (int n = nMin; n <= nMax; n += 4) {
    const RealVector direct = direct::FitDenominator(sweep.basis, data.matrix, n);
    const RealVector& fast = sweep.denominators[n - nMin];
    ASSERT_EQ(fast.size(), n + 1);
    EXPECT_EQ(fast[n], 1.0);
    EXPECT_LT((fast - direct).norm() / direct.norm(), 1e-8) << "order " << n;

    const lscf::SortedPoles a = sweep.PolesOf(n, nMin);
    const lscf::SortedPoles b =
        lscf::SortPoles(lscf::DenominatorPoles(direct, sweep.band.dt), sweep.band.fMin);
    ASSERT_EQ(a.frequency.size(), b.frequency.size()) << "order " << n;
    for (Eigen::Index i = 0; i < a.frequency.size(); ++i) {
      if (a.frequency[i] >= sweep.band.fMax) continue;  // far outside: poorly determined
      EXPECT_NEAR(a.frequency[i] / b.frequency[i], 1.0, 1e-8) << "order " << n;
      EXPECT_NEAR(a.damping[i] / b.damping[i], 1.0, 1e-8) << "order " << n;
    }
  }
}

// The numerator of the frf channel over the common denominator: noise-free
// data is reproduced, and the numerator is the one the normal equations give.
TEST(EstimatorFormulation, FittedModelOfTheSingleFrf) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(800, 3, 0.0));
  const std::vector<std::int32_t> orders = Range(38, 40);
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, orders, 0.01, 0.05, true, false);
  ASSERT_EQ(r.frfNum.size(), data.frf.size());
  // The linearised criterion weights the error by |A(z)|, so the model is
  // close to the data overall rather than at every line.
  EXPECT_LT((r.frfNum - data.frf).norm() / data.frf.norm(), 1e-2);

  // Independent numerator: b = -R^-1 S a with R, S from the explicit basis.
  const Sweep sweep = FitAll(data, 40, 40);
  const RealVector& a = sweep.denominators[0];
  const ComplexMatrix x = sweep.basis.leftCols(41);
  const Eigen::MatrixXd rr = (x.adjoint() * x).real();
  const Eigen::MatrixXd s = -(x.adjoint() * data.frf.asDiagonal() * x).real();
  const RealVector b = -rr.partialPivLu().solve(s * a);
  const ComplexVector model =
      (x * b.cast<std::complex<double>>()).cwiseQuotient(x * a.cast<std::complex<double>>());
  EXPECT_LT((r.frfNum - model).norm() / model.norm(), 1e-8);

  const EstimationResult off =
      Estimate(data.omega, data.frf, data.matrix, orders, 0.01, 0.05, false, false);
  EXPECT_EQ(off.frfNum.size(), 0);
}

// With the second flag the single FRF takes part in the denominator fit: the
// FRF alone (no matrix columns) then yields the modes, without it nothing.
TEST(EstimatorFormulation, SecondFlagAddsTheSingleFrfAsAChannel) {
  const SyntheticSystem system = DefaultFiveModeSystem(800, 1, 0.0);
  const SyntheticFrfs data = SynthesizeFrfs(system);
  const ComplexMatrix noChannels(data.omega.size(), 0);
  const EstimationResult with =
      Estimate(data.omega, data.frf, noChannels, Range(30, 40), 0.01, 0.05, false, true);
  const EstimationResult matrixOnly =
      Estimate(data.omega, data.frf, data.matrix, Range(30, 40), 0.01, 0.05, false, false);
  const EstimationResult without =
      Estimate(data.omega, data.frf, noChannels, Range(30, 40), 0.01, 0.05, false, false);

  // One channel equal to the FRF: the same fit either way.
  ASSERT_EQ(with.eigenFrequency.size(), matrixOnly.eigenFrequency.size());
  for (Eigen::Index i = 0; i < with.eigenFrequency.size(); ++i) {
    EXPECT_NEAR(with.eigenFrequency[i], matrixOnly.eigenFrequency[i], 1e-9);
  }
  EXPECT_GE(with.eigenFrequency.size(), 5);
  ASSERT_EQ(without.sByOrder.size(), 10u);
  for (size_t k = 0; k < 10; ++k) {
    EXPECT_EQ(without.sByOrder[k].size() + without.fByOrder[k].size() + without.dByOrder[k].size() +
                  without.oByOrder[k].size(),
              0);
  }
  EXPECT_TRUE(without.poleFrequencyByOrder.empty());
}

// ---------------------------------------------------------------------------
// Shape of the result.

TEST(EstimatorResult, ListsPerOrderAndTheLastOrdersStablePoles) {
  const SyntheticSystem system = DefaultFiveModeSystem(1000, 4, 0.002);
  const SyntheticFrfs data = SynthesizeFrfs(system);
  // Only the extremes of the list count.
  const std::vector<std::int32_t> orders = {20, 37, 12, 29};
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, orders, 0.01, 0.05, false, false);
  ASSERT_EQ(r.sByOrder.size(), 25u);
  ASSERT_EQ(r.fByOrder.size(), 25u);
  ASSERT_EQ(r.dByOrder.size(), 25u);
  ASSERT_EQ(r.oByOrder.size(), 25u);

  // Every in-band pole of an order lands in exactly one class.
  const Sweep sweep = FitAll(data, 12, 37);
  size_t withS = 0;
  for (int n = 13; n <= 37; ++n) {
    const size_t k = n - 13;
    const lscf::SortedPoles poles = sweep.PolesOf(n, 12);
    Eigen::Index inBand = 0;
    for (double f : poles.frequency) inBand += (f > sweep.band.fMin && f < sweep.band.fMax);
    EXPECT_EQ(
        r.sByOrder[k].size() + r.fByOrder[k].size() + r.dByOrder[k].size() + r.oByOrder[k].size(),
        inBand)
        << "order " << n;
    if (r.sByOrder[k].size() > 0) {
      ASSERT_LT(withS, r.poleFrequencyByOrder.size());
      EXPECT_EQ(r.poleFrequencyByOrder[withS], r.sByOrder[k]);
      EXPECT_EQ(r.poleDampingByOrder[withS].size(), r.sByOrder[k].size());
      ++withS;
    }
    for (Eigen::Index i = 1; i < r.sByOrder[k].size(); ++i) {
      EXPECT_LE(r.sByOrder[k][i - 1], r.sByOrder[k][i]);
    }
  }
  EXPECT_EQ(withS, r.poleFrequencyByOrder.size());
  EXPECT_EQ(r.poleDampingByOrder.size(), r.poleFrequencyByOrder.size());
  ASSERT_GT(r.sByOrder.back().size(), 0);
  EXPECT_EQ(r.eigenFrequency, r.sByOrder.back());
  EXPECT_EQ(r.dampingFactor, r.poleDampingByOrder.back());
}

TEST(EstimatorResult, SingleOrderClassifiesNothing) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(500, 2, 0.0));
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, {24}, 0.01, 0.05, true, false);
  EXPECT_TRUE(r.sByOrder.empty());
  EXPECT_TRUE(r.fByOrder.empty());
  EXPECT_TRUE(r.dByOrder.empty());
  EXPECT_TRUE(r.oByOrder.empty());
  EXPECT_TRUE(r.poleFrequencyByOrder.empty());
  EXPECT_TRUE(r.poleDampingByOrder.empty());
  EXPECT_EQ(r.eigenFrequency.size(), 0);
  EXPECT_EQ(r.dampingFactor.size(), 0);
  EXPECT_EQ(r.frfNum.size(), 500);  // the order is still estimated
}

// ---------------------------------------------------------------------------
// Inputs that yield no poles, but never stop the process.

TEST(EstimatorInputs, DegenerateDataGivesNoPoles) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(300, 2, 0.0));
  const auto classifiedCount = [](const EstimationResult& r) {
    size_t count = 0;
    for (size_t k = 0; k < r.sByOrder.size(); ++k) {
      count +=
          r.sByOrder[k].size() + r.fByOrder[k].size() + r.dByOrder[k].size() + r.oByOrder[k].size();
    }
    return count;
  };

  // No lines at all.
  const EstimationResult empty = Estimate(RealVector(0), ComplexVector(0), ComplexMatrix(0, 2),
                                          Range(2, 6), 0.01, 0.05, true, true);
  EXPECT_EQ(empty.sByOrder.size(), 4u);
  EXPECT_EQ(classifiedCount(empty), 0u);
  EXPECT_EQ(empty.frfNum.size(), 0);

  // All lines at one frequency: the band has no width.
  const RealVector flat = RealVector::Constant(300, 100.0);
  EXPECT_EQ(
      classifiedCount(Estimate(flat, data.frf, data.matrix, Range(2, 8), 0.01, 0.05, true, false)),
      0u);

  // A non-finite sample spoils every sum.
  ComplexMatrix spoiled = data.matrix;
  spoiled(17, 1) = {kNaN, 0.0};
  const EstimationResult nan =
      Estimate(data.omega, data.frf, spoiled, Range(2, 8), 0.01, 0.05, true, false);
  EXPECT_EQ(classifiedCount(nan), 0u);
  EXPECT_EQ(nan.sByOrder.size(), 6u);

  // No channels to fit.
  EXPECT_EQ(classifiedCount(Estimate(data.omega, data.frf, ComplexMatrix(300, 0), Range(2, 8), 0.01,
                                     0.05, false, false)),
            0u);

  // No orders, and orders without a polynomial.
  const EstimationResult noOrders =
      Estimate(data.omega, data.frf, data.matrix, {}, 0.01, 0.05, true, true);
  EXPECT_TRUE(noOrders.sByOrder.empty());
  EXPECT_EQ(noOrders.frfNum.size(), 0);
  const EstimationResult negative =
      Estimate(data.omega, data.frf, data.matrix, Range(-3, 0), 0.01, 0.05, false, false);
  EXPECT_EQ(negative.sByOrder.size(), 3u);
  EXPECT_EQ(classifiedCount(negative), 0u);
}

// Fewer lines than coefficients: the low orders are still fitted, the orders
// the lines cannot determine have no poles.
TEST(EstimatorInputs, TooFewLinesForTheHighOrders) {
  SyntheticSystem system;
  system.modes = {{50.0, 0.02}};
  system.fMinHz = 20.0;
  system.fMaxHz = 100.0;
  system.numLines = 9;
  const SyntheticFrfs data = SynthesizeFrfs(system);
  const lscf::Band band = lscf::BandOf(data.omega);
  const ComplexMatrix basis = lscf::BuildBasis(lscf::ShiftedOmega(data.omega, band), band.dt, 30);
  const std::vector<RealVector> a = lscf::FitDenominators(basis, data.matrix, 2, 30);
  EXPECT_TRUE(a.front().allFinite());
  EXPECT_FALSE(a.back().allFinite());
  EXPECT_EQ(lscf::DenominatorPoles(a.back(), band.dt).size(), 0);

  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, Range(2, 30), 0.01, 0.05, true, false);
  EXPECT_EQ(r.sByOrder.size(), 28u);
  EXPECT_EQ(r.oByOrder.back().size(), 0);
  EXPECT_FALSE(r.frfNum.allFinite());

  // An absurd order range costs only its bookkeeping.
  const EstimationResult huge =
      Estimate(data.omega, data.frf, data.matrix, {2, 100000}, 0.01, 0.05, true, false);
  ASSERT_EQ(huge.oByOrder.size(), 99998u);
  for (size_t k = 20; k < huge.oByOrder.size(); k += 997) {
    EXPECT_EQ(huge.sByOrder[k].size() + huge.fByOrder[k].size() + huge.dByOrder[k].size() +
                  huge.oByOrder[k].size(),
              0);
  }
  EXPECT_EQ(huge.frfNum.size(), 9);
}

TEST(EstimatorInputs, MismatchedSizesAreRejected) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(100, 2, 0.0));
  const RealVector shortOmega = data.omega.head(99);
  EXPECT_THROW(Estimate(shortOmega, data.frf, data.matrix, {2, 4}, 0.01, 0.05, false, false),
               std::invalid_argument);
  const ComplexVector shortFrf = data.frf.head(50);
  EXPECT_THROW(Estimate(data.omega, shortFrf, data.matrix, {2, 4}, 0.01, 0.05, true, false),
               std::invalid_argument);
  EXPECT_THROW(Estimate(data.omega, shortFrf, data.matrix, {2, 4}, 0.01, 0.05, false, true),
               std::invalid_argument);
  // The single FRF is not used with both flags clear.
  EXPECT_NO_THROW(Estimate(data.omega, shortFrf, data.matrix, {2, 4}, 0.01, 0.05, false, false));
}

// ---------------------------------------------------------------------------
// Poles of a denominator.

TEST(EstimatorPoles, RootsMapToUpperLeftHalfPlane) {
  const double dt = 1e-3;
  // Roots z = exp(s dt) of a known pair and a real root: (z - z1)(z - conj z1)(z - 0.5).
  const std::complex<double> s1(-20.0, 900.0);
  const std::complex<double> z1 = std::exp(s1 * dt);
  const double c1 = -2.0 * z1.real(), c0 = std::norm(z1);
  // (z^2 + c1 z + c0)(z - 0.5)
  RealVector a(4);
  a << -0.5 * c0, c0 - 0.5 * c1, c1 - 0.5, 1.0;
  const ComplexVector poles = lscf::DenominatorPoles(a, dt);
  ASSERT_EQ(poles.size(), 1);  // the real root and the lower conjugate go
  EXPECT_NEAR(poles[0].real(), s1.real(), 1e-8);
  EXPECT_NEAR(poles[0].imag(), s1.imag(), 1e-8);

  // Unstable pair (|z| > 1) is dropped; a constant has no poles.
  RealVector unstable(3);
  unstable << 1.21, -2.0 * 1.1 * std::cos(0.3), 1.0;
  EXPECT_EQ(lscf::DenominatorPoles(unstable, dt).size(), 0);
  EXPECT_EQ(lscf::DenominatorPoles(RealVector::Ones(1), dt).size(), 0);
  RealVector nan = unstable;
  nan[0] = kNaN;
  EXPECT_EQ(lscf::DenominatorPoles(nan, dt).size(), 0);
}

TEST(EstimatorPoles, SortedByNaturalFrequencyWithBandOffset) {
  ComplexVector s(3);
  s << std::complex<double>(-3.0, 4.0), std::complex<double>(-0.6, 0.8),
      std::complex<double>(-6.0, 8.0);
  const double fMin = 10.0;
  const lscf::SortedPoles sorted = lscf::SortPoles(s, fMin);
  ASSERT_EQ(sorted.frequency.size(), 3);
  // |s| = 1, 5, 10 rad/s, offset added to the modulus.
  const double offset = kTwoPi * fMin;
  EXPECT_DOUBLE_EQ(sorted.frequency[0], (1.0 + offset) / kTwoPi);
  EXPECT_DOUBLE_EQ(sorted.frequency[1], (5.0 + offset) / kTwoPi);
  EXPECT_DOUBLE_EQ(sorted.frequency[2], (10.0 + offset) / kTwoPi);
  EXPECT_DOUBLE_EQ(sorted.damping[0], 0.6 / (1.0 + offset));
  EXPECT_DOUBLE_EQ(sorted.damping[1], 3.0 / (5.0 + offset));
  EXPECT_DOUBLE_EQ(sorted.damping[2], 6.0 / (10.0 + offset));
}

TEST(EstimatorPoles, StableSortKeepsTheOrderOfEquals) {
  RealVector v(6);
  v << 3.0, 1.0, 2.0, 1.0, kNaN, 2.0;
  const std::vector<int> p = lscf::StableSortPermutation(v);
  EXPECT_EQ(p, (std::vector<int>{1, 3, 2, 5, 0, 4}));
  RealVector damping(6);
  damping << 30, 10, 20, 11, 40, 21;
  const RealVector g = lscf::Gather(damping, p);
  EXPECT_EQ(g, (RealVector(6) << 10, 11, 20, 21, 30, 40).finished());
}

// ---------------------------------------------------------------------------
// Classification against the previous order.

lscf::SortedPoles Poles(std::initializer_list<double> f, std::initializer_list<double> zeta) {
  lscf::SortedPoles p;
  p.frequency = Eigen::Map<const RealVector>(f.begin(), static_cast<Eigen::Index>(f.size()));
  p.damping = Eigen::Map<const RealVector>(zeta.begin(), static_cast<Eigen::Index>(zeta.size()));
  return p;
}

TEST(EstimatorClassification, FourClassesRelativeToTheCurrentPole) {
  // Reference 100 Hz at 2 % damping; tolerances 1 % and 10 %.
  const lscf::SortedPoles reference = Poles({100.0}, {0.02});
  const lscf::SortedPoles current =
      Poles({99.0, 100.0, 100.0, 101.0, 150.0, 160.0}, {0.02, 0.019, 0.025, 0.02, 0.021, 0.03});
  const lscf::OrderClasses c = lscf::ClassifyOrder(current, reference, 10.0, 500.0, 0.01, 0.1);
  // 99 Hz: 1/99 > 1 % (against the reference's own value it would be 1 %).
  // 101 Hz: 1/101 < 1 %. 100 Hz at 2.5 %: 0.005/0.025 = 20 % > 10 %.
  EXPECT_EQ(c.s, (std::vector<double>{100.0, 101.0}));
  EXPECT_EQ(c.sDamping, (std::vector<double>{0.019, 0.02}));
  EXPECT_EQ(c.f, (std::vector<double>{100.0}));
  EXPECT_EQ(c.d, (std::vector<double>{99.0, 150.0}));
  EXPECT_EQ(c.o, (std::vector<double>{160.0}));

  // Damping relative to the current pole too: 0.005/0.025 = 20 % passes a
  // 22 % tolerance, 0.005/0.02 = 25 % would not.
  const lscf::OrderClasses d =
      lscf::ClassifyOrder(Poles({100.0}, {0.025}), reference, 10.0, 500.0, 0.01, 0.22);
  EXPECT_EQ(d.s, (std::vector<double>{100.0}));
}

TEST(EstimatorClassification, TolerancesAreInclusive) {
  // |100 - 101| / 100 is exactly 0.01; |0.02 - 0.03| / 0.02 is 0.5.
  const lscf::OrderClasses c =
      lscf::ClassifyOrder(Poles({100.0}, {0.02}), Poles({101.0}, {0.03}), 10.0, 500.0, 0.01, 0.5);
  EXPECT_EQ(c.s, (std::vector<double>{100.0}));
  const lscf::OrderClasses tighter = lscf::ClassifyOrder(
      Poles({100.0}, {0.02}), Poles({101.0}, {0.03}), 10.0, 500.0, 0.0099, 0.49);
  EXPECT_EQ(tighter.o, (std::vector<double>{100.0}));
}

TEST(EstimatorClassification, BandEdgesAreStrict) {
  const lscf::SortedPoles poles = Poles({10.0, 10.5, 499.5, 500.0}, {0.01, 0.01, 0.01, 0.01});
  const lscf::OrderClasses c = lscf::ClassifyOrder(poles, poles, 10.0, 500.0, 0.01, 0.1);
  EXPECT_EQ(c.s, (std::vector<double>{10.5, 499.5}));
  EXPECT_TRUE(c.f.empty() && c.d.empty() && c.o.empty());
}

TEST(EstimatorClassification, TieGoesToTheLowerReference) {
  // 100 Hz is 10 % from both 90 and 110 Hz; the damping comparison uses 90 Hz.
  const lscf::SortedPoles reference = Poles({90.0, 110.0}, {0.02, 0.05});
  const lscf::OrderClasses a =
      lscf::ClassifyOrder(Poles({100.0}, {0.02}), reference, 10.0, 500.0, 0.1, 0.1);
  EXPECT_EQ(a.s, (std::vector<double>{100.0}));
  const lscf::OrderClasses b =
      lscf::ClassifyOrder(Poles({100.0}, {0.05}), reference, 10.0, 500.0, 0.1, 0.1);
  EXPECT_EQ(b.f, (std::vector<double>{100.0}));
}

TEST(EstimatorClassification, ZeroDampingIsNeverStableInDamping) {
  const lscf::SortedPoles reference = Poles({100.0, 300.0}, {0.02, 0.0});
  // Infinite relative damping change: f when the frequency matches, o otherwise.
  const lscf::OrderClasses c =
      lscf::ClassifyOrder(Poles({100.0, 200.0}, {0.0, 0.0}), reference, 10.0, 500.0, 0.01, 1e300);
  EXPECT_EQ(c.f, (std::vector<double>{100.0}));
  EXPECT_EQ(c.o, (std::vector<double>{200.0}));
  EXPECT_TRUE(c.s.empty() && c.d.empty());
  // 0/0 against a zero-damped reference: in no class at all.
  const lscf::OrderClasses nan =
      lscf::ClassifyOrder(Poles({300.0}, {0.0}), reference, 10.0, 500.0, 0.01, 1e300);
  EXPECT_TRUE(nan.s.empty() && nan.f.empty() && nan.d.empty() && nan.o.empty());
  // NaN tolerances likewise.
  const lscf::OrderClasses nanTol =
      lscf::ClassifyOrder(Poles({100.0}, {0.02}), reference, 10.0, 500.0, kNaN, kNaN);
  EXPECT_TRUE(nanTol.s.empty() && nanTol.f.empty() && nanTol.d.empty() && nanTol.o.empty());
}

TEST(EstimatorClassification, EmptyReferenceGivesClassO) {
  const lscf::OrderClasses c = lscf::ClassifyOrder(Poles({5.0, 100.0, 200.0}, {0.01, 0.01, 0.02}),
                                                   Poles({}, {}), 10.0, 500.0, 0.01, 0.1);
  EXPECT_EQ(c.o, (std::vector<double>{100.0, 200.0}));
  EXPECT_TRUE(c.s.empty() && c.f.empty() && c.d.empty());
}

// Order 0 has no poles, so order 1 is classified against an empty reference.
TEST(EstimatorClassification, OrderAfterAnOrderWithoutPoles) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(400, 2, 0.0));
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, Range(0, 4), 0.01, 0.05, false, false);
  ASSERT_EQ(r.sByOrder.size(), 4u);
  EXPECT_EQ(r.sByOrder[0].size() + r.fByOrder[0].size() + r.dByOrder[0].size(), 0);
}

}  // namespace
}  // namespace frfcam::stability
