#include "frfmap/capture_header.h"

#include <cstring>

#include "frfmap/layout.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

double CaptureHeader::float_field() const {
  double v;
  std::memcpy(&v, &bytes[format::kFloatFieldOffset], sizeof v);
  return v;
}

std::uint64_t CaptureHeader::frame_bytes() const {
  const std::uint64_t p = pixels();
  if (packed12()) return p * 3 / 2;
  if (pixel_format() == format::kPixelFormat16Bit) return p * 2;
  return p;
}

bool CaptureHeader::Load(const std::string& path) {
  platform::File f;
  if (!f.Open(path, platform::File::Mode::kRead)) return false;
  // A short header is not an error: the fields past its end read as zero.
  std::array<std::uint8_t, format::kHeaderSize> buf{};
  f.ReadAt(0, buf.data(), buf.size());
  bytes = buf;
  return true;
}

std::string CaptureHeader::Problem() const {
  if (width() == 0 || height() == 0) {
    return "its image is empty (" + std::to_string(width()) + "x" + std::to_string(height()) + ")";
  }
  if (frame_count() < 1)
    return "it gives no frames (frame count " + std::to_string(frame_count()) + ")";
  if (!single_file() && frames_per_division() == 0) return "it gives 0 frames per data file";
  const CubeLayout cube =
      CubeLayout::For(pixels(), static_cast<std::uint32_t>(frame_count() / 2 + 1));
  if (cube.bins_per_file == 0 || cube.FileCount() > kMaxFileNumber) {
    return "its " + std::to_string(width()) + "x" + std::to_string(height()) + " pixels and " +
           std::to_string(frame_count()) + " frames are more than the numbered cube files can hold";
  }
  return {};
}

}  // namespace frfcam::frfmap
