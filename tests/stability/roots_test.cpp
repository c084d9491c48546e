#include "stability/roots.h"

#include <gtest/gtest.h>

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
    EXPECT_LT(WorstDistance(z, roots::CompanionRoots(a)), 1e-9) << what << ", order " << n;
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
  // From a cold start the iteration finds them itself.
  z = roots::PolynomialRoots(a, roots::Roots(), &method);
  EXPECT_EQ(method, roots::Method::kAberth);
  const roots::Roots exact =
      (roots::Roots(4) << std::complex<double>(0.5, 0.0), std::complex<double>(-2.0, 0.0),
       std::complex<double>(0.0, 1.0), std::complex<double>(0.0, -1.0))
          .finished();
  EXPECT_LT(WorstDistance(z, exact), 1e-14);
  // Nothing to find: degree 0, a zero leading coefficient, NaN.
  EXPECT_EQ(roots::PolynomialRoots(RealVector::Ones(1), {}, &method).size(), 0);
  EXPECT_EQ(method, roots::Method::kNone);
  EXPECT_EQ(roots::PolynomialRoots((RealVector(3) << 1.0, 2.0, 0.0).finished(), {}).size(), 0);
  EXPECT_EQ(roots::PolynomialRoots((RealVector(3) << 1.0, NAN, 1.0).finished(), {}).size(), 0);
}

}  // namespace
}  // namespace frfcam::stability
