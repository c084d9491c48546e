// Byte layout of a capture: the header file, the division files and the
// single-file ".cap" capture. Shared by the reader and the writer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace frfcam::frfmap::format {

// ---- Capture header file: the first 2998 bytes, little-endian fields. ----
inline constexpr std::size_t kHeaderSize = 2998;
inline constexpr std::size_t kWidthOffset = 176;              // uint16
inline constexpr std::size_t kHeightOffset = 178;             // uint16
inline constexpr std::size_t kPixelFormatOffset = 180;        // uint32
inline constexpr std::size_t kFloatFieldOffset = 184;         // float64, carried only
inline constexpr std::size_t kFramesPerDivisionOffset = 464;  // uint32
inline constexpr std::size_t kFrameCountOffset = 468;         // int32
inline constexpr std::size_t kSingleFileFlagOffset = 2006;    // uint8, non-zero: ".cap"

// Pixel formats: 1 is 12-bit packed (three bytes, two pixels); 2 nominally
// 16-bit; anything else 8-bit. Every format but 1 is read one byte per pixel.
inline constexpr std::uint32_t kPixelFormat12BitPacked = 1;
inline constexpr std::uint32_t kPixelFormat16Bit = 2;
inline constexpr std::uint32_t kPixelFormat8Bit = 0;

// ---- Division files: frame records of 16 bytes + S pixel bytes. ----
inline constexpr std::size_t kFrameRecordSize = 16;

// ---- Single-file capture (".cap"). ----
inline constexpr std::size_t kCapHeaderSize = 648;
inline constexpr std::size_t kCapPackingOffset = 134;       // uint8: '0' = 5 pixels per 64-bit word
inline constexpr std::size_t kCapRowWidthOffset = 144;      // uint16
inline constexpr std::size_t kCapRowCountOffset = 146;      // uint16
inline constexpr std::size_t kCapSlotCountOffset = 224;     // uint32, frames slots (a ring)
inline constexpr std::size_t kCapSlotSizeOffset = 228;      // uint32, bytes per slot
inline constexpr std::size_t kCapFirstSlotOffset = 232;     // uint32, slot of frame 0
inline constexpr std::size_t kCapSlot0Offset = 248;         // uint32, byte offset of slot 0
inline constexpr std::size_t kCapSubtractSlotOffset = 644;  // uint32, subtracted after the wrap
inline constexpr std::size_t kCapTrailerSize = 64;          // last bytes of every slot
inline constexpr std::uint8_t kCapPacking5In8 = '0';

// Bytes of one stored row of a ".cap" frame for a packing code.
inline std::uint32_t CapRowBytes(std::uint8_t packing, std::uint32_t width) {
  if (packing == kCapPacking5In8) return (width + 4) / 5 * 8;
  if (packing == 3 || (packing >= 32 && packing <= 35)) return (width + 2) / 3 * 4;
  return (width + 3) / 4 * 4;
}

// Little-endian field access on raw header bytes.
inline std::uint16_t LoadU16(const std::uint8_t* p) {
  return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
inline std::uint32_t LoadU32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline void StoreU16(std::uint8_t* p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline void StoreU32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
inline std::uint32_t LoadBE32(const std::uint8_t* p) {
  return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
         (static_cast<std::uint32_t>(p[2]) << 8) | static_cast<std::uint32_t>(p[3]);
}

}  // namespace frfcam::frfmap::format

namespace frfcam::frfmap::format {

// The ".cap" frame trailer as this library writes and reads it: big-endian
// 32-bit words, word 0 the 1-based frame index (zero marks an empty slot),
// word 1 the time stamp, word 2 a counter of which the low 24 bits count.
// It becomes the frame's 16-byte record: index, time, counter, zero (LE).
inline constexpr std::size_t kCapTrailerIndexWord = 0;
inline constexpr std::size_t kCapTrailerTimeWord = 1;
inline constexpr std::size_t kCapTrailerCounterWord = 2;

}  // namespace frfcam::frfmap::format
