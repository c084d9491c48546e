#include "frfmap/unpack.h"

namespace frfcam::frfmap {

namespace {

inline std::uint16_t First12(const std::uint8_t* g) {
  return static_cast<std::uint16_t>((g[0] << 4) | (g[1] >> 4));
}
inline std::uint16_t Second12(const std::uint8_t* g) {
  return static_cast<std::uint16_t>((g[2] << 4) | (g[1] & 15));
}

// Whole groups: a plain loop over 12-byte blocks (eight samples) that the
// compiler turns into shuffles; the remainder goes three bytes at a time.
void UnpackPairs(const std::uint8_t* __restrict src, std::size_t pairs,
                 std::uint16_t* __restrict dst) {
  std::size_t p = 0;
  for (; p + 4 <= pairs; p += 4) {
    const std::uint8_t* g = src + p * 3;
    std::uint16_t* d = dst + p * 2;
    for (int k = 0; k < 4; ++k) {
      d[2 * k] = static_cast<std::uint16_t>((g[3 * k] << 4) | (g[3 * k + 1] >> 4));
      d[2 * k + 1] = static_cast<std::uint16_t>((g[3 * k + 2] << 4) | (g[3 * k + 1] & 15));
    }
  }
  for (; p < pairs; ++p) {
    dst[2 * p] = First12(src + 3 * p);
    dst[2 * p + 1] = Second12(src + 3 * p);
  }
}

}  // namespace

void Unpack12(const std::uint8_t* src, std::size_t first, std::size_t n, std::uint16_t* dst) {
  if (n == 0) return;
  std::size_t q = first;
  const std::size_t end = first + n;
  if (q % 2 == 1) {  // a run that starts at an odd sample takes the group's second half
    *dst++ = Second12(src + q / 2 * 3);
    ++q;
  }
  const std::size_t pairs = (end - q) / 2;
  UnpackPairs(src + q / 2 * 3, pairs, dst);
  dst += pairs * 2;
  q += pairs * 2;
  if (q < end) *dst = First12(src + q / 2 * 3);
}

void Expand8(const std::uint8_t* __restrict src, std::size_t n, std::uint16_t* __restrict dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<std::uint16_t>(src[i] << 4);
}

void Unpack5In8(const std::uint8_t* src, std::size_t first, std::size_t n, std::uint16_t* dst) {
  for (std::size_t q = first; q < first + n; ++q) {
    const std::uint8_t* w = src + q / 5 * 8;
    std::uint64_t word = 0;
    for (int b = 0; b < 8; ++b) word = (word << 8) | w[b];
    const unsigned shift = 48 - 12 * static_cast<unsigned>(q % 5);
    *dst++ = static_cast<std::uint16_t>((word >> shift) & 0xFFF);
  }
}

}  // namespace frfcam::frfmap
