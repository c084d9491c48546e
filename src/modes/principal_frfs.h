// Coherent compression of many noisy channels into a few principal ones.
//
// The spectra of thousands of pixels or windows of one structure are
// linear combinations of a few modal responses: the lines x channels
// matrix Y has a handful of large singular values above a floor of noise.
// Its leading left singular vectors, scaled by their singular values
// (Y V_q), are spectra with the same poles as every channel, in which the
// channels' signal adds up while their noise does not. The pole fit runs on
// these instead of on the channels one by one.
//
// The channels are expected whitened: unit noise variance per line in each
// channel. Then the noise's singular values lie below about sqrt(lines) +
// sqrt(channels), and components clearly above that are kept.
#pragma once

#include <Eigen/Dense>
#include <cstdint>

namespace frfcam::modes {

struct PrincipalSpectra {
  Eigen::MatrixXcd spectra;        // lines x kept, Y V_q
  Eigen::VectorXd singularValues;  // the leading ones computed, decreasing
  double noiseFloor = 0.0;         // sqrt(lines) + sqrt(channels)
};

// The leading components of y (lines x channels) by a randomised range
// finder with power iterations (deterministic for a given seed). Keeps the
// components whose singular value exceeds `floorFactor` times the noise
// floor, at least one and at most `maxComponents`.
PrincipalSpectra LeadingComponents(const Eigen::MatrixXcf& y, int maxComponents, double floorFactor,
                                   std::uint64_t seed = 1);

}  // namespace frfcam::modes
