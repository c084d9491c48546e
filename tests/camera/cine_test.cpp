// The CINE reader against files written here from the format's description:
// every sample in raster order from the top-left, and one-line refusals of
// damaged files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "camera/camera_test_util.h"
#include "support/test_support.h"

namespace frfcam::camera {
namespace {

using Frame = std::vector<std::uint16_t>;  // raster order from the top-left

// What the writer puts in a file; the defaults make a valid 8-bit one.
struct Cine {
  int width = 7, height = 5;
  bool bottom_up = true;
  int bit_count = 8;
  std::uint32_t packing = 0;      // the bitmap's compression
  std::uint16_t compression = 0;  // the file header's
  std::uint32_t real_bits = 8, fps = 4000, cfa = 0;
  std::vector<std::uint32_t> annotations = {8};  // an image's, the last repeating
  std::vector<Frame> frames;
  std::uint32_t claimed = 0;  // images the header claims; 0: as many as written
};

void Put(std::string* s, std::size_t at, std::uint64_t v, int bytes) {
  if (s->size() < at + bytes) s->resize(at + bytes);
  for (int i = 0; i < bytes; ++i) (*s)[at + i] = static_cast<char>(v >> (8 * i));
}

// Codes of the stored rows, 10-bit ones as one bit stream, high bit first.
std::string Pixels(const Cine& c, const Frame& frame) {
  std::string out;
  std::uint64_t bits = 0;
  int held = 0;
  for (int s = 0; s < c.height; ++s) {
    const int row = c.bottom_up ? c.height - 1 - s : s;
    for (int x = 0; x < c.width; ++x) {
      const std::uint16_t v = frame[row * c.width + x];
      if (c.bit_count == 10) {
        bits = bits << 10 | v;
        for (held += 10; held >= 8; held -= 8) out += static_cast<char>(bits >> (held - 8));
      } else {
        out += static_cast<char>(v);
        if (c.bit_count == 16) out += static_cast<char>(v >> 8);
      }
    }
  }
  if (held > 0) out += static_cast<char>(bits << (8 - held));
  return out;
}

std::string Write(const Cine& c, const std::string& path) {
  const std::size_t n = c.frames.size(), setup = 84, setup_len = 1000, table = setup + setup_len;
  std::string s(table + 8 * n, '\0');
  s[0] = 'C', s[1] = 'I';
  const std::string first = Pixels(c, c.frames.at(0));
  const std::uint32_t height = c.bottom_up ? c.height : -c.height;
  Put(&s, 2, 44, 2);
  Put(&s, 4, c.compression, 2);
  Put(&s, 6, 1, 2);
  Put(&s, 16, static_cast<std::uint32_t>(-3), 4);  // first image number
  Put(&s, 20, c.claimed != 0 ? c.claimed : n, 4);
  Put(&s, 24, 44, 4);
  Put(&s, 28, setup, 4);
  Put(&s, 32, table, 4);
  Put(&s, 44, 40, 4);  // bitmap header
  Put(&s, 48, c.width, 4);
  Put(&s, 52, height, 4);
  Put(&s, 56, 1, 2);
  Put(&s, 58, c.bit_count, 2);
  Put(&s, 60, c.packing, 4);
  Put(&s, 64, first.size(), 4);
  Put(&s, setup, c.fps / 10, 2);  // the 16-bit rate, superseded by the 32-bit one
  s[setup + 140] = 'S', s[setup + 141] = 'T';
  Put(&s, setup + 142, setup_len, 2);
  Put(&s, setup + 768, c.fps, 4);
  Put(&s, setup + 808, c.cfa, 4);
  Put(&s, setup + 896, c.real_bits, 4);
  for (std::size_t f = 0; f < n; ++f) {
    const std::string px = Pixels(c, c.frames[f]);
    const std::uint32_t ann = c.annotations[std::min(f, c.annotations.size() - 1)];
    Put(&s, table + 8 * f, s.size(), 8);
    std::string image(ann, '\xA5');  // annotation text the reader must skip
    Put(&image, 0, ann, 4);
    Put(&image, ann - 4, px.size(), 4);
    s += image + px;
  }
  test_util::Save(path, s);
  return s;
}

Frame Codes(const Cine& c, std::uint32_t seed) {
  Frame v(static_cast<std::size_t>(c.width) * c.height);
  const int bits = c.bit_count == 16 ? c.real_bits : c.bit_count;
  for (auto& x : v)
    x = static_cast<std::uint16_t>((seed = seed * 1103515245u + 12345u) >> 16) & ((1u << bits) - 1);
  return v;
}

// One line that names the file and says `about`.
void ExpectOneLine(const std::string& error, const std::string& path, const char* about) {
  EXPECT_TRUE(error.rfind(path, 0) == 0 && error.find('\n') == std::string::npos &&
              error.find(about) != std::string::npos)
      << error;
}

// Each layout: the sizes, rate and bits it reports, and every sample of every
// frame, read out of order.
TEST(Cine, EverySampleOfEachLayoutInRasterOrder) {
  test::ScratchDir dir;
  Cine eight;  // bottom-up, odd width, the least annotation
  Cine sixteen = eight;
  sixteen.width = 6, sixteen.height = 4, sixteen.bottom_up = false, sixteen.bit_count = 16;
  sixteen.real_bits = 12, sixteen.annotations = {40, 8, 100};  // the reader re-reads on a change
  Cine packed = eight;
  packed.width = 5, packed.height = 3, packed.bit_count = 10, packed.packing = 256;
  packed.annotations = {24};
  Cine packed_top = packed;
  packed_top.width = 8, packed_top.bottom_up = false, packed_top.compression = 2;
  Cine single = eight;
  single.width = 1, single.height = 1;
  int k = 0;
  for (Cine* c : {&eight, &sixteen, &packed, &packed_top, &single}) {
    SCOPED_TRACE(k);
    const std::string path = dir.file(std::to_string(k++) + ".cine");
    for (int f = 0; f < (c == &single ? 1 : 3); ++f) c->frames.push_back(Codes(*c, 7 * f + k));
    Write(*c, path);
    std::string error;
    auto source = OpenCine(path, &error);
    ASSERT_TRUE(source) << error;
    const SourceInfo& info = source->info();
    EXPECT_EQ(std::tie(info.format, info.width, info.height, info.frames, info.fps, info.bits),
              std::make_tuple("CINE", unsigned(c->width), unsigned(c->height),
                              std::int64_t(c->frames.size()), double(c->fps),
                              c->bit_count == 16 ? 12 : c->bit_count));
    EXPECT_EQ(info.notes.empty(), c->bit_count != 10);
    for (int f : {2, 0, 1}) {
      if (f >= int(c->frames.size())) continue;
      Frame got(c->frames[f].size());
      ASSERT_TRUE(source->ReadFrame(f, got.data(), &error)) << error;
      EXPECT_EQ(got, c->frames[f]) << "frame " << f;
    }
  }
}

// Damage found on opening, or on reading the frame it spoils: one line with
// the file and what is wrong, never a crash.
TEST(Cine, DamagedFilesGiveOneLine) {
  test::ScratchDir dir;
  Cine good;
  good.annotations = {40};
  for (int f = 0; f < 3; ++f) good.frames.push_back(Codes(good, f));
  const std::string path = dir.file("bad.cine");
  const std::string whole = Write(good, path);
  auto open_fails = [&](const std::string& bytes, const char* about) {
    test_util::Save(path, bytes);
    std::string error;
    EXPECT_FALSE(OpenCine(path, &error)) << about;
    ExpectOneLine(error, path, about);
  };
  open_fails(whole.substr(0, 30), "not a CINE file");
  open_fails(whole.substr(0, whole.size() - 50), "outside the file");  // last image cut
  std::string bad_offset = whole;
  Put(&bad_offset, 84 + 1000 + 8, std::uint64_t{1} << 40, 8);
  open_fails(bad_offset, "image 1 of 3 lies outside");
  auto variant = [&](auto change, const char* about) {
    Cine c = good;
    change(c);
    open_fails(Write(c, path), about);
  };
  variant([](Cine& c) { c.claimed = 1000; }, "claims 1000 images");
  variant([](Cine& c) { c.width = 0, c.height = 0; }, "image size 0x0");
  variant([](Cine& c) { c.width = 1 << 20, c.height = 1, c.frames = {Frame(1 << 20)}; },
          "is not a camera's");
  variant([](Cine& c) { c.packing = 1; }, "compression 1 is not supported");
  variant([](Cine& c) { c.bit_count = 24; }, "colour");
  variant([](Cine& c) { c.compression = 2, c.cfa = 3; }, "colour sensor");

  // Read-time damage: a cut through the last image's pixels, and 16-bit
  // samples beyond the real bits the setup gives.
  test_util::Save(path, whole.substr(0, whole.size() - 3));
  std::string error;
  Frame got(good.frames[0].size());
  auto source = OpenCine(path, &error);
  ASSERT_TRUE(source) << error;
  EXPECT_TRUE(source->ReadFrame(1, got.data(), &error)) << error;
  EXPECT_FALSE(source->ReadFrame(2, got.data(), &error));
  ExpectOneLine(error, path, "image 2");
  Cine wide = good;
  wide.bit_count = 16, wide.real_bits = 12;
  wide.frames[0][3] = 4096;
  source.reset();  // Windows refuses to replace a file held open
  Write(wide, path);
  ASSERT_TRUE(source = OpenCine(path, &error)) << error;
  EXPECT_FALSE(source->ReadFrame(0, got.data(), &error));
  ExpectOneLine(error, path, "exceed the 12 bits");
}

}  // namespace
}  // namespace frfcam::camera
