// Process-wide render settings, for tests and benchmarks that need them
// fixed; renders read them when they start.
#pragma once

#include <cstdint>

namespace frfcam::frfmap {

// - Renders write the cube files that fit, one after another, within
//   `bytes` through the OS's file cache, and the others with direct writes
//   past it where the files allow that (see renderer.cpp).
//   kCachedCubeBytesAutomatic, the default, stands for a tenth of the memory
//   available when the render starts; kCachedCubeBytesAll writes every cube
//   through the cache.
inline constexpr std::uint64_t kCachedCubeBytesAutomatic = UINT64_MAX;
inline constexpr std::uint64_t kCachedCubeBytesAll = UINT64_MAX - 1;
void SetCachedCubeBytes(std::uint64_t bytes);
void SetRenderBlockBytes(std::uint64_t bytes);

}  // namespace frfcam::frfmap
