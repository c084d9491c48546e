// Importing a recording: the capture's samples against the source's codes
// under the documented shift, frame ranges and regions at the borders, and
// failures that leave no capture behind.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "camera/importer.h"
#include "camera/mraw_writer.h"
#include "frfmap/capture_header.h"
#include "frfmap/capture_reader.h"
#include "support/test_support.h"

namespace frfcam::camera {
namespace {

// Frames of known codes: sample (x, y) of frame f is a hash below 2^bits.
class FakeSource : public VideoSource {
 public:
  FakeSource(unsigned w, unsigned h, std::int64_t frames, int bits, double fps) {
    info_ = {"fake", w, h, frames, fps, bits, false, ""};
  }
  static std::uint16_t Code(std::int64_t f, unsigned x, unsigned y, int bits) {
    const std::uint32_t v = static_cast<std::uint32_t>(f * 7919 + x * 104729 + y * 1299709);
    return static_cast<std::uint16_t>((v ^ (v >> 13)) & ((1u << bits) - 1));
  }
  bool ReadFrame(std::int64_t f, std::uint16_t* s, std::string* error) override {
    if (f == failAt) {
      *error = "fake: frame " + std::to_string(f) + " is damaged";
      return false;
    }
    for (unsigned y = 0; y < info_.height; ++y) {
      for (unsigned x = 0; x < info_.width; ++x) s[y * info_.width + x] = Code(f, x, y, info_.bits);
    }
    return true;
  }
  std::int64_t failAt = -1;
};

// Every sample of the capture against the source's code shifted to the
// 12-bit scale (and cut to 8 bits for an 8-bit capture).
void ExpectSamples(const std::string& header, const FakeSource& src, const ImportOptions& o,
                   int captureBits) {
  frfmap::CaptureReader reader;
  ASSERT_TRUE(reader.Open(header));
  const unsigned w = reader.header().width(), h = reader.header().height();
  const std::int32_t frames = reader.header().frame_count();
  std::vector<std::uint16_t> samples(std::size_t{w} * h * frames);
  ASSERT_TRUE(reader.ReadBlock(0, w * h, frames, samples.data(), nullptr));
  const int bits = src.info().bits;
  for (std::int32_t f = 0; f < frames; ++f) {
    for (unsigned y = 0; y < h; ++y) {
      for (unsigned x = 0; x < w; ++x) {
        const unsigned code = FakeSource::Code(o.firstFrame + f, o.roiX + x, o.roiY + y, bits);
        unsigned want = bits <= 12 ? code << (12 - bits) : code >> (bits - 12);
        // 12-bit packing keeps only the high byte of the last pixel of a
        // frame with an odd pixel count.
        const bool lastOfOdd = (w * h) % 2 == 1 && y == h - 1 && x == w - 1;
        if (captureBits == 8 || lastOfOdd) want &= 0xFF0u;
        ASSERT_EQ(samples[(static_cast<std::size_t>(f) * h + y) * w + x], want)
            << "frame " << f << " at " << x << "," << y;
      }
    }
  }
}

TEST(Import, SamplesFramesAndRegions) {
  test::ScratchDir dir;
  struct Case {
    int bits, forced, captureBits;
    std::uint32_t format;
  } cases[] = {{16, 0, 12, frfmap::format::kPixelFormat12BitPacked},
               {10, 0, 12, frfmap::format::kPixelFormat12BitPacked},
               {12, 0, 12, frfmap::format::kPixelFormat12BitPacked},
               {8, 0, 8, frfmap::format::kPixelFormat8Bit},
               {16, 8, 8, frfmap::format::kPixelFormat8Bit}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.bits) + "-bit source, forced " + std::to_string(c.forced));
    FakeSource src(33, 17, 9, c.bits, 500.0);
    ImportOptions o;
    o.bits = c.forced;
    const std::string header =
        dir.file("c" + std::to_string(c.bits) + "_" + std::to_string(c.forced) + ".hdr");
    ImportResult r;
    std::string error;
    ASSERT_TRUE(Import(src, "fake.src", header, o, &r, &error)) << error;
    EXPECT_EQ(r.bits, c.captureBits);
    frfmap::CaptureHeader loaded;
    ASSERT_TRUE(loaded.Load(header));
    EXPECT_EQ(loaded.pixel_format(), c.format);
    EXPECT_EQ(loaded.float_field(), 500.0);
    ExpectSamples(header, src, o, c.captureBits);
    // The header file says where the capture came from.
    EXPECT_NE(test::ReadFile(header).find("source: fake.src"), std::string::npos);
  }
  // A frame range and a region at the bottom-right border, an odd width,
  // a single frame.
  FakeSource src(33, 17, 9, 12, 500.0);
  ImportOptions o;
  o.firstFrame = o.lastFrame = 8;
  o.roiX = 30, o.roiY = 10, o.roiWidth = 3, o.roiHeight = 7;
  std::string error;
  ASSERT_TRUE(Import(src, "fake.src", dir.file("roi.hdr"), o, nullptr, &error)) << error;
  ExpectSamples(dir.file("roi.hdr"), src, o, 12);
}

