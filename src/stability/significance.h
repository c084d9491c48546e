// Automatic mode selection for users: the exact stable-pole rule followed by
// a significance filter that drops the poles the data do not need.
//
// The exact rule (SelectStablePoles) keeps every pole that recurs in enough
// orders. Over many orders a least-squares fit also produces poles that
// model noise or split one mode in two, and some of them recur as faithfully
// as the physical ones. ComputeStability keeps the exact rule; the command
// line, the Python package and the modes pipeline call SelectModes instead.
//
// The filter, in order:
//  1. Physical poles only: 0 < damping <= maxDamping, and the frequency
//     strictly inside the band of the lines.
//  2. Backward elimination by significance. With all remaining poles fixed,
//     residues and the two residual terms are fitted to every channel (least
//     squares, the model of FitResidues). A pole's significance is how much
//     the residual energy, summed over channels and lines, grows when that
//     pole is left out and the others are refitted, divided by the residual
//     energy of the full fit per line. A pole that only fits noise reduces
//     the residual by about one line's worth of noise (significance ~ 1); a
//     physical mode by the energy of its whole resonance. The least
//     significant pole below `minSignificance` is dropped and the rest are
//     refitted, until every pole passes. Of two poles that split one mode,
//     each can stand in for the other, so one goes and the other then
//     carries the mode.
#pragma once

#include <vector>

#include "stability/estimator.h"
#include "stability/selection.h"

namespace frfcam::stability {

// The settings of an automatic selection, with the defaults that pick the
// true modes and no others on the synthetic systems of the tests.
struct SelectionSettings {
  int minOrder = 2;
  int maxOrder = 60;
  // Classification between orders (the estimator's tolerances).
  double frequencyTolerance = 0.01;
  double dampingTolerance = 0.05;
  // The exact rule.
  double selectionTolerance = 0.01;
  int minStableCount = 5;
  // The significance filter.
  double maxDamping = 0.2;
  double minSignificance = 50.0;
};

// What the filter made of each candidate of the exact rule.
struct PoleVerdict {
  double frequency = 0.0;  // Hz
  double damping = 0.0;
  double significance = 0.0;  // 0 for poles dropped by the physical test
  bool kept = false;
};

// The filter alone. `candidates` are poles (Hz, ratio); `omega` the angular
// frequency of each line (rad/s); `channels` lines x channels FRFs. Returns
// the kept poles in increasing frequency. `verdicts`, when given, receives
// one entry per candidate in increasing frequency. Non-finite data lines take
// no part. Throws std::invalid_argument when the sizes do not match.
SelectedPoles FilterSignificantPoles(const SelectedPoles& candidates, const RealVector& omega,
                                     const ComplexMatrix& channels,
                                     const SelectionSettings& settings,
                                     std::vector<PoleVerdict>* verdicts = nullptr);

// The exact rule on an estimation's stable poles, then the filter.
SelectedPoles SelectModes(const EstimationResult& estimation, const RealVector& omega,
                          const ComplexMatrix& channels, const SelectionSettings& settings,
                          std::vector<PoleVerdict>* verdicts = nullptr);

// The columns of the modal model at every line (lines x (modes + 2)): one
// per mode, 1 / (w_r^2 - w^2 + 2i z_r w_r w), then the upper residual (1)
// and the lower residual (1 / (iw)^2, 0 at w = 0). The design matrix of the
// per-channel residue fits, shared with the modes pipeline.
ComplexMatrix ModalDesignMatrix(const RealVector& omega, const RealVector& frequencyHz,
                                const RealVector& damping);

}  // namespace frfcam::stability
