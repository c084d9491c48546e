#include "frfmap/layout.h"

namespace frfcam::frfmap {

CubeLayout CubeLayout::For(std::uint64_t pixels, std::uint32_t bins) {
  CubeLayout l;
  l.bins = bins;
  const std::uint64_t plane = pixels * kSpectrumValueBytes;
  if (plane == 0 || plane > kMaxCubeFileBytes) return l;
  l.plane_bytes = static_cast<std::uint32_t>(plane);
  l.bins_per_file = static_cast<std::uint32_t>(kMaxCubeFileBytes / plane);
  return l;
}

unsigned CubeLayout::FileCount() const {
  if (bins_per_file == 0) return 0;
  return static_cast<unsigned>((static_cast<std::uint64_t>(bins) + bins_per_file - 1) /
                               bins_per_file);
}

FileOffset CubeLayout::Locate(std::uint32_t bin) const {
  return {bin / bins_per_file + 1, static_cast<std::uint64_t>(bin % bins_per_file) * plane_bytes};
}

FileOffset LocateFrame(std::uint32_t k, std::uint64_t frame_bytes, std::uint32_t frames_per_file) {
  const std::uint64_t record = frame_bytes + 16;
  return {k / frames_per_file + 1, record * (k % frames_per_file)};
}

}  // namespace frfcam::frfmap
