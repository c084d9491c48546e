#include "modes/principal_frfs.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace frfcam::modes {

namespace {

// Orthonormal columns spanning z's (thin Householder QR).
Eigen::MatrixXcd Orthonormal(const Eigen::MatrixXcd& z) {
  Eigen::HouseholderQR<Eigen::MatrixXcd> qr(z);
  return qr.householderQ() * Eigen::MatrixXcd::Identity(z.rows(), z.cols());
}

}  // namespace

PrincipalSpectra LeadingComponents(const Eigen::MatrixXcf& y, int maxComponents, double floorFactor,
                                   std::uint64_t seed) {
  PrincipalSpectra out;
  const Eigen::Index lines = y.rows(), channels = y.cols();
  out.noiseFloor = std::sqrt(static_cast<double>(lines)) + std::sqrt(static_cast<double>(channels));
  const Eigen::Index want = std::max<Eigen::Index>(1, maxComponents);
  const Eigen::Index sketch = std::min<Eigen::Index>({lines, channels, want + 10});
  if (sketch <= 0) return out;

  // Gaussian test matrix from a fixed generator, so runs repeat exactly.
  std::mt19937_64 rng(seed);
  std::normal_distribution<float> normal;
  Eigen::MatrixXcf omega(channels, sketch);
  for (Eigen::Index j = 0; j < sketch; ++j) {
    for (Eigen::Index i = 0; i < channels; ++i) omega(i, j) = {normal(rng), normal(rng)};
  }
  // Two power iterations sharpen the gap between signal and noise.
  Eigen::MatrixXcd q = Orthonormal((y * omega).cast<std::complex<double>>());
  for (int it = 0; it < 2; ++it) {
    const Eigen::MatrixXcf qf = q.cast<std::complex<float>>();
    const Eigen::MatrixXcf back = y.adjoint() * qf;
    q = Orthonormal((y * back).cast<std::complex<double>>());
  }
  // Y ~ Q B with B = Q^H Y small; B B^H = W S^2 W^H gives Y's leading left
  // singular vectors Q W and values S.
  const Eigen::MatrixXcd b =
      (q.cast<std::complex<float>>().adjoint() * y).cast<std::complex<double>>();
  const Eigen::MatrixXcd gram = b * b.adjoint();
  Eigen::SelfAdjointEigenSolver<Eigen::MatrixXcd> eig(gram);
  const Eigen::Index n = gram.rows();
  Eigen::VectorXd s(n);
  Eigen::MatrixXcd w(n, n);
  for (Eigen::Index i = 0; i < n; ++i) {  // decreasing
    s[i] = std::sqrt(std::max(0.0, eig.eigenvalues()[n - 1 - i]));
    w.col(i) = eig.eigenvectors().col(n - 1 - i);
  }
  out.singularValues = s;
  Eigen::Index kept = 0;
  while (kept < std::min(want, n) && s[kept] > floorFactor * out.noiseFloor) ++kept;
  kept = std::max<Eigen::Index>(kept, 1);
  out.spectra = q * w.leftCols(kept) * s.head(kept).asDiagonal();
  return out;
}

}  // namespace frfcam::modes
