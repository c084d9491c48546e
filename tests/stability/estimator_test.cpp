#include "stability/estimator.h"

#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>
#include <sstream>
#include <string>

#include "stability/direct_fit.h"
#include "stability/lscf.h"
#include "stability/synthetic.h"

namespace frfcam::stability {
namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// What the estimator's mapping makes of a true continuous-time pole p: the
// modulus of the pole shifted down by the band start, plus the band start.
SyntheticMode Mapped(const SyntheticMode& mode, double fMin) {
  const std::complex<double> p = ModePole(mode);
  const double wn = std::abs(p - std::complex<double>(0.0, kTwoPi * fMin)) + kTwoPi * fMin;
  return {wn / kTwoPi, -p.real() / wn};
}

// Index of the value of `v` nearest to `target`.
Eigen::Index Nearest(const RealVector& v, double target) {
  Eigen::Index best = 0;
  (v.array() - target).abs().minCoeff(&best);
  return best;
}

// Poles in the chart at entry k, whatever their class.
std::size_t ChartPoles(const EstimationResult& r, std::size_t k) {
  return r.sByOrder[k].size() + r.fByOrder[k].size() + r.dByOrder[k].size() + r.oByOrder[k].size();
}

// With 0.2 % noise every mode is among the stable poles of the last order,
// with the damping of that same pole.
TEST(EstimatorRecovery, NoisyModesAreTheLastOrdersStablePoles) {
  const SyntheticSystem system = DefaultFiveModeSystem(2000, 8, 0.002);
  const SyntheticFrfs data = SynthesizeFrfs(system);
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, {36, 48}, 0.01, 0.1, false, false);
  ASSERT_GT(r.eigenFrequency.size(), 0);
  for (const SyntheticMode& mode : system.modes) {
    const SyntheticMode want = Mapped(mode, system.fMinHz);
    const Eigen::Index i = Nearest(r.eigenFrequency, want.frequencyHz);
    EXPECT_NEAR(r.eigenFrequency[i] / want.frequencyHz, 1.0, 1e-3) << mode.frequencyHz;
    EXPECT_NEAR(r.dampingFactor[i] / want.damping, 1.0, 0.05) << mode.frequencyHz;
  }
}

// The Toeplitz/Cholesky formulation against the plain per-order normal
// equations. The poles follow from the coefficients by the same routine, which
// the chart tests check against the eigenvalues.
TEST(EstimatorFormulation, MatchesPerOrderNormalEquations) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(600, 3, 0.002));
  const lscf::Band band = lscf::BandOf(data.omega);
  const ComplexMatrix basis = lscf::BuildBasis(lscf::ShiftedOmega(data.omega, band), band.dt, 32);
  const std::vector<RealVector> denominators = lscf::FitDenominators(basis, data.matrix, 4, 32);
  ASSERT_EQ(denominators.size(), 29u);
  for (int n = 4; n <= 32; n += 4) {
    const RealVector direct = direct::FitDenominator(basis, data.matrix, n);
    const RealVector& fast = denominators[n - 4];
    ASSERT_EQ(fast.size(), n + 1);
    EXPECT_LT((fast - direct).norm() / direct.norm(), 1e-8) << "order " << n;
  }
}

// The chart of orders nMin + 1..nMax as the companion eigenvalues give it:
// the reference for the warm-started roots of Estimate.
std::vector<lscf::OrderClasses> CompanionChart(const SyntheticFrfs& data, int nMin, int nMax,
                                               double frequencyTolerance, double dampingTolerance) {
  const lscf::Band band = lscf::BandOf(data.omega);
  const ComplexMatrix basis = lscf::BuildBasis(lscf::ShiftedOmega(data.omega, band), band.dt, nMax);
  const std::vector<RealVector> denominators =
      lscf::FitDenominators(basis, data.matrix, nMin, nMax);
  const auto polesOf = [&](const RealVector& a) {
    return lscf::SortPoles(lscf::DenominatorPoles(a, band.dt), band.fMin);
  };
  std::vector<lscf::OrderClasses> chart;
  lscf::SortedPoles previous = polesOf(denominators.front());
  for (std::size_t i = 1; i < denominators.size(); ++i) {
    const lscf::SortedPoles current = polesOf(denominators[i]);
    chart.push_back(lscf::ClassifyOrder(current, previous, band.fMin, band.fMax, frequencyTolerance,
                                        dampingTolerance));
    previous = current;
  }
  return chart;
}

