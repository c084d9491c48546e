#include "stability/lscf.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "stability/portable_math.h"

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

// Row i of every Q_c (each p x p, side by side), channel c as column c.
using RowOfAllChannels =
    Eigen::Map<const MatrixXd, 0, Eigen::Stride<Eigen::Dynamic, Eigen::Dynamic>>;
Eigen::Stride<Eigen::Dynamic, Eigen::Dynamic> ChannelStride(Index p) { return {p * p, p}; }

RealVector NonFinite(Index size) {
  RealVector a = RealVector::Constant(size, kNaN);
  a(size - 1) = 1.0;
  return a;
}

// The denominator of one order from its reduced normal equations m (lower
// triangle valid), the coefficient of z^n fixed to 1. The matrix is
// positive semi-definite, so Cholesky (half the work of LU) solves it;
// when rounding makes a nearly singular one fail, LU with partial pivoting
// does.
RealVector SolveOrder(const MatrixXd& m) {
  const Index n = m.rows() - 1;
  RealVector a(n + 1);
  const RealVector rhs = -m.row(n).head(n).transpose();
  const Eigen::LLT<MatrixXd, Eigen::Lower> cholesky(m.topLeftCorner(n, n));
  if (cholesky.info() == Eigen::Success) {
    a.head(n) = cholesky.solve(rhs);
  } else {
    const MatrixXd full = m.topLeftCorner(n, n).selfadjointView<Eigen::Lower>();
    a.head(n) = full.partialPivLu().solve(rhs);
  }
  a(n) = 1.0;
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
  const Index columns = Index{maxPower} + 1;
  ComplexMatrix basis(lines, columns);
  // Every kAnchor-th column is exp(i j w dt) itself; the columns between are
  // the previous one times z, which keeps the rounding within a few ulps at
  // a fraction of the cost of a sine and cosine per entry.
  constexpr Index kAnchor = 16;
  ComplexVector z(lines);
  for (Index k = 0; k < lines; ++k) z[k] = portable::Polar(1.0, omegaShifted[k] * dt);
  tbb::parallel_for(Index{0}, (columns + kAnchor - 1) / kAnchor, [&](Index block) {
    const Index first = block * kAnchor;
    const Index last = std::min(columns, first + kAnchor);
    const double power = static_cast<double>(first);
    for (Index k = 0; k < lines; ++k) {
      basis(k, first) = portable::Polar(1.0, power * omegaShifted[k] * dt);
    }
    for (Index j = first + 1; j < last; ++j) {
      for (Index k = 0; k < lines; ++k) {
        const std::complex<double> previous = basis(k, j - 1);
        basis(k, j) = {previous.real() * z[k].real() - previous.imag() * z[k].imag(),
                       previous.real() * z[k].imag() + previous.imag() * z[k].real()};
      }
    }
  });
  return basis;
}

int HighestDeterminedOrder(const RealVector& angularFrequencies, const Band& band,
                           const RealVector* lineWeights, Index numChannels) {
  std::vector<double> inside;
  bool atLow = false, atHigh = false;
  for (Index k = 0; k < angularFrequencies.size(); ++k) {
    if (lineWeights != nullptr && !((*lineWeights)[k] > 0.0)) continue;
    const double f = angularFrequencies[k] / kTwoPi;
    if (f == band.fMin) {
      atLow = true;
    } else if (f == band.fMax) {
      atHigh = true;
    } else if (f > band.fMin && f < band.fMax) {
      inside.push_back(f);
    }
  }
  std::sort(inside.begin(), inside.end());
  const auto distinct =
      static_cast<std::int64_t>(std::unique(inside.begin(), inside.end()) - inside.begin());
  // Real equations per channel: a line inside the band gives two (z is
  // complex there), a line at either end one (z = 1 or -1 is real).
  const std::int64_t equations = 2 * distinct + (atLow ? 1 : 0) + (atHigh ? 1 : 0);
  if (equations < 1 || numChannels < 1) return 0;
  // Order n has n + 1 numerator coefficients per channel and n free
  // denominator coefficients: C (D - n - 1) >= n, which also gives n < D.
  const std::int64_t highest = numChannels * (equations - 1) / (numChannels + 1);
  return static_cast<int>(std::min<std::int64_t>(highest, std::numeric_limits<int>::max()));
}

