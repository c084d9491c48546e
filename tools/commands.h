// The subcommands of the frfcam tool, one registration function per area.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "command_error.h"

namespace frfcam::cli {

// Checks for numeric options whose refusals read as people write numbers
// (CLI11's own print the range's end, the largest double, in full).
const CLI::Validator& NonNegative();
const CLI::Validator& Positive();

// LOW:HIGH, two numbers, into *a and *b; a CommandError naming `option`
// when `text` is not that (the order of the two is the caller's to check).
void ParsePair(const std::string& text, const char* option, double* a, double* b);

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
