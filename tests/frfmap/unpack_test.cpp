#include "frfmap/unpack.h"

#include <gtest/gtest.h>

#include <vector>

namespace frfcam::frfmap {
namespace {

// Packs pairs by the stored layout: b0 b1 b2 hold first = b0*16 + (b1 >> 4)
// and second = b2*16 + (b1 & 15).
std::vector<std::uint8_t> Pack(const std::vector<std::uint16_t>& s) {
  std::vector<std::uint8_t> out;
  for (std::size_t i = 0; i < s.size(); i += 2) {
    const std::uint16_t a = s[i];
    const std::uint16_t b = i + 1 < s.size() ? s[i + 1] : 0;
    out.push_back(static_cast<std::uint8_t>(a >> 4));
    out.push_back(static_cast<std::uint8_t>(((a & 15) << 4) | (b & 15)));
    if (i + 1 < s.size()) out.push_back(static_cast<std::uint8_t>(b >> 4));
  }
  return out;
}

TEST(Unpack12, EveryValueInBothPositionsOfAPair) {
  std::vector<std::uint16_t> samples;
  for (std::uint16_t v = 0; v < 4096; ++v) {
    samples.push_back(v);
    samples.push_back(static_cast<std::uint16_t>(4095 - v));
  }
  const std::vector<std::uint8_t> bytes = Pack(samples);
  std::vector<std::uint16_t> out(samples.size());
  Unpack12(bytes.data(), 0, samples.size(), out.data());
  EXPECT_EQ(out, samples);
}

TEST(Unpack12, RunsStartingAndEndingAnywhere) {
  std::vector<std::uint16_t> samples(61);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::uint16_t>(((i * 2654435761u) >> 20) & 0xFFF);
  }
  const std::vector<std::uint8_t> bytes = Pack(samples);
  ASSERT_EQ(bytes.size(), Packed12Bytes(samples.size()));
  for (std::size_t first = 0; first < 20; ++first) {
    for (std::size_t n : {1u, 2u, 3u, 7u, 8u, 9u, 17u, 41u}) {
      if (first + n > samples.size()) continue;
      std::vector<std::uint16_t> out(n + 1, 0xFFFF);
      Unpack12(bytes.data(), first, n, out.data());
      for (std::size_t i = 0; i < n; ++i) {
        ASSERT_EQ(out[i], samples[first + i]) << "first " << first << " n " << n << " i " << i;
      }
      EXPECT_EQ(out[n], 0xFFFF) << "wrote past the run";
    }
  }
}

TEST(Expand8, ScalesEveryByteBySixteen) {
  std::vector<std::uint8_t> bytes(256 + 13);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 7);
  std::vector<std::uint16_t> out(bytes.size());
  Expand8(bytes.data(), bytes.size(), out.data());
  for (std::size_t i = 0; i < bytes.size(); ++i) ASSERT_EQ(out[i], bytes[i] * 16);
}

TEST(Unpack5In8, BigEndianWordsFromTheTop) {
  // Two words: samples 0x123 0x456 0x789 0xABC 0xDEF, then 0xFFF 0 1 2 3.
  const std::uint8_t words[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                  0x0F, 0xFF, 0x00, 0x00, 0x01, 0x00, 0x20, 0x03};
  const std::uint16_t expect[10] = {0x123, 0x456, 0x789, 0xABC, 0xDEF, 0xFFF, 0, 1, 2, 3};
  std::uint16_t out[10];
  Unpack5In8(words, 0, 10, out);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(out[i], expect[i]) << i;
  Unpack5In8(words, 3, 4, out);
  EXPECT_EQ(out[0], 0xABC);
  EXPECT_EQ(out[3], 0);
}

}  // namespace
}  // namespace frfcam::frfmap
