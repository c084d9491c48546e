#include "stability/residues.h"

#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>
#include <vector>

namespace frfcam::stability {

namespace {

bool IsFinite(std::complex<double> v) { return std::isfinite(v.real()) && std::isfinite(v.imag()); }

// 1 / (re + i im). The textbook form is several times faster than the
// library's scaled complex division; that one is kept for the rare operands
// whose squares overflow or vanish.
std::complex<double> Reciprocal(double re, double im) {
  const double d = re * re + im * im;
  if (d >= std::numeric_limits<double>::min() && std::isfinite(d)) return {re / d, -im / d};
  return 1.0 / std::complex<double>(re, im);
}

// One column per mode, then the upper residual (constant) and the lower
// residual (1/(iw)^2 = -1/w^2). The lower-residual entry of a line at w = 0
// is left at zero: that line drops out of the fit and its synthesised value
// goes without the term.
ComplexMatrix DesignMatrix(const RealVector& omega, const RealVector& modeOmega,
                           const RealVector& modeDamping) {
  const Eigen::Index lines = omega.size();
  const Eigen::Index modes = modeOmega.size();
  ComplexMatrix design(lines, modes + 2);
  for (Eigen::Index r = 0; r < modes; ++r) {
    const double wr = modeOmega[r];
    const double twoZetaW = 2.0 * modeDamping[r] * wr;
    for (Eigen::Index i = 0; i < lines; ++i) {
      const double w = omega[i];
      design(i, r) = Reciprocal(wr * wr - w * w, twoZetaW * w);
    }
  }
  design.col(modes).setOnes();
  for (Eigen::Index i = 0; i < lines; ++i) {
    const double w = omega[i];
    design(i, modes + 1) = w != 0.0 ? std::complex<double>(-1.0 / (w * w), 0.0) : 0.0;
  }
  return design;
}

// The lines that can take part in the fit: finite model and finite data.
std::vector<Eigen::Index> FittableRows(const RealVector& omega, const ComplexVector& frf,
                                       const ComplexMatrix& design) {
  std::vector<Eigen::Index> rows;
  rows.reserve(static_cast<std::size_t>(omega.size()));
  for (Eigen::Index i = 0; i < omega.size(); ++i) {
    bool finite = omega[i] != 0.0 && IsFinite(frf[i]);
    for (Eigen::Index c = 0; finite && c < design.cols(); ++c) finite = IsFinite(design(i, c));
    if (finite) rows.push_back(i);
  }
  return rows;
}

// The complex system G x = r as the real one [Re G, -Im G; Im G, Re G]
// [Re x; Im x] = [Re r; Im r]. Factorising that needs only real absolute
// values; a complex factorisation takes |z| from the C runtime, whose last
// bit differs between platforms and would make the record differ with it.
class RealFormSolver {
 public:
  explicit RealFormSolver(const ComplexMatrix& g) : n_(g.rows()) {
    Eigen::MatrixXd m(2 * n_, 2 * n_);
    m << g.real(), -g.imag(), g.imag(), g.real();
    qr_.compute(m);
  }
  ComplexVector Solve(const ComplexVector& r) const {
    Eigen::VectorXd stacked(2 * n_);
    stacked << r.real(), r.imag();
    const Eigen::VectorXd x = qr_.solve(stacked);
    ComplexVector out(n_);
    out.real() = x.head(n_);
    out.imag() = x.tail(n_);
    return out;
  }

 private:
  Eigen::Index n_;
  Eigen::ColPivHouseholderQR<Eigen::MatrixXd> qr_;
};

// Least squares through the small normal system (the columns arrive
// equilibrated). It is solved with a rank-revealing factorisation, so that a
// repeated mode splits its residue instead of blowing the fit up, and refined
// once against the full misfit, a cheap guard against the accuracy that
// forming A^H A can give away. It agrees with a QR of the tall matrix, which
// costs several times as much.
ComplexVector SolveLeastSquares(const ComplexMatrix& a, const ComplexVector& b) {
  const RealFormSolver solver(a.adjoint() * a);
  ComplexVector x = solver.Solve(a.adjoint() * b);
  const ComplexVector misfit = b - a * x;
  x += solver.Solve(a.adjoint() * misfit);
  return x;
}

}  // namespace

ResidueFit FitResidues(const RealVector& omega, const ComplexVector& frf,
                       const RealVector& modeFrequencyHz, const RealVector& modeDamping) {
  if (omega.size() != frf.size()) {
    throw std::invalid_argument("residue fit: frequencies and FRF differ in length");
  }
  if (modeFrequencyHz.size() != modeDamping.size()) {
    throw std::invalid_argument("residue fit: mode frequencies and damping differ in length");
  }
  const Eigen::Index lines = omega.size();
  const Eigen::Index modes = modeFrequencyHz.size();
  const Eigen::Index unknowns = modes + 2;
  const RealVector modeOmega = 2.0 * std::numbers::pi * modeFrequencyHz;
  ComplexMatrix design = DesignMatrix(omega, modeOmega, modeDamping);
  const std::vector<Eigen::Index> rows = FittableRows(omega, frf, design);
  const auto fitted = static_cast<Eigen::Index>(rows.size());

  // The columns differ by many orders of magnitude (1 for the upper
  // residual, about 1/w^2 for the others), so each is scaled to unit norm
  // over the fitted lines; the solve then works on equilibrated columns and
  // the coefficients are scaled back at the end.
  RealVector scale = RealVector::Ones(unknowns);
  for (Eigen::Index c = 0; c < unknowns; ++c) {
    double sum = 0.0;
    for (Eigen::Index i : rows) sum += std::norm(design(i, c));
    const double norm = std::sqrt(sum);
    if (norm > 0.0 && std::isfinite(norm)) scale[c] = norm;
    design.col(c) /= scale[c];
  }

  ComplexVector scaled =
      ComplexVector::Constant(unknowns, std::numeric_limits<double>::quiet_NaN());
  if (fitted == lines) {
    scaled = SolveLeastSquares(design, frf);
  } else if (fitted > 0) {
    ComplexMatrix a(fitted, unknowns);
    ComplexVector b(fitted);
    for (Eigen::Index k = 0; k < fitted; ++k) {
      a.row(k) = design.row(rows[static_cast<std::size_t>(k)]);
      b[k] = frf[rows[static_cast<std::size_t>(k)]];
    }
    scaled = SolveLeastSquares(a, b);
  }

  ResidueFit fit;
  fit.synthesised = design * scaled;
  const ComplexVector coefficients = scaled.cwiseQuotient(scale.cast<std::complex<double>>());
  fit.residues = coefficients.head(modes);
  fit.upperResidual = coefficients[modes];
  fit.lowerResidual = coefficients[modes + 1];
  return fit;
}

}  // namespace frfcam::stability
