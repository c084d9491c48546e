// Poles of a denominator, their natural frequencies and damping ratios, and
// the classification of one order's poles against the previous order.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "stability/lscf.h"
#include "stability/portable_math.h"
#include "stability/roots.h"

namespace frfcam::stability::lscf {

namespace {
constexpr double kTwoPi = 6.283185307179586;
}  // namespace

ComplexVector DenominatorPoles(const RealVector& denominator, double dt) {
  return PolesOfRoots(roots::CompanionRoots(denominator), dt);
}

ComplexVector PolesOfRoots(const ComplexVector& z, double dt) {
  ComplexVector kept(z.size());
  Eigen::Index count = 0;
  for (Eigen::Index i = 0; i < z.size(); ++i) {
    const double logMagnitude = portable::Log(portable::Abs(z[i]));
    const double angle = portable::Arg(z[i]);
    const std::complex<double> s(logMagnitude / dt, angle / dt);
    // Unstable poles, real poles and the lower member of each pair go.
    if (s.real() < 0.0 && s.imag() > 0.0) kept[count++] = s;
  }
  kept.conservativeResize(count);
  return kept;
}

std::vector<int> StableSortPermutation(const RealVector& values) {
  std::vector<int> order(static_cast<size_t>(values.size()));
  std::iota(order.begin(), order.end(), 0);
  // NaN sorts last so that the ordering stays a strict weak order.
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    const double x = values[a], y = values[b];
    return x < y || (std::isnan(y) && !std::isnan(x));
  });
  return order;
}

RealVector Gather(const RealVector& values, const std::vector<int>& permutation) {
  RealVector out(static_cast<Eigen::Index>(permutation.size()));
  for (size_t i = 0; i < permutation.size(); ++i) out[i] = values[permutation[i]];
  return out;
}

SortedPoles SortPoles(const ComplexVector& poles, double fMin) {
  const Eigen::Index m = poles.size();
  RealVector naturalFrequency(m), damping(m);
  for (Eigen::Index i = 0; i < m; ++i) {
    // The band offset goes onto the modulus, not the imaginary part: the
    // shifted pole's distance from the origin plus the band start.
    naturalFrequency[i] = portable::Abs(poles[i]) + kTwoPi * fMin;
    damping[i] = -poles[i].real() / naturalFrequency[i];
  }
  const std::vector<int> permutation = StableSortPermutation(naturalFrequency);
  SortedPoles sorted;
  sorted.frequency = Gather(naturalFrequency, permutation) / kTwoPi;
  sorted.damping = Gather(damping, permutation);
  return sorted;
}

OrderClasses ClassifyOrder(const SortedPoles& current, const SortedPoles& reference, double fMin,
                           double fMax, double frequencyTolerance, double dampingTolerance) {
  OrderClasses classes;
  const Eigen::Index references = reference.frequency.size();
  for (Eigen::Index k = 0; k < current.frequency.size(); ++k) {
    const double f = current.frequency[k];
    const double zeta = current.damping[k];
    if (!(fMin < f && f < fMax)) continue;
    if (references == 0) {
      // Nothing to be stable against.
      classes.o.push_back(f);
      continue;
    }
    Eigen::Index nearest = 0;
    double relFreq = std::abs(f - reference.frequency[0]) / f;
    for (Eigen::Index j = 1; j < references; ++j) {
      const double rel = std::abs(f - reference.frequency[j]) / f;
      if (rel < relFreq) {  // strict: the first of equals wins
        relFreq = rel;
        nearest = j;
      }
    }
    const double relDamp = std::abs(zeta - reference.damping[nearest]) / zeta;
    // Every test is written so that a NaN operand fails it.
    const bool freqStable = relFreq <= frequencyTolerance;
    const bool freqUnstable = relFreq > frequencyTolerance;
    const bool dampStable = relDamp <= dampingTolerance;
    const bool dampUnstable = relDamp > dampingTolerance;
    if (freqStable && dampStable) {
      classes.s.push_back(f);
      classes.sDamping.push_back(zeta);
    } else if (freqStable && dampUnstable) {
      classes.f.push_back(f);
    } else if (freqUnstable && dampStable) {
      classes.d.push_back(f);
    } else if (freqUnstable && dampUnstable) {
      classes.o.push_back(f);
    }
  }
  return classes;
}

}  // namespace frfcam::stability::lscf
