// Whether a capture's cube is there to be read: its completion record says
// that the last render finished for the capture's dimensions (see
// frfmap/cube_record.h), and every cube file is present and at least as long
// as the planes it must hold (a file cut short after the render).
#pragma once

#include <string>

namespace frfcam::modes {

// True when the cube of the capture `headerPath` is complete. When it is not
// (or the header cannot be read), `why` receives one line naming the first
// missing or short file.
bool CubeIsComplete(const std::string& headerPath, std::string* why = nullptr);

}  // namespace frfcam::modes
