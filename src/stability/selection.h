// Stable pole selection: which of the per-order stable poles are taken as the
// physical modes of the structure.
#pragma once

#include <vector>

#include "stability/estimator.h"

namespace frfcam::stability {

// The kept poles, element j of both vectors describing the j-th kept pole.
struct SelectedPoles {
  RealVector damping;
  RealVector frequency;
};

// Walks the orders from the highest down and, within an order, the poles in
// the order given. A pole of frequency f is dropped as a duplicate when some
// already kept frequency g has tolerance > |f - g| / g; otherwise it is kept
// when its frequency recurs (tolerance > |f - h| / f for some h) in enough
// lower orders that, with its own, at least `minStableCount` orders hold it.
// Each lower order counts once. All comparisons are strict, so a relative
// difference equal to the tolerance is no match.
//
// `frequencyByOrder[k]` and `dampingByOrder[k]` describe the same poles of
// one order; the lists must have the same shape (std::invalid_argument
// otherwise). Damping is carried along, never compared.
SelectedPoles SelectStablePoles(const std::vector<RealVector>& frequencyByOrder,
                                const std::vector<RealVector>& dampingByOrder, double tolerance,
                                int minStableCount);

}  // namespace frfcam::stability
