// One FRF map as the `map` command writes it: the gain (given, or automatic
// from this bin or another) and the 8-bit magnitudes. Shared by `map` and
// the viewer, so that both give the same image for the same request.
#pragma once

#include <vector>

#include "frfcam/frfcam.h"

namespace frfcam::cli {

struct MapImage {
  float gain = 0.0f;
  std::vector<unsigned char> pixels;  // width x height, raster order
};

// The gain that maps the 99.5th percentile of a bin's (referenced)
// magnitudes to 255: unit gain first, then scaled until that percentile
// lies in 128..254. Throws CommandError when the bin cannot be read.
float AutomaticGain(::FrfMapCalcs* c, int bin, unsigned width, unsigned height);

// Bin `bin` of the cube open on `c` at `gain`; gain 0 takes the automatic
// gain of `gain_from` (of `bin` itself when negative). Throws CommandError
// when the cube cannot be read.
MapImage ComputeMap(::FrfMapCalcs* c, int bin, float gain, int gain_from, unsigned width,
                    unsigned height);

}  // namespace frfcam::cli