// Every order's four class lists equal the reference in count and within
// `tolerance` Hz (0: the same bits); returns the number of poles compared.
std::size_t ExpectChartsEqual(const EstimationResult& r,
                              const std::vector<lscf::OrderClasses>& want, int nMin,
                              double tolerance, const std::string& what) {
  EXPECT_EQ(r.sByOrder.size(), want.size()) << what;
  std::size_t compared = 0;
  for (std::size_t k = 0; k < std::min(r.sByOrder.size(), want.size()); ++k) {
    const auto lists = {
        std::pair{&r.sByOrder[k], &want[k].s}, std::pair{&r.fByOrder[k], &want[k].f},
        std::pair{&r.dByOrder[k], &want[k].d}, std::pair{&r.oByOrder[k], &want[k].o}};
    int cls = 0;
    for (const auto& [got, ref] : lists) {
      const std::string where =
          what + ", order " + std::to_string(nMin + 1 + int(k)) + ", class " + "sfdo"[cls++];
      EXPECT_EQ(got->size(), static_cast<Eigen::Index>(ref->size())) << where;
      // Tolerance 0 is equality: the frequencies are finite.
      for (Eigen::Index i = 0; i < std::min<Eigen::Index>(got->size(), ref->size()); ++i)
        EXPECT_NEAR((*got)[i], (*ref)[i], tolerance) << where;
      compared += ref->size();
    }
  }
  return compared;
}

// The warm-started roots give the chart of the companion eigenvalues at every
// order: real roots near z = 1 (real poles at a few Hz above the band start)
// stay off the chart, lightly damped pairs stay on it. Here a lightly damped
// mode 1.5 Hz above the band start, two close modes and 1 % noise; the sweep
// starts above order 2.
TEST(EstimatorRoots, ChartEqualsTheCompanionEigenvaluesChart) {
  const SyntheticSystem system{
      {{6.5, 0.004}, {61.0, 0.01}, {63.0, 0.012}, {140.0, 0.02}, {231.0, 0.03}},
      5.0,
      250.0,
      900,
      3,
      0.01,
      11};
  const SyntheticFrfs data = SynthesizeFrfs(system);
  const std::vector<lscf::OrderClasses> want = CompanionChart(data, 5, 40, 0.01, 0.05);
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, {5, 40}, 0.01, 0.05, false, false);
  EXPECT_GT(ExpectChartsEqual(r, want, 5, 1e-9, "warm started"), 100u);
  // Iterations that never converge fall back to the eigenvalues, order by
  // order: the same bits as the reference.
  EstimatorTuning oneSweep;
  oneSweep.maxRootSweeps = 1;
  const EstimationResult fallback =
      Estimate(data.omega, data.frf, data.matrix, {5, 40}, 0.01, 0.05, false, false, oneSweep);
  ExpectChartsEqual(fallback, want, 5, 0.0, "one sweep");
}

TEST(EstimatorOutputs, FlagsAndSingleOrderRange) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(800, 1, 0.0));
  const ComplexMatrix noChannels(data.omega.size(), 0);
  const auto run = [&](const ComplexMatrix& m, bool flag1, bool flag2,
                       const std::vector<std::int32_t>& orders) {
    return Estimate(data.omega, data.frf, m, orders, 0.01, 0.05, flag1, flag2);
  };
  // flag1: the highest order's model of the single FRF at every line. The
  // linearised criterion weights the error by |A(z)|, so the model is close
  // to the data overall rather than at every line.
  const EstimationResult model = run(data.matrix, true, false, {38, 40});
  ASSERT_EQ(model.frfNum.size(), data.frf.size());
  EXPECT_LT((model.frfNum - data.frf).norm() / data.frf.norm(), 1e-2);
  const EstimationResult column = run(data.matrix, false, false, {30, 40});

  // flag2: the single FRF joins the fit as a channel; alone it gives the fit
  // of the equal matrix column, and without it there is nothing to fit.
  const EstimationResult extra = run(noChannels, false, true, {30, 40});
  EXPECT_GE(extra.eigenFrequency.size(), 5);
  ASSERT_EQ(extra.eigenFrequency.size(), column.eigenFrequency.size());
  EXPECT_LT((extra.eigenFrequency - column.eigenFrequency).cwiseAbs().maxCoeff(), 1e-9);
  const EstimationResult none = run(noChannels, false, false, {30, 40});
  ASSERT_EQ(none.oByOrder.size(), 10u);
  for (std::size_t k = 0; k < 10; ++k) EXPECT_EQ(ChartPoles(none, k), 0u) << k;

  // A single order is only a reference: nothing is classified, yet it is estimated.
  const EstimationResult single = run(data.matrix, true, false, {24});
  EXPECT_TRUE(single.oByOrder.empty() && single.poleFrequencyByOrder.empty());
  EXPECT_EQ(single.eigenFrequency.size(), 0);
  EXPECT_EQ(single.frfNum.size(), data.frf.size());
}

