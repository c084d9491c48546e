#include "stability/estimator.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "stability/lscf.h"
#include "stability/roots.h"

namespace frfcam::stability {

namespace {

double Square(double x) { return x * x; }

RealVector ToVector(const std::vector<double>& v) {
  return Eigen::Map<const RealVector>(v.data(), static_cast<Eigen::Index>(v.size()));
}

std::vector<lscf::SortedPoles> SweepPoles(const std::vector<RealVector>& denominators,
                                          std::int64_t fitMin, std::int64_t nMin,
                                          std::int64_t numOrders, const lscf::Band& band,
                                          int maxSweeps) {
  std::vector<lscf::SortedPoles> poles(static_cast<size_t>(numOrders));
  const auto count = static_cast<std::int64_t>(denominators.size());
  if (count == 0) return poles;
  // The roots of each order start from those of the order below. The fitted
  // orders are cut into a fixed number of runs of about equal work (n^2 per
  // order), each run starting cold, so that the runs go in parallel and the
  // result does not depend on the number of threads.
  constexpr int kRuns = 8;
  std::vector<std::int64_t> runStart = {0};
  {
    double total = 0.0;
    for (std::int64_t i = 0; i < count; ++i) total += Square(double(fitMin + i) + 1.0);
    double sum = 0.0;
    for (std::int64_t i = 0; i < count; ++i) {
      sum += Square(double(fitMin + i) + 1.0);
      if (sum >= total * static_cast<double>(runStart.size()) / kRuns && i + 1 < count) {
        runStart.push_back(i + 1);
      }
    }
    runStart.push_back(count);
  }
  tbb::parallel_for(size_t{0}, runStart.size() - 1, [&](size_t run) {
    roots::Roots previous;
    for (std::int64_t i = runStart[run]; i < runStart[run + 1]; ++i) {
      const RealVector& a = denominators[static_cast<size_t>(i)];
      const Eigen::Index degree = a.size() - 1;
      const roots::Roots start =
          previous.size() > 0 ? roots::WarmStart(previous, degree) : roots::Roots();
      previous = roots::PolynomialRoots(a, start, nullptr, maxSweeps);
      const std::int64_t order = fitMin + i;
      poles[static_cast<size_t>(order - nMin)] =
          lscf::SortPoles(lscf::PolesOfRoots(previous, band.dt), band.fMin);
    }
  });
  return poles;
}

}  // namespace

EstimationResult Estimate(const RealVector& frequencies, const ComplexVector& frf,
                          Eigen::Ref<const ComplexMatrix> frfMatrix,
                          const std::vector<std::int32_t>& orders, double frequencyTolerance,
                          double dampingTolerance, bool flag1, bool flag2) {
  return Estimate(frequencies, frf, frfMatrix, orders, frequencyTolerance, dampingTolerance, flag1,
                  flag2, EstimatorTuning{});
}

EstimationResult Estimate(const RealVector& frequencies, const ComplexVector& frf,
                          Eigen::Ref<const ComplexMatrix> frfMatrix,
                          const std::vector<std::int32_t>& orders, double frequencyTolerance,
                          double dampingTolerance, bool flag1, bool flag2,
                          const EstimatorTuning& tuning) {
  EstimationResult result;
  const Eigen::Index lines = frequencies.size();
  if (frfMatrix.rows() != lines && frfMatrix.size() != 0) {
    throw std::invalid_argument("estimate: FRF matrix rows differ from the number of lines");
  }
  if ((flag1 || flag2) && frf.size() != lines) {
    throw std::invalid_argument("estimate: FRF length differs from the number of lines");
  }
  if (orders.empty()) return result;

  const auto [minIt, maxIt] = std::minmax_element(orders.begin(), orders.end());
  const int nMin = *minIt, nMax = *maxIt;
  const lscf::Band band = lscf::BandOf(frequencies);
  const RealVector omegaShifted = lscf::ShiftedOmega(frequencies, band);

  // An empty matrix of any shape stands for no channels. With flag2 the
  // single FRF is one more channel, and its non-finite lines drop out of the
  // whole fit (the common denominator needs the same lines in every channel).
  const Eigen::Index matrixChannels = frfMatrix.size() == 0 ? 0 : frfMatrix.cols();
  const ComplexMatrix none(lines, 0);
  const Eigen::Ref<const ComplexMatrix> channels =
      matrixChannels > 0 ? frfMatrix : Eigen::Ref<const ComplexMatrix>(none);
  RealVector weights;
  if (flag2 && !frf.allFinite()) {
    weights = (frf.real().array().isFinite() && frf.imag().array().isFinite()).cast<double>();
  }
  const RealVector* lineWeights = weights.size() > 0 ? &weights : nullptr;
  const Eigen::Index numChannels = matrixChannels + (flag2 ? 1 : 0);

  // Orders below 1 have no poles, and orders the lines cannot determine are
  // not fitted (which also keeps absurd orders from sizing the matrices).
  const std::int64_t fitMin = std::max(nMin, 0);
  const std::int64_t fitMax = std::min<std::int64_t>(
      nMax, lscf::HighestDeterminedOrder(frequencies, band, lineWeights, numChannels));
  const ComplexMatrix basis =
      lscf::BuildBasis(omegaShifted, band.dt, static_cast<int>(std::max<std::int64_t>(fitMax, 0)));

  std::vector<RealVector> denominators;
  if (fitMin <= fitMax) {
    denominators =
        lscf::FitDenominators(basis, channels, static_cast<int>(fitMin), static_cast<int>(fitMax),
                              flag2 ? &frf : nullptr, lineWeights);
  }
  const auto fitted = [&](std::int64_t n) -> const RealVector* {
    return n >= fitMin && n <= fitMax ? &denominators[n - fitMin] : nullptr;
  };

  const std::int64_t numOrders = std::int64_t{nMax} - nMin + 1;
  const std::vector<lscf::SortedPoles> poles =
      SweepPoles(denominators, fitMin, nMin, numOrders, band, tuning.maxRootSweeps);

  const lscf::SortedPoles* reference = nullptr;
  for (std::int64_t i = 0; i < numOrders; ++i) {
    const lscf::SortedPoles& current = poles[i];
    result.eigenFrequency.resize(0);
    result.dampingFactor.resize(0);
    if (reference != nullptr) {
      const lscf::OrderClasses classes = lscf::ClassifyOrder(
          current, *reference, band.fMin, band.fMax, frequencyTolerance, dampingTolerance);
      RealVector s = ToVector(classes.s);
      RealVector sDamping = ToVector(classes.sDamping);
      if (s.size() > 0) {
        result.poleFrequencyByOrder.push_back(s);
        result.poleDampingByOrder.push_back(sDamping);
      }
      result.sByOrder.push_back(s);
      result.fByOrder.push_back(ToVector(classes.f));
      result.dByOrder.push_back(ToVector(classes.d));
      result.oByOrder.push_back(ToVector(classes.o));
      result.eigenFrequency = std::move(s);
      result.dampingFactor = std::move(sDamping);
    }
    reference = &current;
  }

  if (flag1) {
    const RealVector* a = fitted(nMax);
    result.frfNum = a != nullptr
                        ? lscf::FittedModel(basis, frf, *a)
                        : ComplexVector::Constant(lines, std::numeric_limits<double>::quiet_NaN());
  }
  return result;
}

}  // namespace frfcam::stability
