#include "stability_csv.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "commands.h"
#include "platform/platform.h"

namespace frfcam::cli {

namespace {

std::string Where(const std::string& path, long line) {
  return path + ":" + std::to_string(line) + ": ";
}

std::string Trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  const auto last = s.find_last_not_of(" \t\r");
  return s.substr(first, last - first + 1);
}

// One row as it streams past: numbers are converted as each field ends, so a
// row costs 8 bytes per value, never a copy of its text.
struct Row {
  std::vector<double> values;
  std::size_t fields = 0;
  bool numeric = true;   // every field so far was a finite number
  std::string firstBad;  // the first field that was not, and its column
  std::size_t firstBadColumn = 0;
  std::string badReason;
  std::uint64_t bytes = 0;
  bool blank = true;

  void Clear() {
    values.clear();
    fields = 0;
    numeric = true;
    firstBad.clear();
    badReason.clear();
    bytes = 0;
    blank = true;
  }

  void EndField(const std::string& raw) {
    const std::string text = Trim(raw);
    if (!text.empty()) blank = false;
    ++fields;
    if (!numeric) return;
    const char* reason = nullptr;
    double value = 0.0;
    if (text.empty()) {
      reason = "empty value";
    } else {
      char* end = nullptr;
      value = std::strtod(text.c_str(), &end);
      if (end != text.c_str() + text.size()) {
        reason = "is not a number";
      } else if (!std::isfinite(value)) {  // strtod reads "nan", "inf", overflows
        reason = "is not finite";
      }
    }
    if (reason != nullptr) {
      numeric = false;
      firstBad = text;
      firstBadColumn = fields;
      badReason = reason;
      return;
    }
    values.push_back(value);
  }

  std::string Problem() const {
    const std::string col = " (column " + std::to_string(firstBadColumn) + ")";
    if (firstBad.empty()) return badReason + col;
    return "'" + firstBad + "' " + badReason + col;
  }
};

}  // namespace

FrfTable ReadFrfCsv(const std::string& path, CsvInfo* info) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(platform::OpenFile(path, "rb"), &std::fclose);
  if (!in) throw CommandError("cannot open " + path);

  FrfTable table;
  std::size_t columns = 0;  // 0 until the first row has been seen
  bool headerSeen = false;
  long number = 1;
  Row row;
  std::string field;
  std::vector<char> buffer(1 << 16);

  const auto endRow = [&] {
    if (row.blank && row.fields <= 1) return;  // blank lines are skipped
    const std::string where = Where(path, number);
    if (columns == 0) {
      columns = row.fields;
      if (columns < 3 || columns % 2 == 0) {
        throw CommandError(where + "the first row has " + std::to_string(columns) +
                           " columns; expected a frequency column and a real, imaginary pair "
                           "per channel (3, 5, 7, ... columns)");
      }
      table.channels.resize((columns - 1) / 2);
      if (!row.numeric) {  // a header row: names, not numbers
        headerSeen = true;
        return;
      }
    }
    if (row.fields != columns) {
      throw CommandError(where + "expected " + std::to_string(columns) + " values, found " +
                         std::to_string(row.fields));
    }
    if (!row.numeric) throw CommandError(where + row.Problem());
    table.frequencyHz.push_back(row.values[0]);
    for (std::size_t c = 0; c < table.channels.size(); ++c) {
      table.channels[c].emplace_back(row.values[1 + 2 * c], row.values[2 + 2 * c]);
    }
  };

  for (;;) {
    const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), in.get());
    if (got == 0) break;
    for (std::size_t i = 0; i < got; ++i) {
      const char c = buffer[i];
      if (c == '\n') {
        row.EndField(field);
        field.clear();
        endRow();
        row.Clear();
        ++number;
        continue;
      }
      if (++row.bytes > kMaxCsvRowBytes) {
        throw CommandError(Where(path, number) + "the row is longer than " +
                           std::to_string(kMaxCsvRowBytes >> 20) +
                           " MiB; is this an FRF table (one spectral line per row)?");
      }
      if (c == ',') {
        row.EndField(field);
        field.clear();
      } else if (field.empty() && (c == ' ' || c == '\t')) {
        // padding before a value is not held
      } else if (field.size() < kMaxCsvFieldBytes) {
        field.push_back(c);
      } else {
        throw CommandError(Where(path, number) + "a value longer than " +
                           std::to_string(kMaxCsvFieldBytes) + " characters (column " +
                           std::to_string(row.fields + 1) + ")");
      }
    }
  }
  if (std::ferror(in.get())) throw CommandError("cannot read " + path);
  if (!field.empty() || row.fields > 0) {
    row.EndField(field);
    endRow();
  }
  if (columns == 0) throw CommandError(path + ": empty file, expected an FRF table");
  if (table.frequencyHz.empty()) throw CommandError(path + ": no data rows after the header");
  if (info != nullptr) info->header = headerSeen;
  return table;
}

void WriteFrfCsv(const std::string& path, const FrfTable& table) {
  std::FILE* f = platform::OpenFile(path, "wb");
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
