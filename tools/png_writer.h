// Grayscale PNG output for FRF maps.
#pragma once

#include <cstdint>
#include <string>

namespace frfcam::cli {

// Writes an 8-bit grayscale image of width x height bytes (raster order);
// throws CommandError on failure.
void WriteGrayPng(const std::string& path, const std::uint8_t* pixels, unsigned width,
                  unsigned height);

}  // namespace frfcam::cli
