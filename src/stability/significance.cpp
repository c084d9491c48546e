#include "stability/significance.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <stdexcept>

namespace frfcam::stability {

namespace {

using Eigen::Index;
using cd = std::complex<double>;

// Residual energy of the least-squares fit that uses only the columns in
// `subset`, from the Gram matrix G = A^H A, the projections B = A^H H and
// the data energy: |H|^2 - Re tr(B_S^H G_SS^-1 B_S). A rank-revealing solve
// keeps a nearly repeated pole from blowing the fit up.
double ResidualEnergy(const ComplexMatrix& gram, const ComplexMatrix& projections,
                      double dataEnergy, const std::vector<Index>& subset) {
  const auto k = static_cast<Index>(subset.size());
  ComplexMatrix g(k, k);
  ComplexMatrix b(k, projections.cols());
  for (Index i = 0; i < k; ++i) {
    b.row(i) = projections.row(subset[i]);
    for (Index j = 0; j < k; ++j) g(i, j) = gram(subset[i], subset[j]);
  }
  const ComplexMatrix x = g.colPivHouseholderQr().solve(b);
  const double fitted = (b.conjugate().cwiseProduct(x)).real().sum();
  return std::max(0.0, dataEnergy - fitted);
}

}  // namespace

ComplexMatrix ModalDesignMatrix(const RealVector& omega, const RealVector& frequencyHz,
                                const RealVector& damping) {
  if (frequencyHz.size() != damping.size()) {
    throw std::invalid_argument("design matrix: mode frequencies and damping differ in length");
  }
  const Index lines = omega.size();
  const Index modes = frequencyHz.size();
  ComplexMatrix a(lines, modes + 2);
  for (Index r = 0; r < modes; ++r) {
    const double wr = 2.0 * std::numbers::pi * frequencyHz[r];
    for (Index i = 0; i < lines; ++i) {
      const double w = omega[i];
      a(i, r) = 1.0 / cd(wr * wr - w * w, 2.0 * damping[r] * wr * w);
    }
  }
  for (Index i = 0; i < lines; ++i) {
    a(i, modes) = 1.0;
    a(i, modes + 1) = omega[i] != 0.0 ? cd(-1.0 / (omega[i] * omega[i]), 0.0) : cd(0.0, 0.0);
  }
  return a;
}

SelectedPoles FilterSignificantPoles(const SelectedPoles& candidates, const RealVector& omega,
                                     const ComplexMatrix& channels,
                                     const SelectionSettings& settings,
                                     std::vector<PoleVerdict>* verdicts) {
  if (candidates.frequency.size() != candidates.damping.size()) {
    throw std::invalid_argument("significance: pole frequencies and damping differ in length");
  }
  if (channels.rows() != omega.size()) {
    throw std::invalid_argument("significance: the FRFs and the frequencies differ in length");
  }
  std::vector<PoleVerdict> all;
  for (Index i = 0; i < candidates.frequency.size(); ++i) {
    all.push_back({candidates.frequency[i], candidates.damping[i], 0.0, false});
  }
  std::stable_sort(all.begin(), all.end(), [](const PoleVerdict& a, const PoleVerdict& b) {
    return a.frequency < b.frequency;
  });

  // Lines where every channel is finite; the band is theirs.
  std::vector<Index> rows;
  for (Index i = 0; i < omega.size(); ++i) {
    if (std::isfinite(omega[i]) && omega[i] > 0.0 && channels.row(i).allFinite()) {
      rows.push_back(i);
    }
  }
  double fLo = std::numeric_limits<double>::infinity(), fHi = -fLo;
  RealVector w(static_cast<Index>(rows.size()));
  ComplexMatrix h(w.size(), channels.cols());
  for (Index k = 0; k < w.size(); ++k) {
    w[k] = omega[rows[static_cast<std::size_t>(k)]];
    h.row(k) = channels.row(rows[static_cast<std::size_t>(k)]);
    fLo = std::min(fLo, w[k] / (2.0 * std::numbers::pi));
    fHi = std::max(fHi, w[k] / (2.0 * std::numbers::pi));
  }

  // 1. Physical poles.
  std::vector<std::size_t> alive;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const PoleVerdict& p = all[i];
    if (p.damping > 0.0 && p.damping <= settings.maxDamping && p.frequency > fLo &&
        p.frequency < fHi) {
      alive.push_back(i);
    }
  }

