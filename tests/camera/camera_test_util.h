// Helpers the reader tests share: files written byte for byte, frames
// compared sample by sample, and the one-line refusals every reader owes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "camera/video_source.h"

namespace frfcam::camera::test_util {

// Writes `bytes` to `path`, replacing what was there.
inline void Save(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Reads frame f of `source` and checks every sample against expected(x, y)
// within `tolerance`; stops at the first difference.
inline void ExpectFrame(VideoSource& source, std::int64_t f,
                        const std::function<unsigned(unsigned x, unsigned y)>& expected,
                        unsigned tolerance = 0) {
  const SourceInfo& info = source.info();
  std::vector<std::uint16_t> samples(std::size_t{info.width} * info.height, 0xEEEE);
  std::string error;
  ASSERT_TRUE(source.ReadFrame(f, samples.data(), &error)) << "frame " << f << ": " << error;
  for (unsigned y = 0; y < info.height; ++y) {
    for (unsigned x = 0; x < info.width; ++x) {
      const unsigned got = samples[y * info.width + x], want = expected(x, y);
      ASSERT_LE(got > want ? got - want : want - got, tolerance)
          << "frame " << f << " at " << x << "," << y << ": " << got << " for " << want;
    }
  }
}

// A refusal: one line that holds each of `parts` (the file's name, the fault).
inline void ExpectOneLine(const std::string& error, std::initializer_list<std::string> parts) {
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  for (const std::string& part : parts) EXPECT_NE(error.find(part), std::string::npos) << error;
}

}  // namespace frfcam::camera::test_util
