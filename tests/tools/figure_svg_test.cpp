#include "figure_svg.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "png_reader.h"
#include "support/contains.h"
#include "support/test_support.h"
#include "svg_raster.h"

namespace frfcam::cli {
namespace {

TEST(Figure, Base64PadsTheLastGroup) {
  EXPECT_EQ(Base64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(Base64("fooba"), "Zm9vYmE=");
  EXPECT_EQ(Base64("foob"), "Zm9vYg==");
  EXPECT_EQ(Base64(std::string("\xff\x00", 2)), "/wA=");
}

TEST(Figure, CaptionWritesTheSameTextUnderEveryFrame) {
  if (!SvgRasterAvailable()) GTEST_SKIP() << "built without librsvg";
  Palette grey;
  for (int i = 0; i < 256; ++i) grey[i] = {std::uint8_t(i), std::uint8_t(i), std::uint8_t(i)};
  std::vector<std::vector<std::uint8_t>> frames(2, std::vector<std::uint8_t>(200 * 10, 7));
  unsigned height = 10;
  AddCaption(&frames, 200, &height, grey, "mode 1: 60.00 Hz, damping 2.00 %");
  ASSERT_GT(height, 20u);
  ASSERT_EQ(frames[0].size(), 200u * height);
  EXPECT_EQ(frames[0], frames[1]);
  EXPECT_EQ(frames[0][0], 7) << "the picture stays on top";
  int dark = 0, white = 0;
  for (std::size_t p = 200 * 10; p < frames[0].size(); ++p) {
    dark += frames[0][p] < 100;
    white += frames[0][p] == 255;
  }
  EXPECT_GT(dark, 50);
  EXPECT_GT(white, dark);
}

// A PNG's width, height, bit depth and colour type: bytes 16-25 of its header.
std::string Ihdr(const std::string& path) { return test::ReadFile(path).substr(16, 10); }

TEST(Figure, MapAndModesFiguresExplainThemselvesAndTheDefaultsStayBare) {
  if (!SvgRasterAvailable()) GTEST_SKIP() << "built without librsvg";
  test::ScratchDir dir;
  const std::string header = dir.file("p.hdr"), ref = dir.file("p_reference.txt");
  ASSERT_EQ(test::Cli("synth " + header + " --width 40 --height 30 --frames 128 --fps 1000").status,
            0);
  ASSERT_EQ(test::Cli("render " + header).status, 0);
  ASSERT_EQ(test::Cli("map " + header + " --bin 19 -o " + dir.file("bare.png")).status, 0);
  ASSERT_EQ(test::Cli("map " + header + " --bin 19 --figure -o " + dir.file("fig.png")).status, 0);
  ASSERT_EQ(test::Cli("map " + header + " --bin 19 --figure --reference " + ref + " -o " +
                      dir.file("ref.png"))
                .status,
            0);
  const std::string size40x30("\0\0\0\x28\0\0\0\x1e", 8);
  EXPECT_EQ(Ihdr(dir.file("bare.png")), size40x30 + std::string("\x08\0", 2)) << "8-bit grey";
  Png fig, ref_fig;
  ASSERT_TRUE(ReadPng(dir.file("fig.png"), &fig));
  ASSERT_TRUE(ReadPng(dir.file("ref.png"), &ref_fig));
  EXPECT_GT(fig.width, 40u);
  EXPECT_GT(fig.height, 30u);
  EXPECT_TRUE(test::Contains(fig.text["Description"], "148.44 Hz (bin 19)"));
  EXPECT_TRUE(test::Contains(fig.text["Description"], "|X| [counts]"));
  EXPECT_TRUE(test::Contains(ref_fig.text["Description"], "|X/R| [counts per reference unit]"));

  ASSERT_EQ(test::Cli("modes " + header + " --reference " + ref + " -o " + dir.file("bare")).status,
            0);
  ASSERT_EQ(test::Cli("modes " + header + " --reference " + ref + " --figure -o " + dir.file("fig"))
                .status,
            0);
  EXPECT_EQ(Ihdr(dir.file("bare/mode_1.png")).substr(0, 8), size40x30);
  Png mode;
  ASSERT_TRUE(ReadPng(dir.file("fig/mode_1.png"), &mode));
  EXPECT_GT(mode.width, 40u);
  EXPECT_TRUE(test::Contains(mode.text["Description"], "damping"));
  // A GIF's logical screen height, little-endian at bytes 8-9.
  const auto gifHeight = [](const std::string& path) {
    const std::string b = test::ReadFile(path);
    return b.size() > 10 ? static_cast<unsigned char>(b[8]) | static_cast<unsigned char>(b[9]) << 8
                         : 0;
  };
  EXPECT_EQ(gifHeight(dir.file("bare/mode_1.gif")), 30);
  EXPECT_GT(gifHeight(dir.file("fig/mode_1.gif")), 30);
}

}  // namespace
}  // namespace frfcam::cli
