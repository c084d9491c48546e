// How a command ends other than by returning: kept apart from the command
// registrations so that the tool's other files do without the argument
// parser's header, whose inline code costs seconds in every file.
#pragma once

#include <stdexcept>

namespace frfcam::cli {

// A failure that the tool reports as one line on stderr with exit code 1.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Ends the tool with `code` after the command has reported what happened
// (for example 130 after a cancelled render).
struct ExitWith {
  int code;
};

}  // namespace frfcam::cli
