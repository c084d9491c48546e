// Fuzzes the .npy reader: the input is the file. The reader's default
// memory bound stays in place, so a header that makes it allocate more than
// the fuzzer's limit is a finding.
#include <cstdint>
#include <stdexcept>

#include "formats/npy.h"
#include "fuzz_support.h"

using frfcam::formats::NpyArray;
using frfcam::formats::NpyStatus;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = frfcam::fuzz::WriteScratchFile("array.npy", data, size);
  NpyArray array;
  if (frfcam::formats::ReadNpy(path, &array) != NpyStatus::kOk) return 0;
  if (array.bytes.size() != array.size() * frfcam::formats::NpyElementBytes(array.type)) {
    frfcam::fuzz::Fail("the bytes do not match the shape");
  }
  if (array.AsComplex().size() != array.size()) frfcam::fuzz::Fail("AsComplex lost values");
  try {
    array.AsReal();
  } catch (const std::invalid_argument&) {
    // complex arrays refuse to drop their imaginary parts
  }
  return 0;
}
