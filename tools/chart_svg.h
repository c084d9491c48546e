// Pictures the tool writes from plain data: the stabilisation chart as SVG,
// colour PNGs with text chunks, and animated GIFs (Debian's giflib).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace frfcam::cli {

// What a stabilisation chart shows: per model order the pole frequencies of
// each class (s: stable in frequency and damping, f: frequency only,
// d: damping only, o: not stable), the summed FRF magnitude over the lines
// drawn behind them, and the selected modes.
struct ChartInput {
  struct Order {
    int order = 0;
    std::vector<double> s, f, d, o;  // Hz
  };
  std::vector<Order> orders;
  std::vector<double> lineHz;
  std::vector<double> sumMagnitude;  // same length as lineHz; may be empty
  std::vector<double> selectedHz;
  std::string title;
};

// The chart as a standalone SVG document of width x height: frequency (Hz)
// on the x axis, order on the y axis, the classes as distinct symbols (s
// filled blue circle, f open green circle, d orange plus, o small grey dot),
// the magnitude as a grey curve on a log scale against a right-hand axis,
// and each selected mode as a red dashed vertical line. From the top: the
// title, the legend in a band of its own, and the selected modes' frequency
// labels, staggered over up to four rows so neighbours do not collide, all
// above the plot. Ranges come from the data; empty data give an empty chart
// with axes. The groups "legend" and "selected-labels" and the rect "frame"
// carry ids so the layout can be checked.
std::string StabilisationChartSvg(const ChartInput& chart, double width = 900, double height = 560);

// A round tick step (1, 2 or 5 times a power of ten) for about `count`
// ticks over `span`; 1 for an empty or invalid span.
double TickStep(double span, int count);

// Writes `text` to `path` (replacing it); throws CommandError on failure.
void WriteTextFile(const std::string& path, const std::string& text);

using Palette = std::array<std::array<std::uint8_t, 3>, 256>;

// An animated GIF that loops forever: every frame width x height palette
// indices (raster order), shown for `delayCentiseconds`. Throws CommandError
// on failure.
void WriteAnimatedGif(const std::string& path, const std::vector<std::vector<std::uint8_t>>& frames,
                      unsigned width, unsigned height, const Palette& palette,
                      int delayCentiseconds);

// A diverging colour map: index 0 is saturated blue (most negative), 128
// near white (zero), 255 saturated red (most positive).
Palette DivergingPalette();

}  // namespace frfcam::cli