// A reader passed through, with its stored-form path offered or hidden, and
// the frames that took it counted.
class Through : public VideoSource {
 public:
  Through(VideoSource& inner, bool stored) : inner_(inner), stored_(stored) {
    info_ = inner.info();
  }
  bool ReadFrame(std::int64_t f, std::uint16_t* s, std::string* error) override {
    return inner_.ReadFrame(f, s, error);
  }
  bool HasCaptureBytes(int bits) const override { return stored_ && inner_.HasCaptureBytes(bits); }
  bool ReadCaptureBytes(std::int64_t f, int bits, unsigned y0, unsigned rows, std::uint8_t* out,
                        std::string* error) override {
    ++storedFrames;
    return inner_.ReadCaptureBytes(f, bits, y0, rows, out, error);
  }
  int storedFrames = 0;

 private:
  VideoSource& inner_;
  bool stored_;
};

TEST(Import, StoredFramesGoStraightIntoTheSameCapture) {
  test::ScratchDir dir;
  for (const int bits : {8, 12}) {
    for (const unsigned width : {34u, 33u}) {
      const FakeSource codes(width, 10, 5, bits, 500.0);
      const MrawSetup setup{width, 10, 5, 500.0, bits};
      const std::string cih =
          dir.file("r" + std::to_string(bits) + "_" + std::to_string(width) + ".cih");
      std::string error;
      ASSERT_TRUE(WriteMraw(
          cih, setup,
          [&](std::int64_t f, std::uint16_t* c) {
            ASSERT_TRUE(FakeSource(codes).ReadFrame(f, c, &error));
          },
          &error))
          << error;
      std::unique_ptr<VideoSource> mraw = OpenSource(cih, &error);
      ASSERT_TRUE(mraw) << error;
      struct Region {
        unsigned x, y, w, h;
        bool stored;  // whole rows starting and ending on a whole pair
      } regions[] = {{0, 0, 0, 0, true},
                     {0, 2, width, 4, true},
                     {0, 1, width, 4, width % 2 == 0 || bits == 8},
                     {0, 8, width, 1, width % 2 == 0 || bits == 8},
                     {1, 0, width - 1, 10, false}};
      for (const Region& r : regions) {
        SCOPED_TRACE(std::to_string(bits) + "-bit, " + std::to_string(width) + " wide, rows " +
                     std::to_string(r.y) + "+" + std::to_string(r.h));
        ImportOptions o;
        o.firstFrame = 1;
        o.roiX = r.x, o.roiY = r.y, o.roiWidth = r.w, o.roiHeight = r.h;
        Through direct(*mraw, true), converted(*mraw, false);
        ASSERT_TRUE(Import(direct, cih, dir.file("d.hdr"), o, nullptr, &error)) << error;
        ASSERT_TRUE(Import(converted, cih, dir.file("c.hdr"), o, nullptr, &error)) << error;
        EXPECT_EQ(direct.storedFrames, r.stored ? 4 : 0);
        EXPECT_EQ(converted.storedFrames, 0);
        EXPECT_EQ(test::ReadFile(dir.file("d/d_0001.div")),
                  test::ReadFile(dir.file("c/c_0001.div")));
        ExpectSamples(dir.file("d.hdr"), codes, o, bits);
      }
    }
  }
}

TEST(Import, RefusalsAndFailuresLeaveNoCapture) {
  test::ScratchDir dir;
  const std::string header = dir.file("x.hdr");
  const auto refused = [&](FakeSource& src, const ImportOptions& o, const std::string& words) {
    std::string error;
    EXPECT_FALSE(Import(src, "fake.src", header, o, nullptr, &error));
    EXPECT_NE(error.find(words), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_FALSE(std::filesystem::exists(header));
  };
  FakeSource src(8, 6, 5, 12, 100.0);
  ImportOptions o;
  o.lastFrame = 5;
  refused(src, o, "not within its 5 frames");
  o = {};
  o.roiX = 4, o.roiWidth = 5, o.roiHeight = 1;
  refused(src, o, "region 4,0,5,1");
  FakeSource noRate(8, 6, 5, 12, 0.0);
  refused(noRate, {}, "give --fps");
  FakeSource empty(0, 0, 5, 8, 100.0);
  refused(empty, {}, "no image");
  src.failAt = 3;
  refused(src, {}, "frame 3 is damaged");
  src.failAt = -1;
  std::atomic<bool> cancel{true};
  o = {};
  o.cancel = &cancel;
  refused(src, o, "cancelled");
  // A source without a rate imports with one given.
  o = {};
  o.fps = 250.0;
  std::string error;
  EXPECT_TRUE(Import(noRate, "fake.src", header, o, nullptr, &error)) << error;
}

}  // namespace
}  // namespace frfcam::camera
