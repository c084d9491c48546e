#include "stability_csv.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "commands.h"

namespace frfcam::cli {

namespace {

std::string Trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  const auto last = s.find_last_not_of(" \t\r");
  return s.substr(first, last - first + 1);
}

std::vector<std::string> SplitFields(const std::string& line) {
  std::vector<std::string> fields;
  std::string field;
  std::istringstream in(line);
  while (std::getline(in, field, ',')) fields.push_back(Trim(field));
  if (!line.empty() && line.back() == ',') fields.emplace_back();
  return fields;
}

std::string Where(const std::string& path, long line) {
  return path + ":" + std::to_string(line) + ": ";
}

double ParseNumber(const std::string& text, const std::string& where, std::size_t column) {
  const std::string col = " (column " + std::to_string(column + 1) + ")";
  if (text.empty()) throw CommandError(where + "empty value" + col);
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size()) {
    throw CommandError(where + "'" + text + "' is not a number" + col);
  }
  // strtod reads "nan" and "inf", and overflows to infinity.
  if (!std::isfinite(value)) throw CommandError(where + "'" + text + "' is not finite" + col);
  return value;
}

}  // namespace

FrfTable ReadFrfCsv(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw CommandError("cannot open " + path);

  FrfTable table;
  std::size_t columns = 0;
  std::string line;
  long number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (Trim(line).empty()) continue;
    const std::vector<std::string> fields = SplitFields(line);
    if (columns == 0) {
      columns = fields.size();
      if (columns < 3 || columns % 2 == 0) {
        throw CommandError(Where(path, number) + "the header has " + std::to_string(columns) +
                           " columns; expected a frequency column and a real, imaginary pair "
                           "per channel (3, 5, 7, ... columns)");
      }
      table.channels.resize((columns - 1) / 2);
      continue;
    }
    if (fields.size() != columns) {
      throw CommandError(Where(path, number) + "expected " + std::to_string(columns) +
                         " values, found " + std::to_string(fields.size()));
    }
    const std::string where = Where(path, number);
    table.frequencyHz.push_back(ParseNumber(fields[0], where, 0));
    for (std::size_t c = 0; c < table.channels.size(); ++c) {
      const double re = ParseNumber(fields[1 + 2 * c], where, 1 + 2 * c);
      const double im = ParseNumber(fields[2 + 2 * c], where, 2 + 2 * c);
      table.channels[c].emplace_back(re, im);
    }
  }
  if (in.bad()) throw CommandError("cannot read " + path);
  if (columns == 0) throw CommandError(path + ": empty file, expected a header row");
  if (table.frequencyHz.empty()) throw CommandError(path + ": no data rows after the header");
  return table;
}

void WriteFrfCsv(const std::string& path, const FrfTable& table) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) throw CommandError("cannot create " + path);
  std::fprintf(f, "frequency_hz");
  for (std::size_t c = 0; c < table.channels.size(); ++c) {
    std::fprintf(f, ",ch%zu_re,ch%zu_im", c + 1, c + 1);
  }
  std::fprintf(f, "\n");
  for (std::size_t i = 0; i < table.frequencyHz.size(); ++i) {
    std::fprintf(f, "%.17g", table.frequencyHz[i]);
    for (const auto& channel : table.channels) {
      std::fprintf(f, ",%.17g,%.17g", channel[i].real(), channel[i].imag());
    }
    std::fprintf(f, "\n");
  }
  const bool ok = std::ferror(f) == 0;
  if (std::fclose(f) != 0 || !ok) throw CommandError("cannot write " + path);
}

}  // namespace frfcam::cli
