#include "stability/roots.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>

#include "stability/lscf.h"
#include "stability/synthetic.h"

namespace frfcam::stability {
namespace {

// Largest distance of a root from its nearest eigenvalue, relative to the
// eigenvalue's modulus; also checks that no eigenvalue is left unmatched
// (conjugate pairs and real roots make a greedy nearest match enough).
double WorstDistance(const roots::Roots& z, const roots::Roots& eigenvalues) {
  EXPECT_EQ(z.size(), eigenvalues.size());
  std::vector<bool> used(static_cast<std::size_t>(eigenvalues.size()), false);
  double worst = 0.0;
  for (Eigen::Index i = 0; i < z.size(); ++i) {
    Eigen::Index best = -1;
    for (Eigen::Index j = 0; j < eigenvalues.size(); ++j) {
      if (used[j]) continue;
      if (best < 0 || std::abs(z[i] - eigenvalues[j]) < std::abs(z[i] - eigenvalues[best])) {
        best = j;
      }
    }
    if (best < 0) return 1e300;
    used[best] = true;
    worst = std::max(worst, std::abs(z[i] - eigenvalues[best]) / std::abs(eigenvalues[best]));
  }
  return worst;
}

// The number of real roots (imaginary part +0) when every other root has its
// exact conjugate among the roots; -1 otherwise.
int RealRootsOfExactPairs(const roots::Roots& z) {
  int real = 0;
  for (Eigen::Index i = 0; i < z.size(); ++i) {
    if (z[i].imag() == 0.0) {
      if (std::signbit(z[i].imag())) return -1;
      ++real;
    } else if (((z.array() == std::conj(z[i])).count()) != 1) {
      return -1;
    }
  }
  return real;
}

// The order sweep as the estimator runs it: every order from the roots of
// the order below. Each order's roots must be the companion eigenvalues.
void ExpectSweepMatchesEigenvalues(const SyntheticFrfs& data, int nMin, int nMax,
                                   const std::string& what) {
  const lscf::Band band = lscf::BandOf(data.omega);
  const ComplexMatrix basis = lscf::BuildBasis(lscf::ShiftedOmega(data.omega, band), band.dt, nMax);
  const std::vector<RealVector> denominators =
      lscf::FitDenominators(basis, data.matrix, nMin, nMax);
  roots::Roots previous;
  int aberth = 0;
  for (const RealVector& a : denominators) {
    const Eigen::Index n = a.size() - 1;
    roots::Method method = roots::Method::kNone;
    const roots::Roots z = roots::PolynomialRoots(
        a, previous.size() > 0 ? roots::WarmStart(previous, n) : roots::Roots(), &method);
    aberth += method == roots::Method::kAberth;
    const roots::Roots eigenvalues = roots::CompanionRoots(a);
    EXPECT_LT(WorstDistance(z, eigenvalues), 1e-9) << what << ", order " << n;
    EXPECT_EQ(RealRootsOfExactPairs(z), RealRootsOfExactPairs(eigenvalues))
        << what << ", order " << n;
    previous = z;
  }
  // The warm start is what makes the sweep cheap: it must not fall back.
  EXPECT_EQ(aberth, nMax - nMin + 1) << what;
}

TEST(Roots, WarmStartedSweepEqualsCompanionEigenvalues) {
  ExpectSweepMatchesEigenvalues(SynthesizeFrfs(DefaultFiveModeSystem(2000, 8, 0.002)), 2, 80,
                                "five modes");
  // Noise only: the denominators change much more from one order to the
  // next, and no root is a physical one.
  SyntheticFrfs noise = SynthesizeFrfs(DefaultFiveModeSystem(1000, 8, 0.0));
  std::srand(7);
  noise.matrix = ComplexMatrix::Random(noise.matrix.rows(), noise.matrix.cols());
  ExpectSweepMatchesEigenvalues(noise, 2, 80, "noise only");
}

// The real coefficients of the product of (z - r) over the real roots and
// (z^2 - 2 Re(r) z + |r|^2) over the pairs (given by their upper member), and
// all the roots.
RealVector FromRoots(const std::vector<std::complex<double>>& exact, roots::Roots* all) {
  RealVector a = RealVector::Ones(1);
  std::vector<std::complex<double>> z;
  for (const std::complex<double>& r : exact) {
    const RealVector factor =
        r.imag() == 0.0 ? (RealVector(2) << -r.real(), 1.0).finished()
                        : (RealVector(3) << std::norm(r), -2.0 * r.real(), 1.0).finished();
    RealVector product = RealVector::Zero(a.size() + factor.size() - 1);
    for (Eigen::Index i = 0; i < a.size(); ++i) {
      for (Eigen::Index j = 0; j < factor.size(); ++j) product[i + j] += a[i] * factor[j];
    }
    a = product;
    z.push_back(r);
    if (r.imag() != 0.0) z.push_back(std::conj(r));
  }
  *all = Eigen::Map<const roots::Roots>(z.data(), static_cast<Eigen::Index>(z.size()));
  return a;
}

// Real roots just inside and outside the unit circle near z = 1 come out
// real; a lightly damped pair 0.012 rad off the axis among them stays a
// pair. Cold and warm started alike.
TEST(Roots, RealRootsNearOneStayRealAndPairsStayPairs) {
  using C = std::complex<double>;
  roots::Roots want;
  const RealVector a =
      FromRoots({0.984, 0.93, 1.03, std::polar(0.9995, 0.012), -0.4, std::polar(0.998, 0.3),
                 std::polar(0.95, 2.0), std::polar(1.2, 2.9)},
                &want);
  const roots::Roots eigenvalues = roots::CompanionRoots(a);
  ASSERT_EQ(RealRootsOfExactPairs(eigenvalues), 4);
  // A warm start as the sweep makes one: the roots moved a little.
  roots::Roots warm = want;
  for (Eigen::Index i = 0; i < warm.size(); ++i) warm[i] *= C(1.0 + 1e-3 * (i % 3), 1e-3);
  for (const auto& [what, start] : {std::pair{"cold", roots::Roots()}, std::pair{"warm", warm}}) {
    roots::Method method = roots::Method::kNone;
    const roots::Roots z = roots::PolynomialRoots(a, start, &method);
    EXPECT_EQ(method, roots::Method::kAberth) << what;
    EXPECT_EQ(RealRootsOfExactPairs(z), 4) << what;
    // The cluster near 1 moves by about 4e-8 under the rounding of the
    // coefficients; both methods see the same rounded ones.
    EXPECT_LT(WorstDistance(z, want), 1e-6) << what;
    EXPECT_LT(WorstDistance(z, eigenvalues), 1e-8) << what;
  }
}

TEST(Roots, BreakdownFallsBackToTheEigenvalues) {
  // (z - 0.5)(z + 2)(z^2 + 1): coinciding guesses break the iteration down.
  const RealVector a = (RealVector(5) << -1.0, 1.5, 0.0, 1.5, 1.0).finished();
  const roots::Roots same = roots::Roots::Constant(4, {0.3, 0.3});
  roots::Roots z;
  EXPECT_FALSE(roots::AberthRoots(a, same, &z));
  roots::Method method = roots::Method::kNone;
  z = roots::PolynomialRoots(a, same, &method);
  EXPECT_EQ(method, roots::Method::kCompanion);
  EXPECT_LT(WorstDistance(z, roots::CompanionRoots(a)), 1e-15);
  // So do iterations that run out of sweeps: with one sweep none converges.
  EXPECT_FALSE(roots::AberthRoots(a, roots::ColdStart(a), &z, 1));
  z = roots::PolynomialRoots(a, roots::Roots(), &method, 1);
  EXPECT_EQ(method, roots::Method::kCompanion);
  EXPECT_TRUE((z.array() == roots::CompanionRoots(a).array()).all());
  // Nothing to find: degree 0, a zero leading coefficient, NaN.
  EXPECT_EQ(roots::PolynomialRoots(RealVector::Ones(1), {}, &method).size(), 0);
  EXPECT_EQ(method, roots::Method::kNone);
  EXPECT_EQ(roots::PolynomialRoots((RealVector(3) << 1.0, 2.0, 0.0).finished(), {}).size(), 0);
  EXPECT_EQ(roots::PolynomialRoots((RealVector(3) << 1.0, NAN, 1.0).finished(), {}).size(), 0);
}

}  // namespace
}  // namespace frfcam::stability
