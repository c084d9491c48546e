#include "stability/lscf.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace frfcam::stability::lscf {

namespace {

using Eigen::Index;
using Eigen::MatrixXd;

constexpr double kTwoPi = 6.283185307179586;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// A(j, l) = g(|l - j|): the real part of a sum over the lines of a real weight
// times z^(l - j), which is symmetric because the weight is real.
MatrixXd SymmetricToeplitz(const double* g, Index p) {
  MatrixXd a(p, p);
  for (Index l = 0; l < p; ++l) {
    for (Index j = 0; j < p; ++j) a(j, l) = g[l >= j ? l - j : j - l];
  }
  return a;
}

// The coupling block S(j, l) = -Re sum_k H_k z_k^(l - j), written into the
// p x p column-major array `out`; plus[m] = Re sum H z^m, minus[m] = Re sum H z^-m.
void FillCoupling(const double* plus, const double* minus, Index p, double* out) {
  for (Index l = 0; l < p; ++l) {
    for (Index j = 0; j < p; ++j) out[j + l * p] = -(l >= j ? plus[l - j] : minus[j - l]);
  }
}

// Lower Cholesky factor in place. The factor of a leading block is the leading
// block of the factor, so a breakdown at row j still leaves the first j rows
// usable: the return value is that count (p when the whole matrix is positive
// definite). Pivots that are not clearly positive count as a breakdown, since
// they mean the lines cannot separate that many coefficients.
Index LeadingCholesky(MatrixXd& a) {
  const Index p = a.rows();
  for (Index j = 0; j < p; ++j) {
    const double diagonal = a(j, j);
    const double pivot = diagonal - a.row(j).head(j).squaredNorm();
    if (!(pivot > 1e-12 * diagonal)) return j;
    const double root = std::sqrt(pivot);
    a(j, j) = root;
    const Index below = p - j - 1;
    if (below > 0) {
      a.col(j).tail(below).noalias() -= a.bottomLeftCorner(below, j) * a.row(j).head(j).transpose();
      a.col(j).tail(below) /= root;
    }
  }
  return p;
}

RealVector NonFinite(Index size) {
  RealVector a = RealVector::Constant(size, kNaN);
  a(size - 1) = 1.0;
  return a;
}

}  // namespace

Band BandOf(const RealVector& angularFrequencies) {
  Band band;
  if (angularFrequencies.size() == 0) {
    band.fMin = band.fMax = band.dt = kNaN;
    return band;
  }
  const RealVector fHz = angularFrequencies / kTwoPi;
  band.fMin = fHz.minCoeff();
  band.fMax = fHz.maxCoeff();
  band.dt = 1.0 / (2.0 * (band.fMax - band.fMin));
  return band;
}

RealVector ShiftedOmega(const RealVector& angularFrequencies, const Band& band) {
  return kTwoPi * ((angularFrequencies / kTwoPi).array() - band.fMin).matrix();
}

ComplexMatrix BuildBasis(const RealVector& omegaShifted, double dt, int maxPower) {
  const Index lines = omegaShifted.size();
  ComplexMatrix basis(lines, Index{maxPower} + 1);
  for (Index j = 0; j <= maxPower; ++j) {
    const double power = static_cast<double>(j);
    for (Index k = 0; k < lines; ++k) {
      basis(k, j) = std::exp(std::complex<double>(0.0, power * omegaShifted[k] * dt));
    }
  }
  return basis;
}

