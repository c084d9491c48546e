// Numeric text tables as people write them by hand, with spreadsheets or
// with numpy: `#` comments (whole lines, or after the values), up to two
// header rows (names, then perhaps units), and values separated by `,`, `;`,
// tabs or blanks. The separator is the one of the first data row: `;` when
// it has one (and then a decimal comma is read as a point, 1,5;2,25), else
// `,`, else a tab, else runs of blanks. Shared by the FRF tables and the
// reference files, so both accept the same.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace frfcam::cli {

// A file that is not such a table: the message is one line, naming the file
// and, where there is one, the line ("path:12: ..."). A std::invalid_argument
// so that the Python module raises it as ValueError.
struct TextTableError : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

// Rows longer than this are refused before they are held: the tables hold a
// few numbers a row, so such a row is a wrong file, not data.
inline constexpr std::uint64_t kMaxTextRowBytes = 16ull << 20;
// No number needs more characters than this.
inline constexpr std::size_t kMaxTextFieldBytes = 256;
// Rows of names before the first row of numbers; a third is an error, since
// a file with that many is more likely a wrong file than a table.
inline constexpr int kMaxHeaderRows = 2;

class TextTableReader {
 public:
  // Opens `path`; throws TextTableError when it cannot be opened.
  explicit TextTableReader(const std::string& path);

  // The next row of numbers, skipping blank lines, comments and the header
  // rows before the first data row; false at the end of the file. Every data
  // row must have as many values as the first one. Throws TextTableError
  // ("path:line: ...") for a value that is not a finite number, a row of
  // another length, an overlong row or value, or a read error.
  bool Next(std::vector<double>* values);

  // The line of the row Next() returned last (1 = first line of the file).
  long line() const { return line_; }
  // Header rows skipped so far.
  int headerRows() const { return headerRows_; }
  // "path:line: " of the last row, for the caller's own checks of it.
  std::string Where() const;

 private:
  bool ReadLine();  // the next line into line_text_; false at end of file
  std::string path_;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0, end_ = 0;
  std::string lineText_;
  long line_ = 0;
  int headerRows_ = 0;
  char separator_ = 0;  // 0 until the first data row; ' ' for runs of blanks
  std::size_t columns_ = 0;
};

}  // namespace frfcam::cli
