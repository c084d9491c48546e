#include "displacement_pictures.h"

#include <gif_lib.h>
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "command_error.h"
#include "png_reader.h"
#include "support/contains.h"
#include "support/test_support.h"

namespace frfcam::cli {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// The frames of a GIF as palette indices (grey levels for these pictures).
std::vector<std::vector<std::uint8_t>> ReadGif(const std::string& path, int* width, int* height) {
  int error = 0;
  GifFileType* gif = DGifOpenFileName(path.c_str(), &error);
  if (gif == nullptr) return {};
  std::vector<std::vector<std::uint8_t>> frames;
  if (DGifSlurp(gif) == GIF_OK) {
    *width = gif->SWidth;
    *height = gif->SHeight;
    for (int i = 0; i < gif->ImageCount; ++i) {
      const GifByteType* bits = gif->SavedImages[i].RasterBits;
      frames.emplace_back(bits, bits + std::size_t(gif->SWidth) * gif->SHeight);
    }
  }
  DGifCloseFile(gif, &error);
  return frames;
}

// A bright textured bar across a dimmer textured background, bending in its
// first mode (up to kPeak px down at mid-span). Its top and bottom rows are
// untextured edges: unmeasured, like the background.
constexpr unsigned kW = 96, kH = 64, kTop = 24, kBottom = 39;
constexpr double kPeak = 0.02;
struct BendingBar {
  std::vector<float> mean;
  std::vector<std::complex<float>> x, y;
  DisplacementField field;

