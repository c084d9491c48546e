// The estimator's order sweep on a known five-mode system (4000 lines, 16
// channels, orders 2..80, 0.2 % noise), against the highest order alone and
// against a sweep that rebuilds the normal equations for every order.
//
//   bench_stability [--no-baseline]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>

#include "../tests/stability/direct_fit.h"
#include "stability/estimator.h"
#include "stability/lscf.h"
#include "stability/synthetic.h"

namespace {

using namespace frfcam::stability;

constexpr int kMinOrder = 2;
constexpr int kMaxOrder = 80;
constexpr double kFrequencyTolerance = 0.01;
constexpr double kDampingTolerance = 0.05;

double Seconds(const std::function<void()>& run) {
  const auto start = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double BestOf(int runs, const std::function<void()>& run) {
  double best = 1e300;
  for (int i = 0; i < runs; ++i) best = std::min(best, Seconds(run));
  return best;
}

// The same estimation with every order's normal equations rebuilt from the
// explicit basis block; returns the last order's class-s frequencies.
RealVector BaselineSweep(const SyntheticFrfs& data) {
  const lscf::Band band = lscf::BandOf(data.omega);
  const ComplexMatrix basis =
      lscf::BuildBasis(lscf::ShiftedOmega(data.omega, band), band.dt, kMaxOrder);
  lscf::SortedPoles reference;
  std::vector<double> lastS;
  for (int n = kMinOrder; n <= kMaxOrder; ++n) {
    const RealVector a = direct::FitDenominator(basis, data.matrix, n);
    lscf::SortedPoles poles = lscf::SortPoles(lscf::DenominatorPoles(a, band.dt), band.fMin);
    if (n > kMinOrder) {
      lastS = lscf::ClassifyOrder(poles, reference, band.fMin, band.fMax, kFrequencyTolerance,
                                  kDampingTolerance)
                  .s;
    }
    reference = std::move(poles);
  }
  return Eigen::Map<const RealVector>(lastS.data(), static_cast<Eigen::Index>(lastS.size()));
}

}  // namespace

int main(int argc, char** argv) {
  const bool baseline = !(argc > 1 && std::strcmp(argv[1], "--no-baseline") == 0);
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(4000, 16, 0.002));
  std::vector<std::int32_t> sweepOrders;
  for (int n = kMinOrder; n <= kMaxOrder; ++n) sweepOrders.push_back(n);
  const std::vector<std::int32_t> topOnly = {kMaxOrder};

  EstimationResult sweep;
  const auto runSweep = [&] {
    sweep = Estimate(data.omega, data.frf, data.matrix, sweepOrders, kFrequencyTolerance,
                     kDampingTolerance, false, false);
  };
  const auto runTop = [&] {
    Estimate(data.omega, data.frf, data.matrix, topOnly, kFrequencyTolerance, kDampingTolerance,
             false, false);
  };
  runSweep();  // warm-up: worker threads, page faults
  const double sweepTime = BestOf(5, runSweep);
  const double topTime = BestOf(5, runTop);

  std::printf("stability estimator: 4000 lines, 16 channels, orders %d..%d, 0.2 %% noise\n",
              kMinOrder, kMaxOrder);
  std::printf("  whole sweep              %9.2f ms\n", sweepTime * 1e3);
  std::printf("  highest order alone      %9.2f ms   (sweep / highest = %.2f)\n", topTime * 1e3,
              sweepTime / topTime);
  std::printf("  stable poles at order %d: ", kMaxOrder);
  for (double f : sweep.eigenFrequency) std::printf("%.3f ", f);
  std::printf("Hz\n");

  if (baseline) {
    RealVector baselineS;
    const double baselineTime = Seconds([&] { baselineS = BaselineSweep(data); });
    double worst = 0.0;
    const bool sameCount = baselineS.size() == sweep.eigenFrequency.size();
    if (sameCount) {
      for (Eigen::Index i = 0; i < baselineS.size(); ++i) {
        worst = std::max(worst, std::abs(baselineS[i] - sweep.eigenFrequency[i]) / baselineS[i]);
      }
    }
    std::printf("  per-order rebuild sweep  %9.2f ms   (rebuild / sweep = %.1f)\n",
                baselineTime * 1e3, baselineTime / sweepTime);
    if (sameCount) {
      std::printf("  stable poles agree with the rebuild to %.1e relative\n", worst);
    } else {
      std::printf("  stable poles differ from the rebuild: %ld vs %ld\n",
                  static_cast<long>(sweep.eigenFrequency.size()),
                  static_cast<long>(baselineS.size()));
    }
  }
  return 0;
}
