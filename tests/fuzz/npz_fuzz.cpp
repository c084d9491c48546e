// Fuzzes the .npz reader and the choice of the FRF arrays among its members.
#include <cstdint>
#include <string>
#include <vector>

#include "formats/npz.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = frfcam::fuzz::WriteScratchFile("arrays.npz", data, size);
  std::vector<frfcam::formats::NpzMember> members;
  std::string error;
  if (!frfcam::formats::ReadNpz(path, &members, &error)) {
    if (error.empty() || error.find('\n') != std::string::npos) {
      frfcam::fuzz::Fail("the error is not one line");
    }
    return 0;
  }
  frfcam::formats::FrfArrays arrays;
  if (frfcam::formats::FrfFromArrays(members, path, &arrays, &error)) {
    if (arrays.channels == 0 || arrays.frf.size() != arrays.frequencyHz.size() * arrays.channels) {
      frfcam::fuzz::Fail("the FRF matrix does not match lines x channels");
    }
  }
  return 0;
}