std::vector<RealVector> FitDenominators(const ComplexMatrix& basis,
                                        Eigen::Ref<const ComplexMatrix> channels, int nMin,
                                        int nMax, const ComplexVector* extraChannel,
                                        const RealVector* lineWeights) {
  const Index p = Index{nMax} + 1;  // coefficients of the highest order
  const Index lines = basis.rows();
  const Index matrixChannels = channels.cols();
  const Index numChannels = matrixChannels + (extraChannel != nullptr ? 1 : 0);

  // Cosines and sines of m theta_k, weighted per line: in this basis every
  // normal-equation block is Toeplitz, so its entries are the real parts of
  // weighted sums over the lines of a weight times z^m, |m| <= nMax.
  MatrixXd cosines = basis.leftCols(p).real();
  MatrixXd sines = basis.leftCols(p).imag();
  if (lineWeights != nullptr) {
    cosines = lineWeights->asDiagonal() * cosines;
    sines = lineWeights->asDiagonal() * sines;
  }
  const RealVector r = cosines.colwise().sum().transpose();
  MatrixXd factor = SymmetricToeplitz(r.data(), p);
  const Index usable = LeadingCholesky(factor);

  // Channels go through in groups: per group, the sums of each channel, then
  // Q_c = L^-1 S_c, whose leading (n+1) block is L_n^-1 S_n of order n, so
  // that S_n^T R_n^-1 S_n = Q_n^T Q_n. What every order needs is
  // sum_c sum_(i<=n) q_ci^T q_ci over the rows q_ci of Q_c. When all the Q_c
  // fit in one group the rows are added order by order below; otherwise
  // each row's sum over all channels, rows[i] (p x p), is accumulated group
  // by group, which takes p^3 doubles instead of channels x p^2.
  // Doubles of Q per group: at most 64 MiB, and at most a quarter of the
  // size of the channels themselves, so that many channels of few lines do
  // not take more than their own size again.
  const Index budget =
      std::max(16 * p * p, std::min(Index{1} << 23, numChannels * std::max<Index>(lines, 1) / 2));
  const Index perGroup = std::max<Index>(1, std::min(numChannels, budget / (p * p)));
  const bool oneGroup = perGroup >= numChannels;
  std::vector<MatrixXd> rows;
  if (!oneGroup) rows.assign(static_cast<std::size_t>(usable), MatrixXd::Zero(p, p));
  RealVector powerSum = RealVector::Zero(p);
  MatrixXd q, plus, minus, power;
  ComplexVector cleanExtra;
  if (extraChannel != nullptr && lineWeights != nullptr) {
    // Lines without weight may hold anything (NaN times 0 is NaN).
    cleanExtra = (lineWeights->array() > 0.0).select(*extraChannel, ComplexVector::Zero(lines));
  }
  const ComplexVector* extra = cleanExtra.size() > 0 ? &cleanExtra : extraChannel;

  for (Index first = 0; first < numChannels; first += perGroup) {
    const Index count = std::min(perGroup, numChannels - first);
    plus.resize(p, count);
    minus.resize(p, count);
    power.resize(p, count);
    const auto sums = [&](const auto& h, Index at, Index width) {
      const MatrixXd re = cosines.transpose() * h.real();
      const MatrixXd im = sines.transpose() * h.imag();
      plus.middleCols(at, width) = re - im;
      minus.middleCols(at, width) = re + im;
      power.middleCols(at, width).noalias() = cosines.transpose() * h.cwiseAbs2();
    };
    const Index fromMatrix = std::max<Index>(0, std::min(count, matrixChannels - first));
    // Fixed blocks of channels, not the scheduler's ranges: a block of one
    // channel is a matrix-vector product, which sums in another order than
    // the matrix product of wider blocks, so the cut must not depend on the
    // threads.
    constexpr Index kBlock = 4;
    tbb::parallel_for(Index{0}, (fromMatrix + kBlock - 1) / kBlock, [&](Index block) {
      const Index at = block * kBlock;
      const Index width = std::min(kBlock, fromMatrix - at);
      sums(channels.middleCols(first + at, width), at, width);
    });
    if (fromMatrix < count) sums(*extra, fromMatrix, 1);
    powerSum += power.rowwise().sum();

    q.resize(p, count * p);
    tbb::parallel_for(
        tbb::blocked_range<Index>(0, count, 2), [&](const tbb::blocked_range<Index>& range) {
          for (Index c = range.begin(); c < range.end(); ++c) {
            FillCoupling(plus.col(c).data(), minus.col(c).data(), p, q.data() + c * p * p);
            if (usable == 0) continue;
            factor.topLeftCorner(usable, usable)
                .triangularView<Eigen::Lower>()
                .solveInPlace(q.block(0, c * p, usable, p));
          }
        });
    if (!oneGroup) {
      // Each row's sum is independent of the others, so the rows are
      // shared out without changing the order of any addition.
      tbb::parallel_for(Index{0}, usable, [&](Index i) {
        const RowOfAllChannels row(q.data() + i, p, count, ChannelStride(p));
        rows[static_cast<std::size_t>(i)].selfadjointView<Eigen::Lower>().rankUpdate(row);
      });
    }
  }
  const MatrixXd t = SymmetricToeplitz(powerSum.data(), p);

  // gram (its lower triangle) grows one row at a time so that its leading
  // (n+1) block is sum_c Q_n^T Q_n at order n. The orders' systems are
  // taken out in small batches and solved in parallel.
  MatrixXd gram = MatrixXd::Zero(p, p);
  std::vector<RealVector> result(static_cast<size_t>(std::int64_t{nMax} - nMin + 1));
  std::vector<std::pair<Index, MatrixXd>> batch;
  const auto solveBatch = [&] {
    tbb::parallel_for(size_t{0}, batch.size(), [&](size_t b) {
      const Index n = batch[b].first;
      result[static_cast<size_t>(n - nMin)] = SolveOrder(batch[b].second);
    });
    batch.clear();
  };
  constexpr size_t kBatch = 8;
  for (Index n = 0; n <= nMax; ++n) {
    if (n < usable) {
      if (oneGroup) {
        const RowOfAllChannels row(q.data() + n, p, numChannels, ChannelStride(p));
        gram.selfadjointView<Eigen::Lower>().rankUpdate(row);
      } else {
        gram += rows[static_cast<std::size_t>(n)];
        rows[static_cast<std::size_t>(n)] = MatrixXd();  // done with it
      }
    }
    if (n < nMin) continue;
    RealVector& out = result[static_cast<size_t>(n - nMin)];
    if (n == 0) {
      out = RealVector::Ones(1);
    } else if (n >= usable) {
      out = NonFinite(n + 1);
    } else {
      MatrixXd m(n + 1, n + 1);
      m.triangularView<Eigen::Lower>() =
          t.topLeftCorner(n + 1, n + 1) - gram.topLeftCorner(n + 1, n + 1);
      batch.emplace_back(n, std::move(m));
      if (batch.size() == kBatch) solveBatch();
    }
  }
  solveBatch();
  return result;
}

ComplexVector FittedModel(const ComplexMatrix& basis, const ComplexVector& frf,
                          const RealVector& denominator) {
  const Index p = denominator.size();
  const Index lines = frf.size();
  if (p == 0 || !denominator.allFinite()) return ComplexVector::Constant(lines, kNaN);
  const auto x = basis.leftCols(p);

  // Lines where the FRF is not finite take no part in the numerator's fit;
  // the model is still evaluated there.
  const Eigen::Array<bool, Eigen::Dynamic, 1> finite =
      frf.real().array().isFinite() && frf.imag().array().isFinite();
  const RealVector weight = finite.cast<double>();
  const ComplexVector h = finite.select(frf, ComplexVector::Zero(lines));
  const RealVector r = (x.real().transpose() * weight);
  const RealVector plus = (x.transpose() * h).real();
  const RealVector minus = (x.adjoint() * h).real();
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
