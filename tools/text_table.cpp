#include "text_table.h"

#include <charconv>
#include <cmath>
#include <string_view>

#include "platform/platform.h"

namespace frfcam::cli {

namespace {

bool Blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view Trim(std::string_view s) {
  while (!s.empty() && Blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && Blank(s.back())) s.remove_suffix(1);
  return s;
}

// The separator a row suggests when none has been decided: `;` first, since
// a row with both is one with decimal commas.
char SeparatorOf(std::string_view row) {
  if (row.find(';') != std::string_view::npos) return ';';
  if (row.find(',') != std::string_view::npos) return ',';
  if (row.find('\t') != std::string_view::npos) return '\t';
  return ' ';
}

std::vector<std::string_view> Split(std::string_view row, char separator) {
  std::vector<std::string_view> fields;
  if (separator == ' ') {  // runs of blanks, as numpy's savetxt writes
    std::size_t i = 0;
    while (i < row.size()) {
      while (i < row.size() && Blank(row[i])) ++i;
      if (i == row.size()) break;
      std::size_t j = i;
      while (j < row.size() && !Blank(row[j])) ++j;
      fields.push_back(row.substr(i, j - i));
      i = j;
    }
    return fields;
  }
  for (;;) {
    const auto at = row.find(separator);
    fields.push_back(Trim(row.substr(0, at)));
    if (at == std::string_view::npos) return fields;
    row.remove_prefix(at + 1);
  }
}

// Null when `field` is a finite number (into *value), else why not.
const char* Convert(std::string_view field, bool decimalComma, double* value) {
  if (field.empty()) return "empty value";
  char text[kMaxTextFieldBytes];
  if (field.size() > sizeof text) return "is longer than 256 characters";
  std::size_t n = 0;
  for (char c : field) text[n++] = decimalComma && c == ',' ? '.' : c;
  const char* begin = text;
  if (n > 1 && text[0] == '+' && text[1] != '-') ++begin;  // from_chars takes no '+'
  const auto [end, ec] = std::from_chars(begin, text + n, *value);
  if (ec == std::errc::result_out_of_range) return "is not finite";
  if (ec != std::errc() || end != text + n) return "is not a number";
  if (!std::isfinite(*value)) return "is not finite";
  return nullptr;
}

}  // namespace

TextTableReader::TextTableReader(const std::string& path)
    : path_(path), file_(platform::OpenFile(path, "rb"), &std::fclose), buffer_(1 << 16) {
  if (!file_) throw TextTableError("cannot open " + path);
}

std::string TextTableReader::Where() const { return path_ + ":" + std::to_string(line_) + ": "; }

bool TextTableReader::ReadLine() {
  lineText_.clear();
  bool any = false, comment = false;
  std::size_t run = 0;  // characters of the value being read
  std::uint64_t bytes = 0;
  ++line_;
  for (;;) {
    if (begin_ == end_) {
      end_ = std::fread(buffer_.data(), 1, buffer_.size(), file_.get());
      begin_ = 0;
      if (end_ == 0) {
        if (std::ferror(file_.get())) throw TextTableError("cannot read " + path_);
        return any;
      }
    }
    any = true;
    const char c = buffer_[begin_++];
    if (c == '\n') return true;
    if (comment) continue;  // not held: comments may be of any length
    if (c == '#') {
      comment = true;
      continue;
    }
    // Both limits are checked as the text streams past, so that a wrong file
    // is refused before much of it is held.
    if (++bytes > kMaxTextRowBytes) {
      throw TextTableError(Where() + "the row is longer than " +
                           std::to_string(kMaxTextRowBytes >> 20) +
                           " MiB; is this a table of a few numbers a row?");
    }
    run = (Blank(c) || c == ',' || c == ';') ? 0 : run + 1;
    if (run > kMaxTextFieldBytes) {
      throw TextTableError(Where() + "a value longer than " + std::to_string(kMaxTextFieldBytes) +
                           " characters");
    }
    lineText_.push_back(c);
  }
}

bool TextTableReader::Next(std::vector<double>* values) {
  while (ReadLine()) {
    std::string_view row = Trim(lineText_);
    if (line_ == 1 && row.substr(0, 3) == "\xEF\xBB\xBF") row = Trim(row.substr(3));  // BOM
    if (row.empty()) continue;
    const char separator = separator_ != 0 ? separator_ : SeparatorOf(row);
    const std::vector<std::string_view> fields = Split(row, separator);
    values->resize(fields.size());
    const char* why = nullptr;
    std::size_t bad = 0;
    for (; bad < fields.size(); ++bad) {
      why = Convert(fields[bad], separator == ';', &(*values)[bad]);
      if (why != nullptr) break;
    }
    if (why != nullptr && columns_ == 0 && headerRows_ < kMaxHeaderRows) {
      ++headerRows_;  // names (or units) before the first row of numbers
      continue;
    }
    if (columns_ != 0 && fields.size() != columns_) {
      throw TextTableError(Where() + "expected " + std::to_string(columns_) + " values, found " +
                           std::to_string(fields.size()));
    }
    if (why != nullptr) {
      const std::string field(fields[bad]);
      throw TextTableError(Where() + (field.empty() ? "" : "'" + field + "' ") + why + " (column " +
                           std::to_string(bad + 1) + ")");
    }
    // A one-value first row decides nothing: later rows still pick their own
    // separator and are then refused for their count.
    if (fields.size() > 1) separator_ = separator;
    columns_ = fields.size();
    return true;
  }
  return false;
}

}  // namespace frfcam::cli
