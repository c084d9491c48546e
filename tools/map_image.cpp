#include "map_image.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "commands.h"

namespace frfcam::cli {

float AutomaticGain(::FrfMapCalcs* c, int bin, unsigned width, unsigned height) {
  std::vector<unsigned char> probe(static_cast<std::size_t>(width) * height);
  float g = 1.0f;
  for (int round = 0; round < 8; ++round) {
    if (ReadFRFMap(c, bin, g, probe.data()) != 0) {
      throw CommandError("cannot read bin " + std::to_string(bin) + " from the cube files");
    }
    std::vector<unsigned char> sorted(probe);
    const std::size_t at = sorted.size() * 995 / 1000;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(at),
                     sorted.end());
    const int v = sorted[at];
    if (v >= 128 && v < 255) return g * 255.0f / static_cast<float>(v);
    g *= v == 0 ? 256.0f : (v == 255 ? 1.0f / 16.0f : 200.0f / static_cast<float>(v));
    if (!std::isfinite(g) || g == 0.0f) break;
  }
  // An all-zero (or all-saturated) bin keeps the last gain that was tried.
  return std::isfinite(g) && g > 0.0f ? g : 1.0f;
}

MapImage ComputeMap(::FrfMapCalcs* c, int bin, float gain, int gain_from, unsigned width,
                    unsigned height) {
  MapImage image;
  image.gain =
      gain != 0.0f ? gain : AutomaticGain(c, gain_from >= 0 ? gain_from : bin, width, height);
  image.pixels.resize(static_cast<std::size_t>(width) * height);
  if (ReadFRFMap(c, bin, image.gain, image.pixels.data()) != 0) {
    throw CommandError("cannot read bin " + std::to_string(bin) +
                       " from the cube files (render the capture again)");
  }
  return image;
}

}  // namespace frfcam::cli
