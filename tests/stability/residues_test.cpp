#include "stability/residues.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include "stability/synthetic.h"

namespace frfcam::stability {
namespace {

using cd = std::complex<double>;
constexpr double kTwoPi = 2.0 * std::numbers::pi;

struct Mode {
  double hz;
  double zeta;
  cd residue;
};

// The modal model written out independently of the fit and of the generator:
// each mode as first-order partial fractions over its conjugate pole pair.
struct Truth {
  std::vector<Mode> modes;
  cd upper{0.0, 0.0};
  cd lower{0.0, 0.0};

  cd At(double w) const {
    const cd iw(0.0, w);
    cd h = upper;
    for (const Mode& m : modes) {
      const double wr = kTwoPi * m.hz;
      const cd p(-m.zeta * wr, wr * std::sqrt(1.0 - m.zeta * m.zeta));
      h += m.residue / ((iw - p) * (iw - std::conj(p)));
    }
    if (w != 0.0) h += lower / (iw * iw);
    return h;
  }
  ComplexVector Sample(const RealVector& omega) const {
    return omega.unaryExpr([this](double w) { return At(w); });
  }
  RealVector Of(double Mode::*field) const {
    return RealVector::NullaryExpr(static_cast<Eigen::Index>(modes.size()),
                                   [&](Eigen::Index r) { return modes[r].*field; });
  }
};

RealVector Omega(double fromHz, double toHz, int lines) {
  return kTwoPi * RealVector::LinSpaced(lines, fromHz, toHz);
}

// |actual - expected| <= tol * max(|expected|, floor).
void ExpectNear(cd actual, cd expected, double tol, const char* what, double floor = 0.0) {
  EXPECT_LE(std::abs(actual - expected), tol * std::max(std::abs(expected), floor))
      << what << ": got " << actual << ", expected " << expected;
}

// Three modes with residues scaled by w_r^2, as real structures give, and
// both residual terms.
Truth ThreeModes() {
  const auto scaled = [](double hz, cd shape) { return shape * std::pow(kTwoPi * hz, 2); };
  return {{{62.0, 0.02, scaled(62.0, {0.8, -0.1})},
           {145.0, 0.012, scaled(145.0, {-0.5, 0.3})},
           {310.0, 0.03, scaled(310.0, {1.2, 0.05})}},
          {0.04, -0.01},
          {-3.0e3, 500.0}};
}

// Exact data are reproduced, with or without modes. At w = 0 the lower
// residual term is undefined: that line takes no part in the fit, and the
// model there is reported without the term.
TEST(ResidueFit, RecoversTheModelOfExactData) {
  const Truth residualsOnly{{}, {0.3, 0.1}, {-50.0, 20.0}};
  for (const auto& [truth, omega] : {std::pair{ThreeModes(), Omega(0.0, 400.0, 2001)},
                                     std::pair{residualsOnly, Omega(5.0, 100.0, 300)}}) {
    ComplexVector frf = truth.Sample(omega);
    if (omega[0] == 0.0) frf[0] = cd(1e6, 1e6);
    const ResidueFit fit = FitResidues(omega, frf, truth.Of(&Mode::hz), truth.Of(&Mode::zeta));
    ASSERT_EQ(fit.residues.size(), static_cast<Eigen::Index>(truth.modes.size()));
    for (std::size_t r = 0; r < truth.modes.size(); ++r) {
      ExpectNear(fit.residues[r], truth.modes[r].residue, 1e-6, "residue");
    }
    ExpectNear(fit.upperResidual, truth.upper, 1e-6, "upper residual");
    ExpectNear(fit.lowerResidual, truth.lower, 1e-6, "lower residual");
    ASSERT_EQ(fit.synthesised.size(), frf.size());
    const Eigen::Index n = frf.size() - 1;
    EXPECT_LE((fit.synthesised.tail(n) - frf.tail(n)).norm(), 1e-9 * frf.tail(n).norm());
    ExpectNear(fit.synthesised[0], truth.At(omega[0]), 1e-6, "first line", 1e-3);
  }
}

// Selection with tolerance 0 can pass the same mode twice: the fit must stay
// finite, split the residue between the copies and reproduce the data.
TEST(ResidueFit, RepeatedModeStillSynthesisesTheData) {
  Truth truth = ThreeModes();
  const RealVector omega = Omega(20.0, 400.0, 1000);
  const ComplexVector frf = truth.Sample(omega);
  truth.modes.push_back(truth.modes[1]);
  const ResidueFit fit = FitResidues(omega, frf, truth.Of(&Mode::hz), truth.Of(&Mode::zeta));
  ASSERT_TRUE(fit.residues.allFinite());
  ExpectNear(fit.residues[1] + fit.residues[3], truth.modes[1].residue, 1e-6, "split residue");
  EXPECT_LE((fit.synthesised - frf).norm(), 1e-8 * frf.norm());
}

}  // namespace
}  // namespace frfcam::stability
