#include "figure_svg.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "png_reader.h"
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

// Width, height and colour type from a PNG's header.
void PngHeader(const std::string& path, unsigned* w, unsigned* h, int* colourType) {
  const std::string b = test::ReadFile(path);
  ASSERT_GT(b.size(), 26u);
  const auto be = [&](int at) {
    unsigned v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
    return v;
  };
  *w = be(16);
  *h = be(20);
  *colourType = static_cast<unsigned char>(b[25]);
}

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
  unsigned w = 0, h = 0;
  int type = -1;
  PngHeader(dir.file("bare.png"), &w, &h, &type);
  EXPECT_EQ(w, 40u);
  EXPECT_EQ(h, 30u);
  EXPECT_EQ(type, 0) << "the bare map is 8-bit grey";
  Png fig, ref_fig;
  ASSERT_TRUE(ReadPng(dir.file("fig.png"), &fig));
  ASSERT_TRUE(ReadPng(dir.file("ref.png"), &ref_fig));
  EXPECT_GT(fig.width, 40u);
  EXPECT_GT(fig.height, 30u);
  const std::string& says = fig.text["Description"];
  EXPECT_NE(says.find("148.44 Hz (bin 19)"), std::string::npos) << says;
  EXPECT_NE(says.find("|X| [counts]"), std::string::npos) << says;
  EXPECT_NE(ref_fig.text["Description"].find("|X/R| [counts per reference unit]"),
            std::string::npos);

  ASSERT_EQ(test::Cli("modes " + header + " --reference " + ref + " -o " + dir.file("bare")).status,
            0);
  ASSERT_EQ(test::Cli("modes " + header + " --reference " + ref + " --figure -o " + dir.file("fig"))
                .status,
            0);
  PngHeader(dir.file("bare/mode_1.png"), &w, &h, &type);
  EXPECT_EQ(w, 40u);
  EXPECT_EQ(h, 30u);
  Png mode;
  ASSERT_TRUE(ReadPng(dir.file("fig/mode_1.png"), &mode));
  EXPECT_GT(mode.width, 40u);
  EXPECT_NE(mode.text["Description"].find("damping"), std::string::npos);
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