  BendingBar() : mean(kW * kH), x(kW * kH, {kNaN, kNaN}), y(kW * kH, {kNaN, kNaN}) {
    // The shape's phase is 0.7 rad; theta turns it back to real and positive.
    const std::complex<double> phase = std::polar(1.0, 0.7);
    for (unsigned r = 0; r < kH; ++r) {
      for (unsigned c = 0; c < kW; ++c) {
        const std::size_t p = std::size_t{r} * kW + c;
        const double texture = 0.5 + 0.5 * std::sin(1.7 * c + 0.3 * r) * std::cos(2.3 * r);
        const bool bar = r >= kTop && r <= kBottom;
        mean[p] = static_cast<float>(bar ? 200 + 40 * texture : 40 + 15 * texture);
        if (bar && r != kTop && r != kBottom) {
          x[p] = 0.0f;
          y[p] = std::complex<float>(kPeak * std::sin(std::numbers::pi * (c + 0.5) / kW) * phase);
        }
      }
    }
    field.width = kW;
    field.height = kH;
    field.mean = mean.data();
    field.x = x.data();
    field.y = y.data();
    field.theta = 0.7;
    field.title = "mode 1: 60.0 Hz, damping 2.0 %";
  }
};

TEST(DisplacementPng, GridFollowsTheBendOverTheMeasuredAreaOnly) {
  test::ScratchDir dir;
  BendingBar bar;
  WriteDisplacementPng(dir.file("shape.png"), bar.field);
  Png png;
  ASSERT_TRUE(ReadPng(dir.file("shape.png"), &png));
  EXPECT_EQ(png.width, kW);
  EXPECT_EQ(png.height, kH);
  EXPECT_EQ(png.text["Title"], bar.field.title);
  EXPECT_EQ(png.text["Software"], "frfcam modes");
  EXPECT_TRUE(test::Contains(png.text["Scale"], "px per reference unit"));

  // Colour only on and around the bar: its area, the drawn deformation
  // (4 px at most) and a pixel of anti-aliasing.
  int onBar = 0;
  for (unsigned r = 0; r < kH; ++r) {
    for (unsigned c = 0; c < kW; ++c) {
      if (!png.Coloured(c, r)) continue;
      ASSERT_GE(r, kTop + 1 - 6) << "column " << c;
      ASSERT_LE(r, kBottom - 1 + 6) << "column " << c;
      onBar += r > kTop && r < kBottom;
    }
  }
  EXPECT_GT(onBar, 200);

  // At mid-span the deformed grid (red there, where the motion is largest)
  // reaches past the bar's lower edge: moved down by about 4 px.
  unsigned lowestRed = 0;
  for (unsigned r = 0; r < kH; ++r) {
    const std::uint8_t* p = &png.rgb[3 * (std::size_t{r} * kW + kW / 2)];
    if (p[0] > 150 && p[1] < 80) lowestRed = r;
  }
  EXPECT_GE(lowestRed, kBottom + 1);
  EXPECT_LE(lowestRed, kBottom + 5);
}

TEST(MotionGif, BarMovesAndBackgroundStaysStill) {
  test::ScratchDir dir;
  BendingBar bar;
  WriteMotionGif(dir.file("shape.gif"), bar.field);
  int w = 0, h = 0;
  const auto frames = ReadGif(dir.file("shape.gif"), &w, &h);
  ASSERT_EQ(frames.size(), 24u);
  ASSERT_EQ(w, int(kW));
  ASSERT_EQ(h, int(kH));
  const auto at = [&](int j, unsigned c, unsigned r) { return frames[j][std::size_t{r} * kW + c]; };

  // The background beyond the fill (three 3-px windows) and the motion never changes.
  for (int j = 1; j < 24; ++j) {
    for (unsigned r = 0; r < kTop - 12; ++r) {
      for (unsigned c = 0; c < kW; ++c) ASSERT_EQ(at(j, c, r), at(0, c, r)) << j << " " << r;
    }
  }
  // Frame 0 shows the shape at +2 px (3 % of 64) mid-span: the bar's
  // unmeasured edges move with it, so its top row shows the dark background
  // and the row below its bottom shows the bar; half a period later it is the
  // other way round.
  const unsigned mid = kW / 2;
  EXPECT_LT(at(0, mid, kTop), 100);
  EXPECT_GT(at(0, mid, kBottom + 1), 150);
  EXPECT_GT(at(12, mid, kTop - 1), 150);
  EXPECT_LT(at(12, mid, kBottom), 100);
}

TEST(DisplacementPictures, DegenerateFieldsGiveTheMeanFrame) {
  test::ScratchDir dir;
  const auto scale = [&](const DisplacementField& f) {
    WriteDisplacementPng(dir.file("p.png"), f);
    WriteMotionGif(dir.file("p.gif"), f);
    Png png;
    EXPECT_TRUE(ReadPng(dir.file("p.png"), &png));
    int w = 0, h = 0;
    const auto frames = ReadGif(dir.file("p.gif"), &w, &h);
    EXPECT_EQ(frames.size(), 24u);
    for (const auto& frame : frames) EXPECT_EQ(frame, frames[0]);
    return png.text["Scale"];
  };

  BendingBar bar;
  std::vector<std::complex<float>> nothing(kW * kH, {kNaN, kNaN}), zero(kW * kH);
  bar.field.x = bar.field.y = nothing.data();
  EXPECT_TRUE(test::Contains(scale(bar.field), "no displacement measured"));
  bar.field.x = nullptr;
  EXPECT_TRUE(test::Contains(scale(bar.field), "no displacement measured"));
  bar.field.x = bar.field.y = zero.data();
  EXPECT_TRUE(test::Contains(scale(bar.field), "zero"));

  const float one = 1.0f;
  const std::complex<float> v(0.5f, 0.0f);
  DisplacementField tiny;
  tiny.width = tiny.height = 1;
  tiny.mean = &one;
  tiny.x = tiny.y = &v;
  tiny.units = "mm";
  tiny.unitsPerPx = 0.1;
  EXPECT_TRUE(test::Contains(scale(tiny), "mm per reference unit"));

  tiny.width = 0;
  EXPECT_THROW(WriteDisplacementPng(dir.file("p.png"), tiny), CommandError);
}

}  // namespace
}  // namespace frfcam::cli
