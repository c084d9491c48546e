// The common-denominator fit of one order written out the plain way: the
// normal equations rebuilt from the explicit basis block by matrix products,
// the numerator unknowns eliminated with a general LU solve. Independent of
// the Toeplitz/Cholesky formulation of the library; used as the reference in
// the tests and as the baseline in the benchmark.
#pragma once

#include <Eigen/Dense>

namespace frfcam::stability::direct {

// Denominator coefficients of order n >= 1 (power z^0 first, last fixed to 1).
inline Eigen::VectorXd FitDenominator(const Eigen::MatrixXcd& basis,
                                      const Eigen::MatrixXcd& channels, int n) {
  const Eigen::MatrixXcd x = basis.leftCols(n + 1);
  const Eigen::MatrixXd r = (x.adjoint() * x).real();
  const Eigen::PartialPivLU<Eigen::MatrixXd> rLu(r);
  Eigen::MatrixXd m = Eigen::MatrixXd::Zero(n + 1, n + 1);
  for (Eigen::Index c = 0; c < channels.cols(); ++c) {
    // Residual X b - diag(H) X a: S couples numerator and denominator, T is
    // the denominator's own block.
    const Eigen::MatrixXcd hx = channels.col(c).asDiagonal() * x;
    const Eigen::MatrixXd s = -(x.adjoint() * hx).real();
    const Eigen::MatrixXd t = (hx.adjoint() * hx).real();
    m += t - s.transpose() * rLu.solve(s);
  }
  Eigen::VectorXd a(n + 1);
  a.head(n) = m.topLeftCorner(n, n).partialPivLu().solve(-m.col(n).head(n));
  a(n) = 1.0;
  return a;
}

}  // namespace frfcam::stability::direct
