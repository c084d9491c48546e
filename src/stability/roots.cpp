#include "stability/roots.h"

#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <vector>

#include "stability/portable_math.h"

namespace frfcam::stability::roots {

namespace {

using Complex = std::complex<double>;
using Eigen::Index;

constexpr double kEpsilon = std::numeric_limits<double>::epsilon();

bool Usable(const Coefficients& a) {
  return a.size() >= 2 && a.allFinite() && a(a.size() - 1) != 0.0;
}

// The Newton correction p(z) / p'(z) and whether |p(z)| is already within the
// rounding error e of evaluating it. When asked for, also two radii about z:
// n |p / p'|, a disc that holds a root by the Newton inclusion theorem, and
// n max(|p|, e) / |p'|, the same allowing for the worst rounding. Inside the
// unit disc p is evaluated by Horner's rule in z; outside it in w = 1/z on
// the reversed polynomial, so that high powers of a large z cannot overflow
// and the rounding bound stays meaningful.
struct NewtonStep {
  Complex correction;
  bool converged;
  double inclusion;   // n |p / p'|
  double errorBound;  // n max(|p|, e) / |p'|
};

// Plain complex products: the library's operators check every result for
// NaN, which costs more than the arithmetic in these loops.
inline void MultiplyAdd(double& re, double& im, double zr, double zi, double add) {
  const double r = re * zr - im * zi + add;
  im = re * zi + im * zr;
  re = r;
}

NewtonStep Newton(const double* a, Index n, Complex z, bool wantRadii = false) {
  // Horner's rule in complex arithmetic errs by up to about 2n ulps of the
  // sum of the terms' moduli.
  const double tolerance = 2.0 * static_cast<double>(n + 1) * kEpsilon;
  const double degree = static_cast<double>(n);
  const double modulus = portable::Abs(z);
  double pr, pi = 0.0, dr = 0.0, di = 0.0, bound;
  if (modulus <= 1.0) {
    const double zr = z.real(), zi = z.imag();
    pr = a[n];
    bound = std::abs(a[n]);
    for (Index k = n - 1; k >= 0; --k) {
      MultiplyAdd(dr, di, zr, zi, 0.0);
      dr += pr;
      di += pi;
      MultiplyAdd(pr, pi, zr, zi, a[k]);
      bound = bound * modulus + std::abs(a[k]);
    }
    const Complex p(pr, pi), dp(dr, di);
    const double size = portable::Hypot(pr, pi);
    const double scale = wantRadii ? degree / portable::Hypot(dr, di) : 0.0;
    return {p / dp, size <= tolerance * bound, size * scale,
            std::max(size, tolerance * bound) * scale};
  }
  // p(z) = z^n q(w) with q(w) = sum a_k w^(n-k), so that
  // p / p' = q / (w (n q - w q'(w))).
  const Complex w = 1.0 / z;
  const double wr = w.real(), wi = w.imag();
  const double wModulus = 1.0 / modulus;
  pr = a[0];
  bound = std::abs(a[0]);
  for (Index k = 1; k <= n; ++k) {
    MultiplyAdd(dr, di, wr, wi, 0.0);
    dr += pr;
    di += pi;
    MultiplyAdd(pr, pi, wr, wi, a[k]);
    bound = bound * wModulus + std::abs(a[k]);
  }
  const Complex q(pr, pi), dq(dr, di);
  const double size = portable::Hypot(pr, pi);
  // |p / p'| = |q| / (|w| |n q - w q'|), which stays finite where q = 0.
  const double scale = wantRadii ? degree / (wModulus * portable::Abs(degree * q - w * dq)) : 0.0;
  return {1.0 / (w * (degree - w * dq / q)), size <= tolerance * bound, size * scale,
          std::max(size, tolerance * bound) * scale};
}

bool IsFinite(Complex z) { return std::isfinite(z.real()) && std::isfinite(z.imag()); }

}  // namespace

Roots CompanionRoots(const Coefficients& a) {
  if (!Usable(a)) return {};
  const Index n = a.size() - 1;
  // -a_(n-1) .. -a_0 over the leading coefficient on the first row, ones on
  // the subdiagonal.
  Eigen::MatrixXd companion = Eigen::MatrixXd::Zero(n, n);
  for (Index j = 0; j < n; ++j) companion(0, j) = -a(n - 1 - j) / a(n);
  for (Index i = 1; i < n; ++i) companion(i, i - 1) = 1.0;
  const Eigen::EigenSolver<Eigen::MatrixXd> solver(companion, /*computeEigenvectors=*/false);
  if (solver.info() != Eigen::Success) return {};
  return solver.eigenvalues();
}

namespace {

// sum over j in [begin, end) of 1 / (x - z_j), on split real and imaginary
// parts so that the loop vectorises.
inline void AddRepulsion(const double* re, const double* im, Index begin, Index end, double xr,
                         double xi, double* sumRe, double* sumIm) {
  double accRe = 0.0, accIm = 0.0;
  for (Index j = begin; j < end; ++j) {
    const double dr = xr - re[j], di = xi - im[j];
    const double scale = 1.0 / (dr * dr + di * di);
    accRe += dr * scale;
    accIm -= di * scale;
  }
  *sumRe += accRe;
  *sumIm += accIm;
}

// Gives the converged roots the structure of a real polynomial's roots (the
// rule in roots.h): a root whose inclusion disc meets the real axis becomes
// real, and each root above the axis is paired with the root below it
// nearest to its conjugate, which becomes that conjugate exactly. False when
// the roots do not pair up: some radius is not finite, the two half planes
// hold different numbers of roots, or a partner lies further from the
// conjugate than the two error bounds allow.
bool SettleConjugates(const double* a, Index n, Eigen::VectorXd& re, Eigen::VectorXd& im) {
  std::vector<double> bound(static_cast<std::size_t>(n));
  std::vector<Index> upper, lower;
  for (Index i = 0; i < n; ++i) {
    const NewtonStep step = Newton(a, n, Complex(re[i], im[i]), /*wantRadii=*/true);
    bound[i] = step.errorBound;
    if (!(bound[i] < std::numeric_limits<double>::infinity())) return false;
    if (std::abs(im[i]) <= step.inclusion) {
      im[i] = 0.0;  // +0, as the eigenvalue solver gives real eigenvalues
    } else {
      (im[i] > 0.0 ? upper : lower).push_back(i);
    }
  }
  if (upper.size() != lower.size()) return false;
  std::vector<char> taken(lower.size(), 0);
  for (const Index u : upper) {
    std::size_t best = lower.size();
    double bestDistance = std::numeric_limits<double>::infinity();
    for (std::size_t k = 0; k < lower.size(); ++k) {
      if (taken[k]) continue;
      const Index l = lower[k];
      const double distance = portable::Hypot(re[l] - re[u], im[l] + im[u]);
      if (distance < bestDistance) {
        bestDistance = distance;
        best = k;
      }
    }
    if (best == lower.size() || !(bestDistance <= bound[u] + bound[lower[best]])) return false;
    taken[best] = 1;
    re[lower[best]] = re[u];
    im[lower[best]] = -im[u];
  }
  return true;
}

}  // namespace

bool AberthRoots(const Coefficients& a, const Roots& start, Roots* roots, int maxSweeps) {
  if (!Usable(a)) return false;
  const Index n = a.size() - 1;
  if (start.size() != n) return false;
  Eigen::VectorXd re = start.real(), im = start.imag();
  std::vector<char> done(static_cast<std::size_t>(n), 0);
  Index remaining = n;
  for (int sweep = 0; sweep < maxSweeps && remaining > 0; ++sweep) {
    // Gauss-Seidel order: each root moves against the latest positions of
    // the others, which converges in fewer sweeps than the Jacobi form.
    for (Index i = 0; i < n; ++i) {
      if (done[i]) continue;
      const double xr = re[i], xi = im[i];
      const NewtonStep step = Newton(a.data(), n, Complex(xr, xi));
      double sumRe = 0.0, sumIm = 0.0;
      AddRepulsion(re.data(), im.data(), 0, i, xr, xi, &sumRe, &sumIm);
      AddRepulsion(re.data(), im.data(), i + 1, n, xr, xi, &sumRe, &sumIm);
      const Complex repulsion(sumRe, sumIm);
      const Complex delta = step.correction / (1.0 - step.correction * repulsion);
      if (!IsFinite(delta)) {
        // p(z) = 0 exactly gives 0 / 0 in the reversed form; anything else
        // is a breakdown.
        if (step.converged) {
          done[i] = 1;
          --remaining;
          continue;
        }
        return false;
      }
      re[i] = xr - delta.real();
      im[i] = xi - delta.imag();
      if (step.converged) {
        done[i] = 1;
        --remaining;
      }
    }
  }
  if (remaining > 0 || !re.allFinite() || !im.allFinite()) return false;
  if (!SettleConjugates(a.data(), n, re, im)) return false;
  roots->resize(n);
  roots->real() = re;
  roots->imag() = im;
  return true;
}

Roots ColdStart(const Coefficients& a) {
  const Index n = a.size() - 1;
  if (n < 1) return {};
  double radius = portable::Exp(portable::Log(std::abs(a(0) / a(n))) / static_cast<double>(n));
  if (!(radius > 0.0) || !std::isfinite(radius)) radius = 1.0;
  Roots z(n);
  // An offset angle keeps the guesses off the real axis, where the roots of
  // a real polynomial pair up.
  for (Index k = 0; k < n; ++k) {
    const double angle = 2.0 * std::numbers::pi * static_cast<double>(k) / n + 0.4;
    z[k] = portable::Polar(radius, angle);
  }
  return z;
}

Roots WarmStart(const Roots& previous, Eigen::Index degree) {
  if (degree <= previous.size()) return previous.head(std::max<Index>(degree, 0));
  Roots z(degree);
  z.head(previous.size()) = previous;
  std::vector<double> angles;
  angles.reserve(static_cast<std::size_t>(degree));
  for (Index i = 0; i < previous.size(); ++i) angles.push_back(portable::Arg(previous[i]));
  for (Index k = previous.size(); k < degree; ++k) {
    // The middle of the widest gap between the angles taken so far, on the
    // unit circle where the poles of interest lie.
    double angle = 0.5;
    if (!angles.empty()) {
      std::vector<double> sorted = angles;
      std::sort(sorted.begin(), sorted.end());
      double widest = sorted.front() + 2.0 * std::numbers::pi - sorted.back();
      angle = sorted.back() + 0.5 * widest;
      for (std::size_t i = 1; i < sorted.size(); ++i) {
        if (sorted[i] - sorted[i - 1] > widest) {
          widest = sorted[i] - sorted[i - 1];
          angle = sorted[i - 1] + 0.5 * widest;
        }
      }
    }
    z[k] = portable::Polar(1.0, angle);
    angles.push_back(portable::Arg(z[k]));
  }
  return z;
}

Roots PolynomialRoots(const Coefficients& a, const Roots& start, Method* method, int maxSweeps) {
  Method used = Method::kNone;
  Roots z;
  if (Usable(a)) {
    const Index n = a.size() - 1;
    if (AberthRoots(a, start.size() == n ? start : ColdStart(a), &z, maxSweeps)) {
      used = Method::kAberth;
    } else {
      z = CompanionRoots(a);
      used = z.size() == n ? Method::kCompanion : Method::kNone;
    }
  }
  if (method != nullptr) *method = used;
  return z;
}

}  // namespace frfcam::stability::roots
