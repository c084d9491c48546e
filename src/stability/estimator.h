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
EstimationResult Estimate(const RealVector& frequencies, const ComplexVector& frf,
                          const ComplexMatrix& frfMatrix, const std::vector<std::int32_t>& orders,
                          double frequencyTolerance, double dampingTolerance, bool flag1,
                          bool flag2);

}  // namespace frfcam::stability
