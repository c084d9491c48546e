// The capture writer checked byte by byte against the file formats. (The
// synthetic scene is checked against its model by the modes tests.)
#include "frfmap/capture_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <vector>

#include "frfmap/capture_fixture.h"
#include "support/test_support.h"

namespace frfcam::frfmap {
namespace {

namespace fs = std::filesystem;

// A recognisable sample for every pixel of every frame.
std::uint16_t Pattern(std::int32_t f, std::size_t p) {
  return static_cast<std::uint16_t>((f * 613 + p * 37 + 5) % 4096);
}
FrameSource PatternSource(std::size_t pixels) {
  return [pixels](std::int32_t f, std::uint16_t* s) {
    for (std::size_t p = 0; p < pixels; ++p) s[p] = Pattern(f, p);
  };
}

// ---- Header and division files -------------------------------------------

TEST(CaptureWriter, HeaderHoldsTheFieldsAtTheirOffsetsAndNothingElse) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("plate.hdr"), want = dir.file("want.hdr");
  std::string error;
  ASSERT_TRUE(
      WriteCapture(hdr, MakeCapture(300, 200, 7, 1, 3, 1234.5), PatternSource(60000), &error))
      << error;
  // The geometry fields as the fixture puts them, the frame rate a double at 184.
  WriteHeader(want, 300, 200, 7, 3);
  std::string expected = test::ReadFile(want);
  const double fps = 1234.5;
  expected.replace(184, 8, reinterpret_cast<const char*>(&fps), 8);
  EXPECT_EQ(test::ReadFile(hdr), expected);
}

// ---- 12-bit packing ------------------------------------------------------

TEST(CaptureWriter, TwelveBitPairsPackIntoThreeBytes) {
  const std::uint16_t in[] = {0xABC, 0x123, 0x000, 0xFFF, 0xFFF, 0x000, 0x801, 0x10F};
  std::uint8_t out[12];
  Pack12(in, 8, out);
  const std::uint8_t expected[] = {0xAB, 0xC3, 0x12, 0x00, 0x0F, 0xFF,
                                   0xFF, 0xF0, 0x00, 0x80, 0x1F, 0x10};
  EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), out));
}

// ---- Single file ----------------------------------------------------------

TEST(CaptureWriter, CapRowsHoldFiveSamplesPerBigEndianWord) {
  const std::uint16_t row[] = {0x123, 0x456, 0x789, 0xABC, 0xDEF, 0x001, 0x002};
  std::uint8_t out[16];
  std::fill(std::begin(out), std::end(out), 0xEE);
  PackCapRow(row, 7, out);
  const std::uint8_t expected[] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                   0x00, 0x01, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00};
  EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), out));
}

// ---- Refusals and housekeeping ---------------------------------------------

TEST(CaptureWriter, RefusesCapturesThatCannotBeReadBackAndWritesNothing) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("bad.hdr");
  auto refused = [&](CaptureDesc desc, const std::string& path) {
    std::string error;
    const bool ok = WriteCapture(
        path, desc, [](std::int32_t, std::uint16_t*) {}, &error);
    return !ok && !error.empty() && error.find('\n') == std::string::npos;
  };
  const CaptureDesc good = MakeCapture(4, 4, 10, 1, 5);
  const std::function<void(CaptureDesc&)> breakers[] = {
      [](CaptureDesc& c) { c.width = 0; },
      [](CaptureDesc& c) { c.frames = 0; },
      [](CaptureDesc& c) { c.fps = 0; },
      [](CaptureDesc& c) { c.pixel_format = 2; },
      [](CaptureDesc& c) { c.frames_per_file = 0; },
      // One frame per file: 128 files, one more than can be addressed.
      [](CaptureDesc& c) { c.frames = 128, c.frames_per_file = 1; },
      [](CaptureDesc& c) { c.width = c.height = 65535, c.frames_per_file = 500; },  // 6.4 GB frames
      [](CaptureDesc& c) { c.single_file = true, c.ring_slots = 9; },
      [](CaptureDesc& c) { c.single_file = true, c.ring_slots = 10, c.first_slot = 10; },
  };
  for (const auto& breaker : breakers) {
    CaptureDesc s = good;
    breaker(s);
    EXPECT_TRUE(refused(s, hdr)) << s.width << "x" << s.height << " F=" << s.frames;
  }
  EXPECT_TRUE(refused(good, dir.file("noextension")));
  EXPECT_FALSE(fs::exists(hdr));
  EXPECT_FALSE(fs::exists(dir.path() / "bad"));

  CaptureDesc most = good;
  most.frames = 127;
  most.frames_per_file = 1;
  std::string error;
  EXPECT_TRUE(WriteCapture(hdr, most, PatternSource(16), &error)) << error;
}

TEST(CaptureWriter, RewritingACaptureRemovesItsStaleDataFiles) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("cap.hdr");
  const fs::path folder = dir.path() / "cap";
  std::string error;
  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(4, 2, 10, 1, 2), PatternSource(8), &error)) << error;
  std::ofstream(folder / "cap_0001.fft") << "old spectra";
  std::ofstream(folder / "cap.cap") << "old ring";
  std::ofstream(folder / "notes_0001.div") << "someone else's";
  std::ofstream(folder / "cap_01.div") << "not ours either";

  ASSERT_TRUE(WriteCapture(hdr, MakeCapture(4, 2, 4, 1, 2), PatternSource(8), &error)) << error;
  for (const char* kept : {"cap_0002.div", "notes_0001.div", "cap_01.div"}) {
    EXPECT_TRUE(fs::exists(folder / kept)) << kept;
  }
  for (const char* gone : {"cap_0003.div", "cap_0005.div", "cap_0001.fft", "cap.cap"}) {
    EXPECT_FALSE(fs::exists(folder / gone)) << gone;
  }
}

}  // namespace
}  // namespace frfcam::frfmap
