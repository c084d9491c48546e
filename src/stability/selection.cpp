#include "stability/selection.h"

#include <cmath>
#include <stdexcept>

namespace frfcam::stability {

namespace {

// The duplicate test measures against the kept pole, the recurrence test
// against the candidate: the two denominators differ on purpose, and a
// comparison with a NaN (zero frequencies) is simply no match.
bool IsDuplicate(double f, const std::vector<double>& kept, double tolerance) {
  for (double g : kept) {
    if (tolerance > std::abs(f - g) / g) return true;
  }
  return false;
}

bool RecursIn(double f, const RealVector& order, double tolerance) {
  for (Eigen::Index i = 0; i < order.size(); ++i) {
    if (tolerance > std::abs(f - order[i]) / f) return true;
  }
  return false;
}

}  // namespace

SelectedPoles SelectStablePoles(const std::vector<RealVector>& frequencyByOrder,
                                const std::vector<RealVector>& dampingByOrder, double tolerance,
                                int minStableCount) {
  if (frequencyByOrder.size() != dampingByOrder.size()) {
    throw std::invalid_argument("pole selection: frequency and damping lists differ in length");
  }
  for (std::size_t k = 0; k < frequencyByOrder.size(); ++k) {
    if (frequencyByOrder[k].size() != dampingByOrder[k].size()) {
      throw std::invalid_argument("pole selection: an order's frequency and damping differ");
    }
  }

  std::vector<double> keptFrequency;
  std::vector<double> keptDamping;
  for (std::size_t k = frequencyByOrder.size(); k-- > 0;) {
    const RealVector& poles = frequencyByOrder[k];
    for (Eigen::Index i = 0; i < poles.size(); ++i) {
      const double f = poles[i];
      if (IsDuplicate(f, keptFrequency, tolerance)) continue;
      long long count = 1;
      for (std::size_t m = 0; m < k; ++m) {
        if (RecursIn(f, frequencyByOrder[m], tolerance)) ++count;
      }
      if (count >= minStableCount) {
        keptFrequency.push_back(f);
        keptDamping.push_back(dampingByOrder[k][i]);
      }
    }
  }

  SelectedPoles out;
  out.frequency = Eigen::Map<const RealVector>(keptFrequency.data(),
                                               static_cast<Eigen::Index>(keptFrequency.size()));
  out.damping = Eigen::Map<const RealVector>(keptDamping.data(),
                                             static_cast<Eigen::Index>(keptDamping.size()));
  return out;
}

}  // namespace frfcam::stability
