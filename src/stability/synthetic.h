// Frequency response functions of a known modal system, for tests, benchmarks
// and the synth-frf command: every FRF is a sum of second-order modal terms
//
//   H_c(w) = sum_r R_cr / ((iw)^2 + 2 zeta_r w_r (iw) + w_r^2)  [+ UR + LR / (iw)^2]
//
// with w_r = 2 pi frequencyHz_r, optionally with deterministic complex noise.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "stability/estimator.h"

namespace frfcam::stability {

struct SyntheticMode {
  double frequencyHz = 0.0;  // undamped natural frequency
  double damping = 0.0;      // damping ratio (0.01 = 1 %)
};

struct SyntheticSystem {
  std::vector<SyntheticMode> modes;
  double fMinHz = 0.0;  // first line
  double fMaxHz = 0.0;  // last line; lines are evenly spaced from fMinHz to fMaxHz
  int numLines = 0;
  int numChannels = 1;
  // Relative noise level: complex Gaussian noise whose standard deviation
  // (of the complex value) is `noise` times the RMS magnitude of the
  // noise-free channel. 0.002 is 0.2 %.
  double noise = 0.0;
  std::uint32_t seed = 1;  // same seed, same noise
  // Residual terms added to channel 0 (and so to the single FRF): a constant
  // for modes above the band and LR / (iw)^2 for modes below it (not finite
  // at a 0 Hz line when LR is non-zero).
  std::complex<double> upperResidual{0.0, 0.0};
  std::complex<double> lowerResidual{0.0, 0.0};
};

struct SyntheticFrfs {
  RealVector omega;      // angular frequency of each line, rad/s
  ComplexVector frf;     // the single FRF: a copy of channel 0 (all zeros without channels)
  ComplexMatrix matrix;  // numLines x numChannels, column c = channel c
  // residues[c][r]: the numerator R_cr of mode r in channel c.
  std::vector<std::vector<std::complex<double>>> residues;
  std::complex<double> upperResidual{0.0, 0.0};  // as applied to channel 0
  std::complex<double> lowerResidual{0.0, 0.0};
};

// Builds the FRFs. Residues differ per channel like samples of mode shapes
// (deterministic, never close to zero) and are scaled by w_r^2 so that every
// mode peaks at roughly 1 / (2 zeta_r) times its shape value. Throws
// std::invalid_argument for negative counts, a reversed or non-finite band,
// a non-positive mode frequency, negative damping or noise.
SyntheticFrfs SynthesizeFrfs(const SyntheticSystem& system);

// The continuous-time pole of a mode in the upper half plane:
// -zeta w + i w sqrt(1 - zeta^2), w = 2 pi frequencyHz.
std::complex<double> ModePole(const SyntheticMode& mode);

// Five well-separated modes with 1-2.5 % damping between 20 and 480 Hz (band
// 10-500 Hz), used by the benchmark and as a realistic default elsewhere.
SyntheticSystem DefaultFiveModeSystem(int numLines = 4000, int numChannels = 16,
                                      double noise = 0.002);

}  // namespace frfcam::stability
