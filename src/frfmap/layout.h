// Addressing inside the two numbered file families: where a frame lies in the
// division files and where a frequency bin's plane lies in the cube files.
#pragma once

#include <cstdint>

namespace frfcam::frfmap {

// Cube files are capped at 2 GiB so that 32-bit offsets suffice.
inline constexpr std::uint64_t kMaxCubeFileBytes = 2147483648ull;
// File numbers index a 128-entry handle table; entry 0 is unused.
inline constexpr unsigned kMaxFileNumber = 127;
inline constexpr unsigned kHandleTableSize = 128;
// One spectrum value: two 32-bit floats, real first.
inline constexpr unsigned kSpectrumValueBytes = 8;

struct FileOffset {
  unsigned file;         // 1-based file number
  std::uint64_t offset;  // bytes from the start of that file
};

// Bins of a cube of `pixels` pixels: plane size and planes per file.
struct CubeLayout {
  std::uint32_t plane_bytes = 0;    // pixels x 8; 0 when it would not fit 32 bits
  std::uint32_t bins_per_file = 0;  // 0 when one plane exceeds 2 GiB
  std::uint32_t bins = 0;

  static CubeLayout For(std::uint64_t pixels, std::uint32_t bins);
  // Number of cube files the bins need (0 when bins_per_file is 0).
  unsigned FileCount() const;
  FileOffset Locate(std::uint32_t bin) const;
};

// Frame `k` of a capture with `frame_bytes` pixel bytes per frame and
// `frames_per_file` frames per division file.
FileOffset LocateFrame(std::uint32_t k, std::uint64_t frame_bytes, std::uint32_t frames_per_file);

}  // namespace frfcam::frfmap
