#include "stability/estimator.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "stability/lscf.h"

namespace frfcam::stability {

namespace {

RealVector ToVector(const std::vector<double>& v) {
  return Eigen::Map<const RealVector>(v.data(), static_cast<Eigen::Index>(v.size()));
}

}  // namespace

EstimationResult Estimate(const RealVector& frequencies, const ComplexVector& frf,
                          const ComplexMatrix& frfMatrix, const std::vector<std::int32_t>& orders,
                          double frequencyTolerance, double dampingTolerance, bool flag1,
                          bool flag2) {
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
  // Orders below 1 have no poles. Above 2 x lines coefficients the lines
  // cannot determine the fit at all, so those orders are not fitted either
  // (which also keeps absurd orders from sizing the working matrices).
  const std::int64_t fitMin = std::max(nMin, 0);
  const std::int64_t fitMax = std::min<std::int64_t>(nMax, 2 * std::int64_t{lines});
  const ComplexMatrix basis =
      lscf::BuildBasis(omegaShifted, band.dt, static_cast<int>(std::max<std::int64_t>(fitMax, 0)));

  std::vector<RealVector> denominators;
  if (fitMin <= fitMax) {
    const int lo = static_cast<int>(fitMin), hi = static_cast<int>(fitMax);
    if (flag2) {
      // The single FRF takes part in the denominator fit as one more channel.
      const Eigen::Index columns = frfMatrix.size() == 0 ? 0 : frfMatrix.cols();
      ComplexMatrix channels(lines, columns + 1);
      if (columns > 0) channels.leftCols(columns) = frfMatrix;
      channels.col(columns) = frf;
      denominators = lscf::FitDenominators(basis, channels, lo, hi);
    } else {
      // An empty matrix of any shape stands for no channels.
      const ComplexMatrix none(lines, 0);
      denominators = lscf::FitDenominators(basis, frfMatrix.size() == 0 ? none : frfMatrix, lo, hi);
    }
  }
  const auto fitted = [&](std::int64_t n) -> const RealVector* {
    return n >= fitMin && n <= fitMax ? &denominators[n - fitMin] : nullptr;
  };

  // Poles of every order are independent of each other; only the
  // classification below has to run in ascending order.
  const std::int64_t numOrders = std::int64_t{nMax} - nMin + 1;
  std::vector<lscf::SortedPoles> poles(static_cast<size_t>(numOrders));
  tbb::parallel_for(std::int64_t{0}, numOrders, [&](std::int64_t i) {
    const RealVector* a = fitted(nMin + i);
    if (a != nullptr) poles[i] = lscf::SortPoles(lscf::DenominatorPoles(*a, band.dt), band.fMin);
  });

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