// 50 lines and 16 channels determine orders up to 16 x 97 / 17 = 91: the
// true modes are there at high orders, and orders above 91 have no poles.
TEST(EstimatorRange, FewLinesDetermineHighOrders) {
  const SyntheticSystem system = DefaultFiveModeSystem(50, 16, 0.002);
  const SyntheticFrfs data = SynthesizeFrfs(system);
  const lscf::Band band = lscf::BandOf(data.omega);
  EXPECT_EQ(lscf::HighestDeterminedOrder(data.omega, band, nullptr, 16), 91);
  const EstimationResult r =
      Estimate(data.omega, data.frf, data.matrix, {2, 100}, 0.01, 0.05, false, false);
  ASSERT_EQ(r.sByOrder.size(), 98u);  // orders 3..100
  const auto entry = [&](int order) { return static_cast<std::size_t>(order - 3); };
  for (int order = 48; order <= 60; ++order) {
    for (const SyntheticMode& mode : system.modes) {
      const double want = Mapped(mode, system.fMinHz).frequencyHz;
      double best = 1e300;
      for (const auto* list : {&r.sByOrder, &r.fByOrder, &r.dByOrder, &r.oByOrder}) {
        for (double f : (*list)[entry(order)]) best = std::min(best, std::abs(f / want - 1.0));
      }
      EXPECT_LT(best, 1e-3) << "order " << order << ", " << mode.frequencyHz << " Hz";
    }
  }
  for (int order = 92; order <= 100; ++order) EXPECT_EQ(ChartPoles(r, entry(order)), 0u) << order;
}

// A NaN in the single FRF: with flag2 its line leaves the denominator fit
// of every channel (the fit then equals one over the remaining lines, on the
// band of all lines), and flag1's model skips it.
TEST(EstimatorRange, NonFiniteFrfLinesLeaveTheFit) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(400, 2, 0.002));
  SyntheticFrfs spoilt = data;
  spoilt.frf[100] = {kNaN, 0.0};
  spoilt.frf[101] = {0.0, std::numeric_limits<double>::infinity()};
  const EstimationResult r =
      Estimate(spoilt.omega, spoilt.frf, spoilt.matrix, {20, 30}, 0.01, 0.05, true, true);
  ASSERT_EQ(r.frfNum.size(), data.frf.size());
  EXPECT_TRUE(r.frfNum.allFinite());
  EXPECT_GE(r.eigenFrequency.size(), 5);

  // The same fit with weights that drop lines 100 and 101.
  const lscf::Band band = lscf::BandOf(data.omega);
  const ComplexMatrix basis = lscf::BuildBasis(lscf::ShiftedOmega(data.omega, band), band.dt, 30);
  RealVector weights = RealVector::Ones(400);
  weights[100] = weights[101] = 0.0;
  const auto dropped = lscf::FitDenominators(basis, spoilt.matrix, 30, 30, &spoilt.frf, &weights);
  ComplexMatrix kept(398, 3);
  ComplexMatrix keptBasis(398, 31);
  for (Eigen::Index i = 0, k = 0; i < 400; ++i) {
    if (weights[i] == 0.0) continue;
    kept.row(k) << data.matrix.row(i), data.frf[i];
    keptBasis.row(k++) = basis.row(i);
  }
  const RealVector direct = direct::FitDenominator(keptBasis, kept, 30);
  EXPECT_LT((dropped[0] - direct).norm() / direct.norm(), 1e-8);
}

lscf::SortedPoles Poles(std::initializer_list<double> f, std::initializer_list<double> zeta) {
  return {Eigen::Map<const RealVector>(f.begin(), static_cast<Eigen::Index>(f.size())),
          Eigen::Map<const RealVector>(zeta.begin(), static_cast<Eigen::Index>(zeta.size()))};
}

// The classes as "s:F,.. f:.. d:.. o:.. sz:" with sz the damping of the s poles.
std::string Text(const lscf::OrderClasses& c) {
  std::ostringstream out;
  const char* names[] = {"s:", " f:", " d:", " o:", " sz:"};
  int k = 0;
  for (const auto* v : {&c.s, &c.f, &c.d, &c.o, &c.sDamping}) {
    out << names[k++];
    for (std::size_t i = 0; i < v->size(); ++i) out << (i ? "," : "") << (*v)[i];
  }
  return out.str();
}

