// One FRF map as the `map` command writes it: the gain (given, or automatic
// from this bin or another) and the 8-bit magnitudes. Shared by `map` and
// the viewer, so that both give the same image for the same request.
#pragma once

#include <complex>
#include <string>
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

// The DFT of a reference signal over `frames` samples (missing samples are
// zero, extra ones ignored), scaled by 1/frames as the cube is: bins
// 0..frames/2.
std::vector<std::complex<double>> ReferenceSpectrum(const std::vector<float>& reference,
                                                    int frames);

// The bin in [first, last] whose mean magnitude over the image (of X, or of
// X/R with `reference_spectrum`) is largest: where a set of maps takes the
// gain they share. With a reference, only bins where it has at least 1 % of
// its largest magnitude count (elsewhere X/R divides by almost nothing).
// Throws CommandError when the cube cannot be read.
int StrongestBin(const std::string& header_path, int first, int last,
                 const std::vector<std::complex<double>>& reference_spectrum);

}  // namespace frfcam::cli
