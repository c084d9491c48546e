// Pictures of a full-field displacement mode shape: the mean frame with a
// magnified deformed grid over it (PNG), and the mean frame itself warped
// through one period of the motion (looping GIF).
#pragma once

#include <complex>
#include <string>

namespace frfcam::cli {

// A displacement shape over the image. A component is measured where both
// its real and imaginary parts are finite; a null x or y counts as
// unmeasured everywhere.
struct DisplacementField {
  unsigned width = 0, height = 0;
  const float* mean = nullptr;  // mean frame, raster order, brightness (any scale)
  const std::complex<float>* x =
      nullptr;  // raster order; columns, positive right; NaN = unmeasured
  const std::complex<float>* y = nullptr;  // rows, positive down; NaN = unmeasured
  double theta = 0.0;                      // the shape is drawn as Re(v * exp(-i theta))
  std::string units = "px";                // units of x and y ("px" or "mm")
  double unitsPerPx = 1.0;                 // mm per px when units is "mm"
  std::string title;                       // e.g. "mode 1: 60.0 Hz, damping 2.0 %"
  // Side of the window the displacement was estimated over (px): the GIF
  // fills unmeasured displacement out to about three of these. 0 guesses
  // 1/32 of the smaller image side, at least 3 px.
  double windowPx = 0.0;
  // Figures: the PNG with the title, the magnification and a colour bar of
  // the grid's colours, the GIF with the title in a caption strip below.
  bool figure = false;
};

// Writes an RGB PNG: the mean frame in grey (contrast stretched between its
// 1st and 99th percentiles) with a grid over the measured area (spacing
// about 1/16 of the smaller side, at least 6 px), drawn faintly where it
// rests and in colour (amber to red with the local displacement) where the
// magnified real shape moves it. A pixel counts as measured when either
// component is; the other is then taken as 0. The magnification puts the
// 99th percentile of the measured displacement magnitude at about 6 % of
// the smaller side (at least 4 px). tEXt chunks: "Title", "Scale" (the
// magnification in words, or why there is none) and "Software". Throws
// CommandError for an empty image, a missing mean frame or a failed write.
// With field.figure the picture goes into a figure (ImageFigureSvg) with the
// title, the scale and a bar of the grid colours from 0 to that percentile.
void WriteDisplacementPng(const std::string& path, const DisplacementField& field);

// Writes a looping 24-frame grey GIF of the mean frame warped by the
// magnified shape: frame j shows
//   I(p) = mean(p - a * Re(v(p) * exp(i (2 pi j / 24 - theta))))
// sampled bilinearly. Unmeasured displacement is filled from measured
// neighbours, fading out over about three windows (0 beyond), so that
// untextured edges move with the structure instead of tearing. The
// magnification a puts the 99th percentile of the measured magnitude at
// about 3 % of the smaller side (at least 2 px). With field.figure every
// frame gets the title in a caption strip below. Throws CommandError as
// WriteDisplacementPng does.
void WriteMotionGif(const std::string& path, const DisplacementField& field);

}  // namespace frfcam::cli
