// Whether a capture's cube can be read whole, and if not, why, in words a
// user can act on. One check for everything that reads cubes outside the
// library's own exports (the modes fit, the command line, Python), so that
// none of them shows a missing or partly written cube as data.
#pragma once

#include <string>

#include "frfmap/capture_header.h"

namespace frfcam::frfmap {

enum class CubeState {
  kReady,         // the record says complete and every file is long enough
  kNoCube,        // the header gives no frames or no pixels
  kNotRendered,   // no completion record, or a cube file is missing
  kDamaged,       // the completion record cannot be trusted
  kOtherSize,     // rendered for other dimensions than the header's now
  kUnfinished,    // a render is running, was cancelled or failed
  kFileTooShort,  // a cube file was cut short after the render
  kTooLarge,      // the image is too large for the numbered cube files
};

// Checks the cube of the capture whose header, already read, is `header` at
// `header_path`: first its completion record (see cube_record.h), then that
// every cube file is present and at least as long as the planes it holds.
// Where not kReady, *why (when given) receives one line that names the
// capture, says what is wrong and what to do. Reads only the record and the
// files' sizes; never blocks.
CubeState CheckCube(const std::string& header_path, const CaptureHeader& header,
                    std::string* why = nullptr);

// Loads the header at `header_path` and checks its cube: true only when
// kReady. False too when the header cannot be read.
bool CubeIsComplete(const std::string& header_path);

// A few words for a state, such as "not rendered" or "incomplete".
const char* CubeStateName(CubeState state);

}  // namespace frfcam::frfmap
