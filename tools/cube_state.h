// Reads of one bin plane or one pixel's spectrum straight from a capture's
// cube files, shared by the command line and the Python package; both check
// the cube first (frfmap/cube_check.h).
#pragma once

#include <complex>
#include <cstdint>
#include <string>

#include "frfmap/capture_header.h"

namespace frfcam {

// Whether every frame data file of the capture is there (the division
// files, or the single file); false with the first missing path in *missing.
bool FrameDataPresent(const std::string& header_path, const frfmap::CaptureHeader& header,
                      std::string* missing);

// Copies bin `bin`'s plane (width x height values, raster order) into `out`.
// False with a reason in *error when it cannot be read whole.
bool ReadCubePlane(const std::string& header_path, const frfmap::CaptureHeader& header,
                   std::uint32_t bin, std::complex<float>* out, std::string* error);

// Copies pixel (x, y)'s value at every bin (frames / 2 + 1 values) into
// `out`. False with a reason in *error when a value cannot be read.
bool ReadCubeSpectrum(const std::string& header_path, const frfmap::CaptureHeader& header,
                      std::uint32_t x, std::uint32_t y, std::complex<float>* out,
                      std::string* error);

// The mean magnitude, at every bin, of the pixels of the rectangle
// [x0, x1) x [y0, y1) on a grid of at most `side` x `side` of them (all of a
// small rectangle, evenly spread over a large one). With `divide_by`, each
// value is divided by divide_by[bin] first. Writes frames / 2 + 1 values to
// `out` and the pixels used to *pixels. False with a reason in *error when
// the rectangle is empty or outside the image, or the cube cannot be read.
bool ReadCubeMeanMagnitude(const std::string& header_path, const frfmap::CaptureHeader& header,
                           std::uint32_t x0, std::uint32_t y0, std::uint32_t x1, std::uint32_t y1,
                           unsigned side, const std::complex<double>* divide_by, double* out,
                           unsigned* pixels, std::string* error);

}  // namespace frfcam
