// Whether a capture's cube is there to be read: every cube file present and
// at least as long as the planes it must hold. A render that was cancelled
// or failed leaves its last files short (or missing), which this detects; a
// cube whose files are complete but stale (an older render of a capture
// since rewritten with the same size) is not detected.
#pragma once

#include <string>

namespace frfcam::modes {

// True when the cube of the capture `headerPath` is complete. When it is not
// (or the header cannot be read), `why` receives one line naming the first
// missing or short file.
bool CubeIsComplete(const std::string& headerPath, std::string* why = nullptr);

}  // namespace frfcam::modes
