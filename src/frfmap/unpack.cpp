#include "frfmap/unpack.h"

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define FRFCAM_HAVE_SSSE3_UNPACK 1
#endif

namespace frfcam::frfmap {

namespace {

inline std::uint16_t First12(const std::uint8_t* g) {
  return static_cast<std::uint16_t>((g[0] << 4) | (g[1] >> 4));
}
inline std::uint16_t Second12(const std::uint8_t* g) {
  return static_cast<std::uint16_t>((g[2] << 4) | (g[1] & 15));
}

// Whole groups, portable: 12-byte blocks (eight samples), then three bytes
// at a time.
void UnpackPairsScalar(const std::uint8_t* __restrict src, std::size_t pairs,
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

#if FRFCAM_HAVE_SSSE3_UNPACK
// The compiler does not find the byte shuffle for the three-byte groups, and
// the reader spends most of its time here (see bench_reader). One shuffle
// puts the bytes of each sample into a 16-bit lane, high byte first: lane 2k
// holds b0:b1 (shift right by 4), lane 2k+1 holds b2:b1 (keep the low nibble,
// shift the rest right by 4).
__attribute__((target("ssse3"))) void UnpackPairsSsse3(const std::uint8_t* __restrict src,
                                                       std::size_t pairs,
                                                       std::uint16_t* __restrict dst) {
  const __m128i shuffle = _mm_setr_epi8(1, 0, 1, 2, 4, 3, 4, 5, 7, 6, 7, 8, 10, 9, 10, 11);
  const __m128i keep_shifted =
      _mm_setr_epi16(0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0);
  const __m128i keep_low = _mm_setr_epi16(0, 0x000F, 0, 0x000F, 0, 0x000F, 0, 0x000F);
  std::size_t p = 0;
  // Each step loads 16 bytes and uses 12, so stop while 16 remain.
  for (; p + 6 <= pairs; p += 4) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + p * 3));
    const __m128i lanes = _mm_shuffle_epi8(bytes, shuffle);
    const __m128i samples = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(lanes, 4), keep_shifted),
                                         _mm_and_si128(lanes, keep_low));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + p * 2), samples);
  }
  UnpackPairsScalar(src + p * 3, pairs - p, dst + p * 2);
}

// Two 12-byte groups per 256-bit register, one in each 128-bit lane. The
// second group is loaded from 4 bytes early, so that a step reads no byte
// past its 24: runs of whole steps, as the transform decodes, need no tail.
__attribute__((target("avx2"))) void UnpackPairsAvx2(const std::uint8_t* __restrict src,
                                                     std::size_t pairs,
                                                     std::uint16_t* __restrict dst) {
  const __m256i shuffle = _mm256_setr_epi8(1, 0, 1, 2, 4, 3, 4, 5, 7, 6, 7, 8, 10, 9, 10, 11, 5, 4,
                                           5, 6, 8, 7, 8, 9, 11, 10, 11, 12, 14, 13, 14, 15);
  const __m256i keep_shifted =
      _mm256_setr_epi16(0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0, 0x0FFF,
                        0x0FF0, 0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0, 0x0FFF, 0x0FF0);
  const __m256i keep_low = _mm256_setr_epi16(0, 0x000F, 0, 0x000F, 0, 0x000F, 0, 0x000F, 0, 0x000F,
                                             0, 0x000F, 0, 0x000F, 0, 0x000F);
  std::size_t p = 0;
  for (; p + 8 <= pairs; p += 8) {
    const std::uint8_t* g = src + p * 3;
    const __m256i bytes = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(g + 8),
                                              reinterpret_cast<const __m128i*>(g));
    const __m256i lanes = _mm256_shuffle_epi8(bytes, shuffle);
    const __m256i samples =
        _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(lanes, 4), keep_shifted),
                        _mm256_and_si256(lanes, keep_low));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + p * 2), samples);
  }
  UnpackPairsSsse3(src + p * 3, pairs - p, dst + p * 2);
}

bool HaveAvx2() {
  static const bool have = __builtin_cpu_supports("avx2");
  return have;
}

bool HaveSsse3() {
  static const bool have = __builtin_cpu_supports("ssse3");
  return have;
}
#endif

void UnpackPairs(const std::uint8_t* src, std::size_t pairs, std::uint16_t* dst) {
#if FRFCAM_HAVE_SSSE3_UNPACK
  if (HaveAvx2()) return UnpackPairsAvx2(src, pairs, dst);
  if (HaveSsse3()) return UnpackPairsSsse3(src, pairs, dst);
#endif
  UnpackPairsScalar(src, pairs, dst);
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

std::size_t RunBytes(RunEncoding e, std::uint64_t first, std::size_t n) {
  switch (e) {
    case RunEncoding::kSamples:
      return n * sizeof(std::uint16_t);
    case RunEncoding::kPacked12:
      return Packed12Bytes(first % 2 + n);
    case RunEncoding::kBytes8:
      return n;
  }
  return 0;
}

std::size_t RunOffset(RunEncoding e, std::uint64_t first, std::size_t p) {
  switch (e) {
    case RunEncoding::kSamples:
      return p * sizeof(std::uint16_t);
    case RunEncoding::kPacked12:
      return (first % 2 + p) / 2 * 3;
    case RunEncoding::kBytes8:
      return p;
  }
  return 0;
}

void DecodeRun(RunEncoding e, const std::uint8_t* run, std::uint64_t first, std::size_t p,
               std::size_t c, std::uint16_t* dst) {
  switch (e) {
    case RunEncoding::kSamples:
      std::memcpy(dst, run + p * sizeof(std::uint16_t), c * sizeof(std::uint16_t));
      return;
    case RunEncoding::kPacked12:
      Unpack12(run, first % 2 + p, c, dst);
      return;
    case RunEncoding::kBytes8:
      Expand8(run + p, c, dst);
      return;
  }
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
