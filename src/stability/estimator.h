// Polynomial model estimation: a least-squares complex frequency-domain fit
// of a common-denominator model in z for every order of a range, the poles of
// each order, and their classification against the previous order.
#pragma once

#include <Eigen/Dense>
#include <complex>
#include <cstdint>
#include <vector>

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
// frfMatrix: lines x channels; orders: only min and max are used.
//
// Every order from min to max is fitted, in ascending order; the first only
// seeds the classification. The fit is a least-squares complex
// frequency-domain fit with unity weights of a common real denominator in
// z = exp(i 2 pi (f - fMin) dt), dt = 1 / (2 (fMax - fMin)).
// flag1: frfNum is the highest order's fitted model of `frf` (its numerator
//        over the common denominator) at every line; empty when clear.
// flag2: `frf` takes part in the denominator fit as one more channel after
//        the columns of frfMatrix; when clear only the columns do.
// Sizes: frfMatrix has frequencies.size() rows (an empty matrix means no
// channels) and, when a flag is set, frf has frequencies.size() values;
// otherwise std::invalid_argument is thrown. Orders below 1, and orders
// above 2 x lines (which the lines cannot determine), have no poles and are
// not fitted. Memory grows as lines x max order and channels x (max order)^2;
// the result holds four lists per order of the range. Degenerate data (no
// lines, a band of zero width, non-finite samples, no channels, fewer lines
// than coefficients) gives orders without poles, never a failure.
EstimationResult Estimate(const RealVector& frequencies, const ComplexVector& frf,
                          const ComplexMatrix& frfMatrix, const std::vector<std::int32_t>& orders,
                          double frequencyTolerance, double dampingTolerance, bool flag1,
                          bool flag2);

}  // namespace frfcam::stability
