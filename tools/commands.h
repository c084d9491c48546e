// The subcommands of the frfcam tool, one registration function per area.
#pragma once

#include <CLI/CLI.hpp>
#include <stdexcept>
#include <string>
#include <vector>

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

// Checks for numeric options whose refusals read as people write numbers
// (CLI11's own print the range's end, the largest double, in full).
const CLI::Validator& NonNegative();
const CLI::Validator& Positive();

void RegisterCaptureCommands(CLI::App& app);    // synth, info
void RegisterCubeCommands(CLI::App& app);       // render, map, delete
void RegisterStabilityCommands(CLI::App& app);  // stability, synth-frf
void RegisterModesCommand(CLI::App& app);       // modes
void RegisterImportCommand(CLI::App& app);      // import
void RegisterViewCommand(CLI::App& app);        // view (builds with an HTTP server)

// The capture header to use for `path`: `path` itself when it is a capture
// header, else the import of the recording it names, made once and kept
// beside it (or below `workDir`) while the recording is unchanged.
// Progress on stderr; throws CommandError, or ExitWith{130} on Ctrl-C.
std::string CaptureFor(const std::string& path, const std::string& workDir);

}  // namespace frfcam::cli
