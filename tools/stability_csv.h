// The FRF table of the stability commands as a CSV file: optional header
// rows, then one row per spectral line: the frequency in Hz, followed by the
// real and the imaginary part of each channel's FRF at that line. Comments,
// separators and decimal commas as text_table.h reads them.
#pragma once

#include <complex>
#include <cstdint>
#include <string>
#include <vector>

namespace frfcam::cli {

struct FrfTable {
  std::vector<double> frequencyHz;
  // channels[c][i]: channel c at line i.
  std::vector<std::vector<std::complex<double>>> channels;
  // One name per channel where the source has them (UFF: node and
  // direction of the response); empty otherwise.
  std::vector<std::string> names;
};

struct CsvInfo {
  bool header = false;  // rows of names came before the numbers (and were skipped)
};

// Reads the table a row at a time (memory grows with the values, not the
// text). Up to two rows before the first row of numbers are headers (names,
// units). Throws CommandError naming the file and the line of the first
// problem (a row longer than kMaxTextRowBytes is one).
FrfTable ReadFrfCsv(const std::string& path, CsvInfo* info = nullptr);

// Writes the table with full double precision under the header
// frequency_hz,ch1_re,ch1_im,ch2_re,... ; throws CommandError on failure.
void WriteFrfCsv(const std::string& path, const FrfTable& table);

}  // namespace frfcam::cli
