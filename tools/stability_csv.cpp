#include "stability_csv.h"

#include <cstdio>

#include "command_error.h"
#include "platform/platform.h"
#include "text_table.h"

namespace frfcam::cli {

FrfTable ReadFrfCsv(const std::string& path, CsvInfo* info) {
  FrfTable table;
  try {
    TextTableReader reader(path);
    std::vector<double> row;
    while (reader.Next(&row)) {
      if (table.channels.empty()) {
        if (row.size() < 3 || row.size() % 2 == 0) {
          throw CommandError(reader.Where() + "the first row of numbers has " +
                             std::to_string(row.size()) +
                             " columns; expected a frequency column and a real, imaginary pair "
                             "per channel (3, 5, 7, ... columns)");
        }
        table.channels.resize((row.size() - 1) / 2);
      }
      table.frequencyHz.push_back(row[0]);
      for (std::size_t c = 0; c < table.channels.size(); ++c) {
        table.channels[c].emplace_back(row[1 + 2 * c], row[2 + 2 * c]);
      }
    }
    if (table.frequencyHz.empty()) {
      throw CommandError(path + (reader.headerRows() > 0 ? ": no data rows after the header"
                                                         : ": empty file, expected an FRF table"));
    }
    if (info != nullptr) info->header = reader.headerRows() > 0;
  } catch (const TextTableError& e) {
    throw CommandError(e.what());
  }
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
