// Figures that explain themselves: a picture (an FRF map, a mode shape)
// with a title, a colour bar with its values and the quantity with units,
// drawn as SVG and rasterised to PNG; and a caption strip for the GIFs.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "chart_svg.h"
#include "png_writer.h"

namespace frfcam::cli {

struct ImageFigure {
  std::string title;     // first line, e.g. "FRF map at 60.00 Hz (bin 12)"
  std::string subtitle;  // optional second, smaller line
  // The picture: width x height pixels of `channels` bytes (1 grey, 3 RGB),
  // raster order.
  std::vector<std::uint8_t> pixels;
  unsigned channels = 1;
  unsigned width = 0, height = 0;
  // The colour bar, low to high values in evenly spaced colours; none when
  // empty.
  std::vector<std::array<std::uint8_t, 3>> barColours;
  double barLow = 0.0, barHigh = 1.0;  // values at the bar's ends
  std::string quantity;                // the bar's label, e.g. "|X| [counts]"
};

// A figure as an SVG document and the pixel size it is meant for.
struct FigureSvg {
  std::string svg;
  unsigned width = 0, height = 0;
};

// The figure: the title (and subtitle) on top, the picture below scaled by
// a whole factor when small (so its larger side reaches about 480 px; the
// pixels are repeated before embedding, as not every SVG renderer honours
// image-rendering) or down to 1200 px when large, and to its right the
// colour bar with 3-5 round tick values and the quantity written along it.
FigureSvg ImageFigureSvg(const ImageFigure& figure);

// Rasterises `figure` and writes it as an RGB PNG with `text` chunks.
// Throws CommandError when this build cannot rasterise or the write fails.
void WriteFigurePng(const std::string& path, const FigureSvg& figure, const PngText& text);

// `bytes` in base64 (RFC 4648, padded), for data: URIs.
std::string Base64(const std::string& bytes);

// Appends a strip with `text` centred in it below every frame (palette
// indices, width x *height each), rasterised once and mapped to the
// nearest colours of `palette`; *height grows by the strip's rows. Throws
// CommandError when this build cannot rasterise.
void AddCaption(std::vector<std::vector<std::uint8_t>>* frames, unsigned width, unsigned* height,
                const Palette& palette, const std::string& text);

}  // namespace frfcam::cli
