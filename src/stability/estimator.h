// Polynomial model estimation: a least-squares complex frequency-domain fit
// of a common-denominator model in z for every order of a range, the poles of
// each order, and their classification against the previous order.
#pragma once

#include <Eigen/Dense>
#include <complex>
#include <cstdint>
#include <vector>

#include "stability/roots.h"

namespace frfcam::stability {

using RealVector = Eigen::VectorXd;
using ComplexVector = Eigen::VectorXcd;
using ComplexMatrix = Eigen::MatrixXcd;

// What one estimation returns. The four class lists hold one vector per
// classified order (every order of the range but the first); the two
// pole lists one vector per classified order that has at least one pole of
// class `s`.
struct EstimationResult {
  std::vector<RealVector> oByOrder;
  std::vector<RealVector> dByOrder;
  std::vector<RealVector> fByOrder;
  std::vector<RealVector> sByOrder;
  std::vector<RealVector> poleDampingByOrder;
  std::vector<RealVector> poleFrequencyByOrder;
  ComplexVector frfNum;
  RealVector dampingFactor;
  RealVector eigenFrequency;
};

// frequencies: angular frequency of each line (rad/s); frf: the single FRF;
// frfMatrix: lines x channels, read in place (a ComplexMatrix or a mapped
// array of the caller's); orders: only min and max are used.
//
// Every order from min to max is fitted, in ascending order; the first only
// seeds the classification. The fit is a least-squares complex
// frequency-domain fit with unity weights of a common real denominator in
// z = exp(i 2 pi (f - fMin) dt), dt = 1 / (2 (fMax - fMin)). The roots of
// each order's denominator are found from those of the order below (see
// roots.h), falling back to the companion matrix's eigenvalues.
// flag1: frfNum is the highest order's fitted model of `frf` (its numerator
//        over the common denominator) at every line; empty when clear. Lines
//        where `frf` is not finite take no part in that numerator's fit.
// flag2: `frf` takes part in the denominator fit as one more channel after
//        the columns of frfMatrix; when clear only the columns do. Lines
//        where `frf` is not finite then take no part in the denominator fit
//        at all (for no channel); the band is still that of all lines.
// Sizes: frfMatrix has frequencies.size() rows (an empty matrix means no
// channels) and, when a flag is set, frf has frequencies.size() values;
// otherwise std::invalid_argument is thrown.
//
// Orders below 1 have no poles. Orders above lscf::HighestDeterminedOrder
// (for C channels and D real equations per channel: 2 per distinct line
// frequency inside the band, 1 per band end, the order n is determined when
// C (D - n - 1) >= n) are not fitted and have no poles either; their class
// lists are empty. Degenerate data (no lines, a band of zero width,
// non-finite samples in frfMatrix, no channels) likewise gives orders
// without poles, never a failure.
//
// Cost: the channels' sums are O(lines x channels x max order), their
// reduction O(channels x (max order)^3), the per-order solves and roots
// O((max order)^4 / 12) and O((max order)^3) over the sweep. Memory beyond the
// inputs: lines x max order for the basis, 3 x channels x max order for
// the sums, and per-channel matrices in groups of at most 64 MiB and a
// quarter of the matrix's size, plus (max order)^3 doubles when the channels
// need more than one group (lscf::FitDenominators).
// The result holds four lists per order of the range.
EstimationResult Estimate(const RealVector& frequencies, const ComplexVector& frf,
                          Eigen::Ref<const ComplexMatrix> frfMatrix,
                          const std::vector<std::int32_t>& orders, double frequencyTolerance,
                          double dampingTolerance, bool flag1, bool flag2);

// Settings no caller needs to change; tests use them to take the paths that
// well-behaved data never take.
struct EstimatorTuning {
  // Sweeps the root iteration of one order may take before that order falls
  // back to the companion eigenvalues (roots::PolynomialRoots).
  int maxRootSweeps = roots::kDefaultMaxSweeps;
};

// Estimate with the given tuning; the overload above uses the defaults.
EstimationResult Estimate(const RealVector& frequencies, const ComplexVector& frf,
                          Eigen::Ref<const ComplexMatrix> frfMatrix,
                          const std::vector<std::int32_t>& orders, double frequencyTolerance,
                          double dampingTolerance, bool flag1, bool flag2,
                          const EstimatorTuning& tuning);

}  // namespace frfcam::stability
