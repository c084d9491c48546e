// 12-bit unpacking against an independent packer. (8-bit and single-file
// samples are read back through the capture reader's tests.)
#include "frfmap/unpack.h"

#include <gtest/gtest.h>

#include <algorithm>
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

// Every value in both positions of a pair, an odd count, and runs that start
// and end anywhere without writing past their end.
TEST(Unpack12, EveryValueAndRunsStartingAndEndingAnywhere) {
  std::vector<std::uint16_t> samples;
  for (std::uint16_t v = 0; v < 4096; ++v) {
    samples.push_back(v);
    samples.push_back(static_cast<std::uint16_t>(4095 - v));
  }
  samples.push_back(0xABC);
  const std::vector<std::uint8_t> bytes = Pack(samples);
  ASSERT_EQ(bytes.size(), Packed12Bytes(samples.size()));
  std::vector<std::uint16_t> all(samples.size());
  Unpack12(bytes.data(), 0, samples.size(), all.data());
  EXPECT_EQ(all, samples);
  for (std::size_t first = 0; first < 20; ++first) {
    for (std::size_t n : {1u, 2u, 3u, 7u, 8u, 9u, 17u, 41u}) {
      std::vector<std::uint16_t> out(n + 1, 0xFFFF);
      Unpack12(bytes.data(), first, n, out.data());
      for (std::size_t i = 0; i < n; ++i) {
        ASSERT_EQ(out[i], samples[first + i]) << "first " << first << " n " << n << " i " << i;
      }
      EXPECT_EQ(out[n], 0xFFFF) << "wrote past the run";
    }
  }
  // Runs held in exactly their bytes, as the transform decodes them from a
  // block: no read past the last byte (the sanitizer builds see it).
  for (std::size_t first : {0u, 1u}) {
    for (std::size_t n : {16u, 17u, 31u, 64u, 128u}) {
      const std::vector<std::uint8_t> exact(bytes.begin(),
                                            bytes.begin() + Packed12Bytes(first + n));
      std::vector<std::uint16_t> out(n);
      Unpack12(exact.data(), first, n, out.data());
      EXPECT_TRUE(std::equal(out.begin(), out.end(), samples.begin() + first)) << first << " " << n;
    }
  }
}

}  // namespace
}  // namespace frfcam::frfmap
