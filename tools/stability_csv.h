// The FRF table of the stability commands: a CSV file with a header row,
// then one row per spectral line: the frequency in Hz, followed by the real
// and the imaginary part of each channel's FRF at that line.
#pragma once

#include <complex>
#include <string>
#include <vector>

namespace frfcam::cli {

struct FrfTable {
  std::vector<double> frequencyHz;
  // channels[c][i]: channel c at line i.
  std::vector<std::vector<std::complex<double>>> channels;
};

// Reads the table; throws CommandError naming the file and the line of the
// first problem (blank lines are skipped, fields may be padded with blanks).
FrfTable ReadFrfCsv(const std::string& path);

// Writes the table with full double precision under the header
// frequency_hz,ch1_re,ch1_im,ch2_re,... ; throws CommandError on failure.
void WriteFrfCsv(const std::string& path, const FrfTable& table);

}  // namespace frfcam::cli
