// Recordings as a high-speed camera writes them: a CIH text header and an
// MRAW file of frames beside it (8-bit, 12-bit packed or 16-bit mono), the
// layout the MRAW reader reads. For demonstrations and benchmarks of the
// import, and for making test recordings of our own scenes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace frfcam::camera {

struct MrawSetup {
  unsigned width = 0, height = 0;
  std::int64_t frames = 0;
  double fps = 0.0;
  int bits = 12;  // stored bits per pixel: 8, 12 (packed) or 16
};

// Fills frame f with width x height codes below 2^bits, raster order.
using MrawFrames = std::function<void(std::int64_t f, std::uint16_t* codes)>;

// Writes NAME.mraw and then `cihPath` (NAME.cih), so that an interrupted
// write leaves no header. 12-bit codes go two pixels to three bytes, a
// big-endian bit stream running on across frames; 16-bit codes as
// little-endian words. False with one line in *error.
bool WriteMraw(const std::string& cihPath, const MrawSetup& setup, const MrawFrames& frames,
               std::string* error);

}  // namespace frfcam::camera