// The sweep runs in parallel (basis blocks, channel groups, Gram rows, runs
// of orders), always cut the same way: one thread or all of them, and
// repeated runs, give the same bits. Nine channels make several channel
// blocks; the orders make several runs of warm-started roots.
TEST(EstimatorDeterminism, SameBitsWhateverTheThreadCount) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(1500, 9, 0.002));
  std::vector<std::int32_t> orders;
  for (int n = 2; n <= 60; ++n) orders.push_back(n);
  // Every class, pole damping and model value as bits (NaN included), each
  // order's list after its length.
  const auto bits = [&] {
    const EstimationResult r =
        Estimate(data.omega, data.frf, data.matrix, orders, 0.01, 0.05, true, true);
    std::vector<std::uint64_t> out;
    const auto add = [&](const double* v, Eigen::Index n) {
      out.push_back(static_cast<std::uint64_t>(n));
      for (Eigen::Index i = 0; i < n; ++i) out.push_back(std::bit_cast<std::uint64_t>(v[i]));
    };
    for (const auto* lists :
         {&r.sByOrder, &r.fByOrder, &r.dByOrder, &r.oByOrder, &r.poleDampingByOrder}) {
      for (const RealVector& v : *lists) add(v.data(), v.size());
    }
    add(reinterpret_cast<const double*>(r.frfNum.data()), 2 * r.frfNum.size());
    return out;
  };
  const std::vector<std::uint64_t> single = [&] {
    const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
    return bits();
  }();
  EXPECT_GT(single.size(), 4000u);  // the model and the chart are there
  for (int repeat = 0; repeat < 2; ++repeat) EXPECT_TRUE(bits() == single) << repeat;
}

// Of the roots, only the upper member of a pair inside the unit circle is a
// pole: real roots (near 1 too), the lower member, pairs on and outside the
// circle go.
TEST(EstimatorPoles, OnlyUpperMembersOfStablePairs) {
  using C = std::complex<double>;
  const double dt = 1.0 / 784.0;
  const C stable = std::polar(0.9, 0.5);
  const ComplexVector z = (ComplexVector(7) << C(0.984, 0.0), std::conj(stable), stable,
                           C(0.0, 1.0), C(0.0, -1.0), std::polar(1.1, 1.0), C(-2.0, 0.0))
                              .finished();
  const ComplexVector s = lscf::PolesOfRoots(z, dt);
  ASSERT_EQ(s.size(), 1);
  EXPECT_NEAR(s[0].real() * dt / std::log(0.9), 1.0, 1e-14);
  EXPECT_NEAR(s[0].imag() * dt, 0.5, 1e-14);
}

// Band 10-500 Hz. Relative differences are taken against the current pole.
TEST(EstimatorClassification, Examples) {
  const lscf::SortedPoles edges = Poles({10.0, 10.5, 499.5, 500.0}, {0.01, 0.01, 0.01, 0.01});
  struct Case {
    const char* what;
    lscf::SortedPoles current, reference;
    double frequencyTolerance, dampingTolerance;
    const char* classes;
  };
  const Case cases[] = {
      // 99 Hz: 1/99 > 1 %; 101 Hz: 1/101 < 1 %; 100 Hz at 2.5 %: 0.005/0.025 = 20 % > 10 %.
      {"four classes", Poles({99, 100, 100, 101, 150, 160}, {.02, .019, .025, .02, .021, .03}),
       Poles({100}, {.02}), 0.01, 0.1, "s:100,101 f:100 d:99,150 o:160 sz:0.019,0.02"},
      // 0.005/0.025 = 20 % passes 22 %; against the reference's 2 % it would be 25 %.
      {"damping of the current pole", Poles({100}, {.025}), Poles({100}, {.02}), 0.01, 0.22,
       "s:100 f: d: o: sz:0.025"},
      {"tolerances inclusive", Poles({100}, {.02}), Poles({101}, {.03}), 0.01, 0.5,
       "s:100 f: d: o: sz:0.02"},
      {"band edges strict", edges, edges, 0.01, 0.1, "s:10.5,499.5 f: d: o: sz:0.01,0.01"},
      // 100 Hz is 10 % from both; damping is compared with the 90 Hz pole.
      {"tie to the lower reference", Poles({100, 100}, {.02, .05}), Poles({90, 110}, {.02, .05}),
       0.1, 0.1, "s:100 f:100 d: o: sz:0.02"},
      // Infinite relative change of damping; 0/0 at 300 Hz puts the pole in no class.
      {"zero damping", Poles({100, 200, 300}, {0, 0, 0}), Poles({100, 300}, {.02, 0}), 0.01, 1e300,
       "s: f:100 d: o:200 sz:"},
      {"NaN tolerances", Poles({100}, {.02}), Poles({100}, {.02}), kNaN, kNaN, "s: f: d: o: sz:"},
      {"empty reference", Poles({5, 100, 200}, {.01, .01, .02}), Poles({}, {}), 0.01, 0.1,
       "s: f: d: o:100,200 sz:"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Text(lscf::ClassifyOrder(c.current, c.reference, 10.0, 500.0, c.frequencyTolerance,
                                       c.dampingTolerance)),
              c.classes)
        << c.what;
  }
}

}  // namespace
}  // namespace frfcam::stability
