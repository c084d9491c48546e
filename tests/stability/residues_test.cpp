#include "stability/residues.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <stdexcept>
#include <vector>

namespace frfcam::stability {
namespace {

using cd = std::complex<double>;
constexpr double kTwoPi = 2.0 * std::numbers::pi;

struct Mode {
  double hz;
  double zeta;
  cd residue;
};

// The modal model written out independently of the fit: the denominator in
// its (iw)^2 + 2 zeta w_r (iw) + w_r^2 form.
struct Truth {
  std::vector<Mode> modes;
  cd upper{0.0, 0.0};
  cd lower{0.0, 0.0};

  cd At(double w) const {
    const cd iw(0.0, w);
    cd h = upper;
    for (const Mode& m : modes) {
      const double wr = kTwoPi * m.hz;
      h += m.residue / (iw * iw + 2.0 * m.zeta * wr * iw + wr * wr);
    }
    if (w != 0.0) h += lower / (iw * iw);
    return h;
  }
  RealVector Hz() const {
    RealVector v(static_cast<Eigen::Index>(modes.size()));
    for (std::size_t r = 0; r < modes.size(); ++r) v[static_cast<Eigen::Index>(r)] = modes[r].hz;
    return v;
  }
  RealVector Zeta() const {
    RealVector v(static_cast<Eigen::Index>(modes.size()));
    for (std::size_t r = 0; r < modes.size(); ++r) {
      v[static_cast<Eigen::Index>(r)] = modes[r].zeta;
    }
    return v;
  }
};

RealVector Omega(double fromHz, double toHz, int lines) {
  return kTwoPi * RealVector::LinSpaced(lines, fromHz, toHz);
}

ComplexVector Sample(const Truth& truth, const RealVector& omega) {
  ComplexVector h(omega.size());
  for (Eigen::Index i = 0; i < omega.size(); ++i) h[i] = truth.At(omega[i]);
  return h;
}

// |a - b| <= tol * |b|, with a floor for values that should be zero.
void ExpectNear(cd actual, cd expected, double tol, double floor, const char* what) {
  EXPECT_LE(std::abs(actual - expected), tol * std::max(std::abs(expected), floor))
      << what << ": got " << actual << ", expected " << expected;
}

// Three modes with mode-shape-like residues (scaled by w_r^2, as real
// structures give) and both residual terms.
Truth ThreeModes() {
  Truth t;
  t.modes = {{62.0, 0.02, cd(0.8, -0.1) * std::pow(kTwoPi * 62.0, 2)},
             {145.0, 0.012, cd(-0.5, 0.3) * std::pow(kTwoPi * 145.0, 2)},
             {310.0, 0.03, cd(1.2, 0.05) * std::pow(kTwoPi * 310.0, 2)}};
  t.upper = cd(0.04, -0.01);
  t.lower = cd(-3.0e3, 500.0);
  return t;
}

TEST(ResidueFit, RecoversResiduesAndResidualTermsOfExactData) {
  const Truth truth = ThreeModes();
  const RealVector omega = Omega(20.0, 400.0, 2000);
  const ComplexVector frf = Sample(truth, omega);

  const ResidueFit fit = FitResidues(omega, frf, truth.Hz(), truth.Zeta());
  ASSERT_EQ(fit.residues.size(), 3);
  for (std::size_t r = 0; r < truth.modes.size(); ++r) {
    ExpectNear(fit.residues[static_cast<Eigen::Index>(r)], truth.modes[r].residue, 1e-6, 0.0,
               "residue");
  }
  ExpectNear(fit.upperResidual, truth.upper, 1e-6, 0.0, "upper residual");
  ExpectNear(fit.lowerResidual, truth.lower, 1e-6, 0.0, "lower residual");
  ASSERT_EQ(fit.synthesised.size(), frf.size());
  EXPECT_LE((fit.synthesised - frf).norm(), 1e-9 * frf.norm());
}

TEST(ResidueFit, CloselySpacedModesAgreeWithAQrSolution) {
  // Two heavily overlapping modes make the columns nearly dependent; the
  // coefficients must still be those of a QR least-squares solve.
  Truth truth;
  truth.modes = {{100.0, 0.05, cd(1.0, 0.2) * 4e5},
                 {100.2, 0.05, cd(-0.7, 0.1) * 4e5},
                 {180.0, 0.01, cd(0.5, 0.0) * 1.3e6}};
  truth.upper = cd(0.01, 0.0);
  truth.lower = cd(100.0, 0.0);
  const RealVector omega = Omega(30.0, 300.0, 1200);
  ComplexVector frf = Sample(truth, omega);
  for (Eigen::Index i = 0; i < frf.size(); ++i) frf[i] += 0.05 * cd(std::cos(0.9 * i), 0.0);

  ComplexMatrix design(omega.size(), 5);
  for (std::size_t r = 0; r < 3; ++r) {
    Truth single;
    single.modes = {{truth.modes[r].hz, truth.modes[r].zeta, 1.0}};
    design.col(static_cast<Eigen::Index>(r)) = Sample(single, omega);
  }
  design.col(3).setOnes();
  design.col(4) = (-omega.cwiseAbs2().cwiseInverse()).cast<cd>();
  const ComplexVector reference = design.householderQr().solve(frf);

  const ResidueFit fit = FitResidues(omega, frf, truth.Hz(), truth.Zeta());
  for (Eigen::Index r = 0; r < 3; ++r) {
    ExpectNear(fit.residues[r], reference[r], 1e-8, 0.0, "residue");
  }
  ExpectNear(fit.upperResidual, reference[3], 1e-8, 0.0, "upper residual");
  ExpectNear(fit.lowerResidual, reference[4], 1e-7, 0.0, "lower residual");
}

TEST(ResidueFit, ConstantOffsetIsTheUpperResidual) {
  const Truth truth = ThreeModes();
  const RealVector omega = Omega(20.0, 400.0, 800);
  const ComplexVector frf = ComplexVector::Constant(omega.size(), cd(2.5, -1.5));
  const ResidueFit fit = FitResidues(omega, frf, truth.Hz(), truth.Zeta());
  ExpectNear(fit.upperResidual, cd(2.5, -1.5), 1e-9, 0.0, "upper residual");
  EXPECT_LE(std::abs(fit.lowerResidual), 1e-6);
  EXPECT_LE(fit.residues.norm(), 1e-6);
}

TEST(ResidueFit, WithoutModesFitsTheResidualTermsAlone) {
  Truth truth;
  truth.upper = cd(0.3, 0.1);
  truth.lower = cd(-50.0, 20.0);
  const RealVector omega = Omega(5.0, 100.0, 300);
  const ResidueFit fit = FitResidues(omega, Sample(truth, omega), RealVector(), RealVector());
  EXPECT_EQ(fit.residues.size(), 0);
  ExpectNear(fit.upperResidual, truth.upper, 1e-9, 0.0, "upper residual");
  ExpectNear(fit.lowerResidual, truth.lower, 1e-9, 0.0, "lower residual");
}

TEST(ResidueFit, LineAtZeroFrequencyIsLeftOutOfTheFit) {
  const Truth truth = ThreeModes();
  const RealVector omega = Omega(0.0, 400.0, 2001);
  ComplexVector frf = Sample(truth, omega);
  frf[0] = cd(1e6, 1e6);  // whatever was measured at DC must not pull the fit
  const ResidueFit fit = FitResidues(omega, frf, truth.Hz(), truth.Zeta());
  for (std::size_t r = 0; r < truth.modes.size(); ++r) {
    ExpectNear(fit.residues[static_cast<Eigen::Index>(r)], truth.modes[r].residue, 1e-6, 0.0,
               "residue");
  }
  ExpectNear(fit.lowerResidual, truth.lower, 1e-6, 0.0, "lower residual");
  // At DC the model is reported without the lower residual term.
  Truth withoutLower = truth;
  withoutLower.lower = 0.0;
  ExpectNear(fit.synthesised[0], withoutLower.At(0.0), 1e-6, 1e-3, "synthesised at DC");
  EXPECT_TRUE(fit.synthesised.allFinite());
}

TEST(ResidueFit, RepeatedModeStillSynthesisesTheData) {
  // The same mode twice makes the system singular; the fit must stay finite,
  // split the residue between the two copies and reproduce the data.
  Truth truth = ThreeModes();
  const RealVector omega = Omega(20.0, 400.0, 1000);
  const ComplexVector frf = Sample(truth, omega);
  RealVector hz = truth.Hz();
  RealVector zeta = truth.Zeta();
  hz.conservativeResize(4);
  zeta.conservativeResize(4);
  hz[3] = hz[1];
  zeta[3] = zeta[1];
  const ResidueFit fit = FitResidues(omega, frf, hz, zeta);
  ASSERT_TRUE(fit.residues.allFinite());
  ExpectNear(fit.residues[1] + fit.residues[3], truth.modes[1].residue, 1e-6, 0.0, "split residue");
  EXPECT_LE((fit.synthesised - frf).norm(), 1e-8 * frf.norm());
}

TEST(ResidueFit, MismatchedSizesAreRejected) {
  const RealVector omega = Omega(1.0, 2.0, 10);
  EXPECT_THROW(FitResidues(omega, ComplexVector::Zero(9), RealVector(), RealVector()),
               std::invalid_argument);
  EXPECT_THROW(
      FitResidues(omega, ComplexVector::Zero(10), RealVector::Ones(2), RealVector::Ones(1)),
      std::invalid_argument);
}

}  // namespace
}  // namespace frfcam::stability
