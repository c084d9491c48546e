// Captures for tests: a description to write (width, height, frames, pixel
// format and frames per division file, at a given frame rate), and a bare
// header written byte by byte, for headers the writer would refuse.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "frfmap/capture_writer.h"

namespace frfcam::frfmap {

inline CaptureDesc MakeCapture(std::uint16_t w, std::uint16_t h, std::int32_t frames,
                               std::uint32_t format, std::uint32_t per_file, double fps = 1000.0) {
  CaptureDesc s;
  s.width = w;
  s.height = h;
  s.frames = frames;
  s.fps = fps;
  s.pixel_format = format;
  s.frames_per_file = per_file;
  return s;
}

// Writes a capture whose sample at frame f, pixel p is sample(f, p).
inline void WriteSamples(const std::string& header, const CaptureDesc& desc,
                         std::uint16_t (*sample)(std::int32_t, std::size_t)) {
  const std::size_t pixels = static_cast<std::size_t>(desc.width) * desc.height;
  std::string error;
  EXPECT_TRUE(WriteCapture(
      header, desc,
      [&](std::int32_t f, std::uint16_t* s) {
        for (std::size_t p = 0; p < pixels; ++p) s[p] = sample(f, p);
      },
      &error))
      << error;
}

// What a capture holds for sample s written at pixel p: 8-bit data keeps the
// top eight bits; the last sample of a 12-bit frame with an odd pixel count
// in division files keeps its high byte only.
inline std::uint16_t Stored(const CaptureDesc& desc, std::uint16_t s, std::size_t p) {
  const std::size_t pixels = static_cast<std::size_t>(desc.width) * desc.height;
  const bool lone_high_byte = !desc.single_file && pixels % 2 == 1 && p == pixels - 1;
  return desc.pixel_format != 1 || lone_high_byte ? s & 0xFF0 : s;
}

// A 12-bit header of `size` bytes holding only the geometry fields.
inline void WriteHeader(const std::string& path, std::uint16_t w, std::uint16_t h,
                        std::int32_t frames, std::uint32_t per_file, std::size_t size = 2998) {
  std::vector<std::uint8_t> b(size, 0);
  auto put = [&](std::size_t at, std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i)
      if (at + i < b.size()) b[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
  };
  put(176, w, 2);
  put(178, h, 2);
  put(180, 1, 4);
  put(464, per_file, 4);
  put(468, static_cast<std::uint32_t>(frames), 4);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

}  // namespace frfcam::frfmap
