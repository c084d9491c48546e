// SVG documents turned into pixels with librsvg, so that every PNG figure
// the tool writes is drawn once, as SVG, with real text. Builds without
// librsvg (the Windows cross build) keep the SVG output and refuse PNG
// figures with one line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace frfcam::cli {

// Whether this build can rasterise SVG.
bool SvgRasterAvailable();

// Throws CommandError saying that `what` needs librsvg and that the .svg
// form works, when this build cannot rasterise; returns otherwise. Called
// before any work so that a missing renderer fails fast.
void RequireSvgRaster(const std::string& what);

// `svg` drawn over white at width x height pixels (the document's viewBox
// scaled to fit), as RGB bytes in raster order. Throws CommandError when
// the document does not parse or this build cannot rasterise.
std::vector<std::uint8_t> RasteriseSvg(const std::string& svg, unsigned width, unsigned height);

}  // namespace frfcam::cli
