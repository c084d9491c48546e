// The reference signal of FRF maps and modes as a text file: the excitation,
// one value per frame, as a column of values or as time, value pairs (a
// recorder's export), read as text_table.h reads tables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace frfcam::cli {

// The values of a reference file: one per line, or the second column of a
// two-column file. Throws TextTableError (a std::invalid_argument) naming the
// file and the line of the first problem, when the file cannot be read, or
// when it holds no value. `*fpsFromTimes` (when given) is the sampling rate
// the times of a two-column file give ((count - 1) / (last time - first
// time)), 0 for one column or a single row. The times must increase.
std::vector<float> ReadReference(const std::string& path, double* fpsFromTimes);

// Writes one warning line on stderr when a reference's times give a rate
// (`fpsFromTimes` > 0) more than 0.1 % away from the capture's `fps`, which
// the maps would then misplace in frequency. `source` says where `fps` came
// from ("the header", "--fps").
void WarnIfReferenceRateDiffers(const std::string& path, double fpsFromTimes, double fps,
                                const char* source);

// The reference of a capture of `frames` frames at `fps` (`source` as
// above): read by ReadReference, with the rate warning, and refused with a
// CommandError unless it has one value per frame, not all zero (a reference
// divides the spectra).
std::vector<float> ReadCaptureReference(const std::string& path, std::int64_t frames, double fps,
                                        const char* source);

}  // namespace frfcam::cli
