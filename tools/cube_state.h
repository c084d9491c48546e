// Whether a capture's cube files hold a whole render, and reads of one bin
// plane or one pixel's spectrum straight from them. Shared by the command
// line and the Python package, which must never show a missing or partly
// written cube as data.
#pragma once

#include <complex>
#include <cstdint>
#include <string>

#include "frfmap/capture_header.h"

namespace frfcam {

// True when the cube of the capture at `header_path` (whose header is
// `header`) is complete on disk. Otherwise false, with a one-line reason in
// *why (when given) that names the capture and says what to do.
bool CubeComplete(const std::string& header_path, const frfmap::CaptureHeader& header,
                  std::string* why);

// Copies bin `bin`'s plane (width x height values, raster order) into `out`.
// False with a reason in *error when it cannot be read whole.
bool ReadCubePlane(const std::string& header_path, const frfmap::CaptureHeader& header,
                   std::uint32_t bin, std::complex<float>* out, std::string* error);

// Copies pixel (x, y)'s value at every bin (frames / 2 + 1 values) into
// `out`. False with a reason in *error when a value cannot be read.
bool ReadCubeSpectrum(const std::string& header_path, const frfmap::CaptureHeader& header,
                      std::uint32_t x, std::uint32_t y, std::complex<float>* out,
                      std::string* error);

}  // namespace frfcam
