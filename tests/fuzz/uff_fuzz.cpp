// Fuzzes the reader of UFF datasets 58 and 58b, in memory.
#include <cstdint>
#include <string>
#include <vector>

#include "formats/uff.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<frfcam::formats::Uff58> functions;
  std::string error;
  int skipped = 0;
  if (frfcam::formats::ParseUff58(text, "fuzz.uff", &functions, &error, &skipped)) {
    // What was read must hold together: one ordinate per abscissa value.
    for (const auto& f : functions) {
      if (f.x.size() != f.y.size()) frfcam::fuzz::Fail("abscissa and ordinates differ");
    }
  } else if (error.empty() || error.find('\n') != std::string::npos) {
    frfcam::fuzz::Fail("the error is not one line");
  }
  return 0;
}
