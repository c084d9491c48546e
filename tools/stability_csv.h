// The FRF table of the stability commands as a CSV file: an optional header
// row, then one row per spectral line: the frequency in Hz, followed by the
// real and the imaginary part of each channel's FRF at that line.
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

// Rows longer than this are refused before they are held: a table has one
// spectral line per row, so such a row is a wrong file, not data.
inline constexpr std::uint64_t kMaxCsvRowBytes = 16ull << 20;
// No number needs more characters than this.
inline constexpr std::size_t kMaxCsvFieldBytes = 256;

struct CsvInfo {
  bool header = false;  // the first row held names (and was skipped)
};

// Reads the table as a stream (memory grows with the values, not the text).
// The first row is a header when any of its fields is not a number; a first
// row of numbers is data. Blank lines are skipped and fields may be padded
// with blanks. Throws CommandError naming the file and the line of the first
// problem (a row longer than kMaxCsvRowBytes is one).
FrfTable ReadFrfCsv(const std::string& path, CsvInfo* info = nullptr);

// Writes the table with full double precision under the header
// frequency_hz,ch1_re,ch1_im,ch2_re,... ; throws CommandError on failure.
void WriteFrfCsv(const std::string& path, const FrfTable& table);

}  // namespace frfcam::cli
