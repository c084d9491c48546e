// The stabilisation chart drawn into pixels, for PNG output without an SVG
// renderer: the same layout, symbols and colours as StabilisationChartSvg
// (s filled blue circle, f open green circle, d orange plus, o grey dot,
// selected modes red dashed, the summed magnitude grey on a log scale), with
// numeric tick labels in a small pixel font; the axis titles travel as PNG
// text chunks.
#pragma once

#include <cstdint>
#include <vector>

#include "chart_svg.h"

namespace frfcam::cli {

// width x height RGB pixels (3 bytes each, raster order); width and height
// of at least 200 x 150.
std::vector<std::uint8_t> StabilisationChartRgb(const ChartInput& chart, unsigned width,
                                                unsigned height);

}  // namespace frfcam::cli
