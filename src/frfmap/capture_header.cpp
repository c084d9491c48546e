#include "frfmap/capture_header.h"

#include <cstring>

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

}  // namespace frfcam::frfmap
