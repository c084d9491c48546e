// The reader against the writer: samples and frame records read back equal
// what was written, whatever the storage form and wherever a run starts.
#include "frfmap/capture_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "frfmap/capture_fixture.h"
#include "frfmap/capture_writer.h"
#include "frfmap/naming.h"
#include "support/test_support.h"

namespace frfcam::frfmap {
namespace {

using test::ScratchDir;

std::uint16_t Sample(std::int32_t f, std::size_t p) {
  std::uint32_t h =
      static_cast<std::uint32_t>(f) * 2654435761u ^ static_cast<std::uint32_t>(p) * 40503u;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  return static_cast<std::uint16_t>((h >> 7) & 0xFFF);
}

std::string Write(const ScratchDir& dir, const CaptureDesc& desc) {
  WriteSamples(dir.file("cap.hdr"), desc, Sample);
  return dir.file("cap.hdr");
}

// Also checks the frame records, which come with runs from pixel 0 only.
void ExpectRun(CaptureReader& reader, const CaptureDesc& desc, std::uint64_t first,
               std::uint32_t n) {
  std::vector<std::uint16_t> out(static_cast<std::size_t>(desc.frames) * n, 0xFFFF);
  std::vector<std::uint8_t> records(static_cast<std::size_t>(desc.frames) * 16, 0xEE);
  ASSERT_TRUE(reader.ReadBlock(first, n, desc.frames, out.data(), records.data()))
      << "run " << first << "+" << n;
  for (std::int32_t f = 0; f < desc.frames; ++f) {
    const std::uint32_t id = format::LoadU32(&records[f * 16]);
    const std::uint32_t time = format::LoadU32(&records[f * 16 + 4]);
    EXPECT_EQ(id, first == 0 ? f + 1u : 0xEEEEEEEEu) << "frame " << f << " run from " << first;
    EXPECT_EQ(time, first == 0 ? f * 1000u : 0xEEEEEEEEu) << "frame " << f;
  }
  for (std::int32_t f = 0; f < desc.frames; ++f) {
    for (std::uint32_t i = 0; i < n; ++i) {
      ASSERT_EQ(out[static_cast<std::size_t>(f) * n + i],
                Stored(desc, Sample(f, first + i), first + i))
          << "frame " << f << " pixel " << first + i;
    }
  }
}

TEST(CaptureReader, ReadsBackEveryFormatAndRun) {
  for (const std::uint32_t fmt : {format::kPixelFormat12BitPacked, format::kPixelFormat8Bit}) {
    for (const auto& [w, h] : {std::pair<int, int>{7, 5}, {8, 3}, {1, 1}, {13, 2}}) {
      ScratchDir dir;
      // Frames per file 4 of 10: frames 3 and 4 straddle the first boundary.
      const CaptureDesc desc =
          MakeCapture(static_cast<std::uint16_t>(w), static_cast<std::uint16_t>(h), 10, fmt, 4);
      const std::string header = Write(dir, desc);
      CaptureReader reader;
      ASSERT_TRUE(reader.Open(header));
      const std::uint32_t pixels = static_cast<std::uint32_t>(w * h);
      ExpectRun(reader, desc, 0, pixels);
      for (std::uint64_t first : {1u, 2u, 3u, 5u}) {
        if (first >= pixels) continue;
        ExpectRun(reader, desc, first, pixels - static_cast<std::uint32_t>(first));
        ExpectRun(reader, desc, first, 1);
      }
      // Whole rows, the way a render asks.
      for (std::uint32_t row = 0; row < static_cast<std::uint32_t>(h); ++row) {
        ExpectRun(reader, desc, static_cast<std::uint64_t>(row) * w, static_cast<std::uint32_t>(w));
      }
    }
  }
}

TEST(CaptureReader, SingleFileRingThatWraps) {
  for (const std::uint32_t fmt : {format::kPixelFormat12BitPacked, format::kPixelFormat8Bit}) {
    ScratchDir dir;
    CaptureDesc desc = MakeCapture(11, 3, 7, fmt, 500);
    desc.single_file = true;
    desc.ring_slots = 9;
    desc.first_slot = 5;  // frames 4.. live in slots 0..
    CaptureReader reader;
    ASSERT_TRUE(reader.Open(Write(dir, desc)));
    ASSERT_TRUE(reader.header().single_file());
    ExpectRun(reader, desc, 0, 33);
    ExpectRun(reader, desc, 4, 20);
    ExpectRun(reader, desc, 22, 11);
  }
}

TEST(CaptureReader, DamagedDataGivesAFailedRead) {
  FRFCAM_SKIP_ON_WINDOWS(
      "removing or cutting a file another object holds open (Windows refuses it)");
  ScratchDir dir;
  const CaptureDesc desc = MakeCapture(8, 4, 10, format::kPixelFormat12BitPacked, 4);
  const std::string header = Write(dir, desc);
  std::vector<std::uint16_t> samples(10 * 32);
  CaptureReader reader;
  ASSERT_TRUE(reader.Open(header));
  EXPECT_FALSE(reader.ReadBlock(0, 33, 10, samples.data(), nullptr)) << "run past the frame";

  // The last division file cut inside its last frame.
  const std::string last = DataFilePath(header, DataFile::kDivision, 3);
  std::filesystem::resize_file(last, std::filesystem::file_size(last) - 5);
  ASSERT_TRUE(reader.Open(header));
  std::vector<std::uint16_t> whole(10 * 32);
  EXPECT_FALSE(reader.ReadBlock(0, 32, 10, whole.data(), nullptr));
  EXPECT_TRUE(reader.ReadBlock(0, 32, 8, samples.data(), nullptr)) << "earlier frames still read";
  EXPECT_TRUE(std::equal(samples.begin(), samples.begin() + 8 * 32, whole.begin()));
  EXPECT_EQ(std::count(whole.begin() + 9 * 32, whole.end(), 0), 32) << "the cut frame is zero";

  std::filesystem::remove(DataFilePath(header, DataFile::kDivision, 2));
  ASSERT_TRUE(reader.Open(header));
  EXPECT_FALSE(reader.ReadBlock(0, 32, 10, samples.data(), nullptr));

  // A single-file capture cut short, then gone.
  CaptureDesc single = MakeCapture(10, 2, 6, format::kPixelFormat12BitPacked, 500);
  single.single_file = true;
  const std::string cap = DataFilePath(Write(dir, single), DataFile::kSingle, 0);
  std::filesystem::resize_file(cap, std::filesystem::file_size(cap) - 1);
  ASSERT_TRUE(reader.Open(header));
  EXPECT_FALSE(reader.ReadBlock(0, 20, 6, samples.data(), nullptr));
  std::filesystem::remove(cap);
  ASSERT_TRUE(reader.Open(header));
  EXPECT_FALSE(reader.ReadBlock(0, 20, 6, samples.data(), nullptr));

  CaptureReader missing;
  EXPECT_FALSE(missing.Open(dir.file("nothing.hdr")));
  EXPECT_EQ(missing.header().width(), 0);
}

}  // namespace
}  // namespace frfcam::frfmap
