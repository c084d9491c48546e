#include "frfmap/planner.h"

#include <algorithm>

namespace frfcam::frfmap {

namespace {
std::uint64_t FillBelowTopBit(std::uint64_t h) {
  h |= h >> 1;
  h |= h >> 2;
  h |= h >> 4;
  h |= h >> 8;
  h |= h >> 16;
  h |= h >> 32;
  return h;
}
}  // namespace

std::uint32_t PlanBlockPixels(std::uint32_t width, std::uint32_t height, std::int32_t frames,
                              std::uint64_t available) {
  const std::uint32_t pixels = width * height;
  if (width == 0 || pixels == 0 || frames < 1) return 0;
  const std::uint64_t budget =
      std::min<std::uint64_t>(FillBelowTopBit(available >> 1) >> 1, 4294967296ull);
  const std::uint64_t need = static_cast<std::uint64_t>(pixels) * frames * 10;
  std::uint32_t block = pixels;
  if (need > budget) {
    // A zero budget (no memory reported) plans single rows.
    const std::uint64_t parts = budget == 0 ? pixels : need / budget + 1;
    block = parts > pixels ? 0 : pixels / static_cast<std::uint32_t>(parts);
    block -= block % width;
  }
  block >>= 1;
  block -= block % width;
  return std::clamp(block, width, pixels);
}

std::uint64_t MinimumRenderBytes(std::uint32_t width, std::int32_t frames) {
  if (frames < 1) return 0;
  const std::uint64_t f = static_cast<std::uint64_t>(frames);
  const std::uint64_t bins = f / 2 + 1;
  return 2 * width * (2 * f + 8 * bins) + 16 * f;
}

std::uint32_t SubBlockPixels(std::int32_t frames, std::uint64_t available) {
  if (frames < 1) return 1;
  const std::uint64_t budget =
      std::min<std::uint64_t>(FillBelowTopBit(available >> 1) >> 2, 2147483648ull);
  const std::uint64_t per_pixel = 14ull * static_cast<std::uint64_t>(frames) + 4;
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(budget / per_pixel, 1, 65536));
}

}  // namespace frfcam::frfmap