  // 2. Backward elimination. One design matrix holds every physical pole
  // and the two residual terms; its columns are equilibrated to unit norm so
  // that the small normal systems stay well scaled, and each subset's fit is
  // solved from the rows and columns of one Gram matrix and one projection.
  const auto k0 = static_cast<Index>(alive.size());
  RealVector f(k0), z(k0);
  for (Index r = 0; r < k0; ++r) {
    f[r] = all[alive[static_cast<std::size_t>(r)]].frequency;
    z[r] = all[alive[static_cast<std::size_t>(r)]].damping;
  }
  ComplexMatrix a = ModalDesignMatrix(w, f, z);
  for (Index c = 0; c < a.cols(); ++c) {
    const double n = a.col(c).norm();
    if (n > 0.0 && std::isfinite(n)) a.col(c) /= n;
  }
  const ComplexMatrix gram = a.adjoint() * a;
  const ComplexMatrix projections = a.adjoint() * h;
  const double dataEnergy = h.squaredNorm();
  const double lines = std::max<double>(1.0, static_cast<double>(w.size()));
  std::vector<Index> columns(static_cast<std::size_t>(k0));  // column of each alive pole
  std::iota(columns.begin(), columns.end(), Index{0});
  while (!alive.empty() && w.size() > 0) {
    std::vector<Index> full = columns;
    full.push_back(k0);
    full.push_back(k0 + 1);
    const double residual = ResidualEnergy(gram, projections, dataEnergy, full);
    // A floor keeps noise-free data (a residual of rounding errors) from
    // dividing by zero.
    const double perLine = std::max(residual / lines, 1e-14 * dataEnergy / lines);
    std::size_t weakest = 0;
    double weakestValue = std::numeric_limits<double>::infinity();
    for (std::size_t r = 0; r < columns.size(); ++r) {
      std::vector<Index> without = full;
      without.erase(without.begin() + static_cast<std::ptrdiff_t>(r));
      const double grown = ResidualEnergy(gram, projections, dataEnergy, without) - residual;
      const double significance = std::max(0.0, grown) / perLine;
      all[alive[r]].significance = significance;
      if (significance < weakestValue) {
        weakestValue = significance;
        weakest = r;
      }
    }
    if (weakestValue >= settings.minSignificance) break;
    alive.erase(alive.begin() + static_cast<std::ptrdiff_t>(weakest));
    columns.erase(columns.begin() + static_cast<std::ptrdiff_t>(weakest));
  }

  SelectedPoles kept;
  kept.frequency.resize(static_cast<Index>(alive.size()));
  kept.damping.resize(kept.frequency.size());
  for (std::size_t j = 0; j < alive.size(); ++j) {
    all[alive[j]].kept = true;
    kept.frequency[static_cast<Index>(j)] = all[alive[j]].frequency;
    kept.damping[static_cast<Index>(j)] = all[alive[j]].damping;
  }
  if (verdicts != nullptr) *verdicts = std::move(all);
  return kept;
}

SelectedPoles SelectModes(const EstimationResult& estimation, const RealVector& omega,
                          const ComplexMatrix& channels, const SelectionSettings& settings,
                          std::vector<PoleVerdict>* verdicts) {
  const SelectedPoles candidates =
      SelectStablePoles(estimation.poleFrequencyByOrder, estimation.poleDampingByOrder,
                        settings.selectionTolerance, settings.minStableCount);
  return FilterSignificantPoles(candidates, omega, channels, settings, verdicts);
}

}  // namespace frfcam::stability
