// Bending shapes of a clamped-free (cantilever) beam, shared by the scenes
// that vibrate like one.
#pragma once

namespace frfcam::frfmap {

// Shape of bending mode `mode` (1, 2, ...) at u in [0, 1] along the beam from
// the clamp: 0 with zero slope at u = 0, and +-1 at the free end, with the
// sign (-1)^(mode + 1).
double CantileverShape(int mode, double u);

}  // namespace frfcam::frfmap
