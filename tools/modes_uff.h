// The displacement modes of a capture as a universal file: the windows'
// centres as nodes (2411), the mode shapes at them (55) and their
// displacement FRFs (58), so modal tools can take the measurement on.
#pragma once

#include <string>

#include "modes/modes.h"

namespace frfcam::cli {

// Writes `r` (displacement shapes, with ModesResult::windowFrfs) to `path`
// whole. Coordinates and values are in pixels, or in millimetres when
// `mmPerPx` > 0; nodes lie in the image plane (z = 0) with x along the
// columns and y down the rows. A component a window cannot see is written
// as 0, the only value the format has for it. Throws CommandError.
void WriteModesUff(const std::string& path, const modes::ModesResult& r, double mmPerPx,
                   const std::string& captureName);

}  // namespace frfcam::cli
