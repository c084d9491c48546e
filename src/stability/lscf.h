// The building blocks of the estimator, exposed for its tests and benchmark:
// the z-domain basis, the common-denominator fit of every order, the fitted
// model of one FRF, the poles of a denominator, and the classification of an
// order's poles against the previous order.
#pragma once

#include <vector>

#include "stability/estimator.h"

namespace frfcam::stability::lscf {

// The band of the lines and its mapping onto half of the unit circle.
struct Band {
  double fMin = 0.0;  // Hz
  double fMax = 0.0;  // Hz
  double dt = 0.0;    // 1 / (2 (fMax - fMin)), seconds
};
// NaN values for an empty frequency vector; dt is infinite when all lines
// share one frequency (every later quantity is then NaN and no pole results).
Band BandOf(const RealVector& angularFrequencies);

// 2 pi (fHz - fMin) per line, rad/s.
RealVector ShiftedOmega(const RealVector& angularFrequencies, const Band& band);

// lines x (maxPower + 1): column j holds z^j = exp(i j omegaShifted dt).
ComplexMatrix BuildBasis(const RealVector& omegaShifted, double dt, int maxPower);

// The highest order whose fit the lines can determine, from a count of real
// equations and unknowns: with D = 2 x (distinct line frequencies strictly
// inside the band) + (1 for a line at each end of the band) and C channels,
// order n needs n + 1 numerator coefficients per channel and n denominator
// coefficients, so it is determined when C (D - n - 1) >= n. Lines with a
// weight of 0 do not count. 0 when nothing can be fitted.
int HighestDeterminedOrder(const RealVector& angularFrequencies, const Band& band,
                           const RealVector* lineWeights, Eigen::Index numChannels);

// The real denominator coefficients (power z^0 first, the coefficient of
// z^n fixed to 1) of every order n = nMin..nMax, entry n - nMin, from the
// least-squares fit of the common-denominator model to the columns of
// `channels` (lines x channels, read in place), then `extraChannel` when
// given. `lineWeights` (one per line, >= 0; unity when null) weight each
// line's squared error; a line of weight 0 takes no part, and the extra
// channel may hold anything there. `basis` must have at least nMax + 1
// columns and as many rows as `channels`; 0 <= nMin <= nMax. Orders whose
// normal equations cannot be formed (fewer independent lines than numerator
// coefficients) or are singular get non-finite coefficients. Order 0 is the
// constant polynomial 1.
//
// The normal-equation blocks are Toeplitz in this basis, so they are built
// from 2 nMax + 1 sums per channel, and every order reuses the leading
// blocks of one Cholesky factorisation. Channels are processed in parallel,
// in groups whose working matrices (nMax^2 doubles per channel) take at most
// 64 MiB and at most a quarter of the channels' own size; when there is more
// than one group, nMax^3 doubles more hold the per-row sums. Besides,
// 3 x channels x nMax doubles of sums and lines x nMax of weighted basis.
std::vector<RealVector> FitDenominators(const ComplexMatrix& basis,
                                        Eigen::Ref<const ComplexMatrix> channels, int nMin,
                                        int nMax, const ComplexVector* extraChannel = nullptr,
                                        const RealVector* lineWeights = nullptr);

// The fitted model of one FRF for a given denominator (degree n = size - 1):
// the numerator that the least-squares fit pairs with that denominator,
// divided by the denominator, at every line. Lines where `frf` is not
// finite take no part in the numerator's fit. Non-finite when the
// denominator is, or when the numerator's equations are singular.
ComplexVector FittedModel(const ComplexMatrix& basis, const ComplexVector& frf,
                          const RealVector& denominator);

// Continuous-time poles s = ln(z) / dt of the roots z of the denominator
// (the companion matrix's eigenvalues), kept when Re(s) < 0 and Im(s) > 0,
// in the order of the eigenvalue solver. Empty for non-finite coefficients
// or a solver that does not converge.
ComplexVector DenominatorPoles(const RealVector& denominator, double dt);
// The same for roots found otherwise, kept in their given order.
ComplexVector PolesOfRoots(const ComplexVector& roots, double dt);

// Poles of one order sorted by natural frequency: f in Hz (including the
// band offset fMin), damping ratios element for element.
struct SortedPoles {
  RealVector frequency;
  RealVector damping;
};
SortedPoles SortPoles(const ComplexVector& poles, double fMin);

// Indices 0..n-1 stably sorted by ascending value (equal values keep their
// order); `values` must hold no NaN.
std::vector<int> StableSortPermutation(const RealVector& values);
// Element i of the result is values[permutation[i]].
RealVector Gather(const RealVector& values, const std::vector<int>& permutation);

// The poles of one order in each stability class, frequencies in Hz; sDamping
// holds the damping ratios of the `s` poles element for element.
struct OrderClasses {
  std::vector<double> s, f, d, o, sDamping;
};
// Classifies each pole strictly inside (fMin, fMax) against the reference
// pole nearest in relative frequency (the first on ties), comparing damping
// with that same pole; differences are relative to the current pole's own
// values. A comparison with NaN puts the pole in no class. With an empty
// reference every in-band pole is in class `o`.
OrderClasses ClassifyOrder(const SortedPoles& current, const SortedPoles& reference, double fMin,
                           double fMax, double frequencyTolerance, double dampingTolerance);

}  // namespace frfcam::stability::lscf
