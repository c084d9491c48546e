// Turning stored pixel bytes into 16-bit samples on the 12-bit scale.
#pragma once

#include <cstddef>
#include <cstdint>

namespace frfcam::frfmap {

// 12-bit packed: every three bytes b0 b1 b2 hold two samples,
// first = b0*16 + (b1 >> 4), second = b2*16 + (b1 & 15). Unpacks samples
// [first, first + n) of a packed run whose byte 0 starts a group (sample 0);
// `src` must hold the bytes of every group touched (a final lone first sample
// needs only b0 and b1).
void Unpack12(const std::uint8_t* src, std::size_t first, std::size_t n, std::uint16_t* dst);

// One byte per pixel, scaled by 16 onto the 12-bit scale.
void Expand8(const std::uint8_t* src, std::size_t n, std::uint16_t* dst);

// Five 12-bit samples per big-endian 64-bit word, from the most significant
// end (bits 59..48 first). Unpacks samples [first, first + n) of a run of
// words starting at sample 0.
void Unpack5In8(const std::uint8_t* src, std::size_t first, std::size_t n, std::uint16_t* dst);

// Bytes of a 12-bit packed run that holds samples [0, end).
inline std::size_t Packed12Bytes(std::size_t end) { return end / 2 * 3 + (end % 2) * 2; }

// How a run of a frame's pixels is held between its read and its transform.
enum class RunEncoding : std::uint8_t {
  kSamples,   // 16-bit samples on the 12-bit scale
  kPacked12,  // the stored 12-bit packed bytes, from the group of the first pixel
  kBytes8,    // the stored bytes, one per pixel
};

// Bytes that a run of pixels [first, first + n) of a frame takes.
std::size_t RunBytes(RunEncoding e, std::uint64_t first, std::size_t n);

// Offset in such a run of the bytes that hold its pixel p (its group's, when
// packed).
std::size_t RunOffset(RunEncoding e, std::uint64_t first, std::size_t p);

// Samples p .. p + c - 1 of a run of pixels that starts at frame pixel
// `first`.
void DecodeRun(RunEncoding e, const std::uint8_t* run, std::uint64_t first, std::size_t p,
               std::size_t c, std::uint16_t* dst);

}  // namespace frfcam::frfmap
