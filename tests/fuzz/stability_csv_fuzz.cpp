// Fuzzes the CSV table reader of the stability command. Its only way to
// refuse a file is CommandError; any other exception escapes as a finding.
#include <cstdint>
#include <string>

#include "command_error.h"
#include "fuzz_support.h"
#include "stability_csv.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = frfcam::fuzz::WriteScratchFile("table.csv", data, size);
  try {
    frfcam::cli::CsvInfo info;
    const frfcam::cli::FrfTable table = frfcam::cli::ReadFrfCsv(path, &info);
    for (const auto& channel : table.channels) {
      if (channel.size() != table.frequencyHz.size()) frfcam::fuzz::Fail("ragged table");
    }
  } catch (const frfcam::cli::CommandError& e) {
    if (std::string(e.what()).find('\n') != std::string::npos) {
      frfcam::fuzz::Fail("the error is not one line");
    }
  }
  return 0;
}
