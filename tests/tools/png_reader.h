// Reading back the RGB PNGs the picture writers make, for the tools' tests.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace frfcam::cli {

struct Png {
  unsigned width = 0, height = 0;
  std::vector<std::uint8_t> rgb;
  std::map<std::string, std::string> text;  // tEXt chunks by keyword
  // Whether the pixel is not a shade of grey.
  bool Coloured(unsigned x, unsigned y) const {
    const std::uint8_t* p = &rgb[3 * (std::size_t{y} * width + x)];
    return p[0] != p[1] || p[1] != p[2];
  }
};

// Reads an 8-bit RGB PNG with its text chunks; false for any other file.
bool ReadPng(const std::string& path, Png* out);

}  // namespace frfcam::cli
