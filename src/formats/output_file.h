// Output files that are either written whole or not at all: a check that a
// path can take a file before long work starts, and a write through a
// temporary file that replaces the target only when everything was written.
#pragma once

#include <string>

namespace frfcam::formats {

// True when a file can be written at `path`: its folder exists and is
// writable and `path` is not a folder. A device (for example /dev/full) is
// tried with one byte. Leaves no file behind that was not there before; an
// existing file is not changed. Otherwise false with a one-line reason in
// *why (naming the path).
bool CanWriteFile(const std::string& path, std::string* why);

// Writes `bytes` to `path`. A regular file (or a new one) is written to a
// temporary file beside it that is renamed over `path` once complete, so a
// reader never sees a half-written file; a device is written directly.
// False with a one-line reason in *why on any failure (the target is then
// unchanged, except for devices).
bool WriteFileWhole(const std::string& path, const std::string& bytes, std::string* why);

}  // namespace frfcam::formats