std::vector<RealVector> FitDenominators(const ComplexMatrix& basis, const ComplexMatrix& channels,
                                        int nMin, int nMax) {
  const Index p = Index{nMax} + 1;  // coefficients of the highest order
  const Index numChannels = channels.cols();

  // Cosines and sines of m theta_k: in this basis every normal-equation block
  // is Toeplitz, so its entries are the real parts of sums over the lines of
  // a weight times z^m, |m| <= nMax.
  const MatrixXd cosines = basis.leftCols(p).real();
  const MatrixXd sines = basis.leftCols(p).imag();
  const RealVector r = cosines.colwise().sum().transpose();

  MatrixXd plus(p, numChannels), minus(p, numChannels), power(p, numChannels);
  tbb::parallel_for(
      tbb::blocked_range<Index>(0, numChannels, 4), [&](const tbb::blocked_range<Index>& range) {
        const Index first = range.begin(), count = range.size();
        const auto h = channels.middleCols(first, count);
        const MatrixXd re = cosines.transpose() * h.real();
        const MatrixXd im = sines.transpose() * h.imag();
        plus.middleCols(first, count) = re - im;
        minus.middleCols(first, count) = re + im;
        power.middleCols(first, count).noalias() = cosines.transpose() * h.cwiseAbs2();
      });

  MatrixXd factor = SymmetricToeplitz(r.data(), p);
  const Index usable = LeadingCholesky(factor);
  const RealVector powerSum = power.rowwise().sum();
  const MatrixXd t = SymmetricToeplitz(powerSum.data(), p);

  // Q_c = L^-1 S_c for every channel, side by side. Its leading (n+1) block
  // is L_n^-1 S_n of order n, so S_n^T R_n^-1 S_n = Q_n^T Q_n for every n.
  MatrixXd q(p, numChannels * p);
  tbb::parallel_for(
      tbb::blocked_range<Index>(0, numChannels, 2), [&](const tbb::blocked_range<Index>& range) {
        for (Index c = range.begin(); c < range.end(); ++c) {
          FillCoupling(plus.col(c).data(), minus.col(c).data(), p, q.data() + c * p * p);
          if (usable == 0) continue;
          factor.topLeftCorner(usable, usable)
              .triangularView<Eigen::Lower>()
              .solveInPlace(q.block(0, c * p, usable, p));
        }
      });

  // gram = sum over channels and rows i <= n of q_ci^T q_ci, grown one row
  // at a time so that its leading (n+1) block is sum_c Q_n^T Q_n at order n.
  MatrixXd gram = MatrixXd::Zero(p, p);
  std::vector<RealVector> result;
  result.reserve(static_cast<size_t>(std::int64_t{nMax} - nMin + 1));
  using RowOfAllChannels =
      Eigen::Map<const MatrixXd, 0, Eigen::Stride<Eigen::Dynamic, Eigen::Dynamic>>;
  for (Index n = 0; n <= nMax; ++n) {
    if (n < usable) {
      // Row n of every Q_c, channel c as column c.
      const RowOfAllChannels row(q.data() + n, p, numChannels,
                                 Eigen::Stride<Eigen::Dynamic, Eigen::Dynamic>(p * p, p));
      gram.noalias() += row * row.transpose();
    }
    if (n < nMin) continue;
    if (n == 0) {
      result.push_back(RealVector::Ones(1));
      continue;
    }
    if (n >= usable) {
      result.push_back(NonFinite(n + 1));
      continue;
    }
    const MatrixXd m = t.topLeftCorner(n + 1, n + 1) - gram.topLeftCorner(n + 1, n + 1);
    RealVector a(n + 1);
    a.head(n) = m.topLeftCorner(n, n).partialPivLu().solve(-m.col(n).head(n));
    a(n) = 1.0;
    result.push_back(std::move(a));
  }
  return result;
}

ComplexVector FittedModel(const ComplexMatrix& basis, const ComplexVector& frf,
                          const RealVector& denominator) {
  const Index p = denominator.size();
  const Index lines = frf.size();
  if (p == 0 || !denominator.allFinite()) return ComplexVector::Constant(lines, kNaN);
  const auto x = basis.leftCols(p);

  const RealVector r = x.real().colwise().sum().transpose();
  const RealVector plus = (x.transpose() * frf).real();
  const RealVector minus = (x.adjoint() * frf).real();
  MatrixXd factor = SymmetricToeplitz(r.data(), p);
  if (LeadingCholesky(factor) < p) return ComplexVector::Constant(lines, kNaN);
  MatrixXd s(p, p);
  FillCoupling(plus.data(), minus.data(), p, s.data());

  // The numerator that minimises the residual for this denominator:
  // b = -R^-1 S a.
  RealVector b = -(s * denominator);
  factor.triangularView<Eigen::Lower>().solveInPlace(b);
  factor.triangularView<Eigen::Lower>().transpose().solveInPlace(b);

  const ComplexVector numerator = x * b.cast<std::complex<double>>();
  const ComplexVector common = x * denominator.cast<std::complex<double>>();
  return numerator.cwiseQuotient(common);
}

}  // namespace frfcam::stability::lscf
