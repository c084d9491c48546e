// A capture description for tests: width, height, frames, pixel format and
// frames per division file, at a given frame rate.
#pragma once

#include "frfmap/capture_writer.h"

namespace frfcam::frfmap {

inline CaptureSpec MakeCapture(std::uint16_t w, std::uint16_t h, std::int32_t frames,
                               std::uint32_t format, std::uint32_t per_file, double fps = 1000.0) {
  CaptureSpec s;
  s.width = w;
  s.height = h;
  s.frames = frames;
  s.fps = fps;
  s.pixel_format = format;
  s.frames_per_file = per_file;
  return s;
}

}  // namespace frfcam::frfmap
