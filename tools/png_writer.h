// PNG output: grayscale FRF maps and RGB charts and mode shapes.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace frfcam::cli {

using PngText = std::vector<std::pair<std::string, std::string>>;

// The PNG file's bytes of an 8-bit grayscale image, exactly what
// WriteGrayPng writes (so that a served map equals a written one); throws
// CommandError when libpng fails.
std::string GrayPng(const std::uint8_t* pixels, unsigned width, unsigned height);

// The PNG file's bytes of an 8-bit RGB image (3 bytes a pixel), for
// embedding in a figure; throws CommandError when libpng fails.
std::string RgbPng(const std::uint8_t* rgb, unsigned width, unsigned height);

// Writes an 8-bit grayscale image of width x height bytes (raster order);
// throws CommandError on failure.
void WriteGrayPng(const std::string& path, const std::uint8_t* pixels, unsigned width,
                  unsigned height);

// An 8-bit RGB PNG of width x height pixels (3 bytes each, raster order)
// with tEXt chunks (keyword, text; keywords of 1-79 Latin-1 characters).
// Throws CommandError on failure.
void WriteRgbPng(const std::string& path, const std::uint8_t* rgb, unsigned width, unsigned height,
                 const PngText& text);

}  // namespace frfcam::cli
