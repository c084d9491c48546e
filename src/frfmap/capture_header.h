// The capture header: the first 2998 bytes of a capture's header file, kept
// whole, with the fields the library interprets and the sizes derived from
// them.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "frfmap/capture_format.h"

namespace frfcam::frfmap {

struct CaptureHeader {
  std::array<std::uint8_t, format::kHeaderSize> bytes{};

  std::uint16_t width() const { return format::LoadU16(&bytes[format::kWidthOffset]); }
  std::uint16_t height() const { return format::LoadU16(&bytes[format::kHeightOffset]); }
  std::uint32_t pixel_format() const { return format::LoadU32(&bytes[format::kPixelFormatOffset]); }
  double float_field() const;
  std::uint32_t frames_per_division() const {
    return format::LoadU32(&bytes[format::kFramesPerDivisionOffset]);
  }
  std::int32_t frame_count() const {
    return static_cast<std::int32_t>(format::LoadU32(&bytes[format::kFrameCountOffset]));
  }
  bool single_file() const { return bytes[format::kSingleFileFlagOffset] != 0; }

  std::uint64_t pixels() const { return static_cast<std::uint64_t>(width()) * height(); }
  bool packed12() const { return pixel_format() == format::kPixelFormat12BitPacked; }
  // Bytes of one frame's pixel data (S): P x 3/2 for 12-bit packed, P x 2
  // for format 2, P otherwise.
  std::uint64_t frame_bytes() const;
  // Bytes per pixel as read: 1.5 for 12-bit packed, 1 otherwise.
  double bytes_per_pixel() const { return packed12() ? 1.5 : 1.0; }

  // Reads up to 2998 bytes of the file; the bytes past a shorter file's end
  // are zero. False when it cannot be opened (or is not a regular file; the
  // open never blocks), when the header is left unchanged.
  bool Load(const std::string& path);

  // Why these bytes cannot describe a capture (an empty image, no frames, no
  // frames per division file, or more pixels and frames than the numbered
  // cube files hold), in a few words; empty when they can. Any file of 2998
  // bytes or more loads, so readers ask this before trusting it.
  std::string Problem() const;
};

}  // namespace frfcam::frfmap
