// Residues and residual terms of a modal model with fixed poles, fitted to
// one measured FRF, and the FRF that model synthesises.
#pragma once

#include <complex>

#include "stability/estimator.h"

namespace frfcam::stability {

// The fitted model
//   h(w) = sum_r R_r / (w_r^2 - w^2 + 2i z_r w_r w) + UR + LR / (iw)^2
// with w_r = 2 pi f_r; `residues` holds the R_r in the order of the modes.
struct ResidueFit {
  ComplexVector synthesised;  // the model at every line
  std::complex<double> upperResidual;
  std::complex<double> lowerResidual;
  ComplexVector residues;
};

// Least-squares fit of the complex R_r, UR and LR to `frf`.
// omega: angular frequency of each line (rad/s); frf: one value per line;
// modeFrequencyHz / modeDamping: natural frequency (Hz) and damping ratio of
// each mode, same length.
//
// Lines where the model or the data is not finite take no part in the fit;
// at w = 0 in particular the lower residual term is undefined, and the
// synthesised value there leaves that term out. Sizes that do not match throw
// std::invalid_argument.
ResidueFit FitResidues(const RealVector& omega, const ComplexVector& frf,
                       const RealVector& modeFrequencyHz, const RealVector& modeDamping);

}  // namespace frfcam::stability
