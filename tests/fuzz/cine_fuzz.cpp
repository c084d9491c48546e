// Fuzzes the CINE reader: the input is the file. Every frame of a file that
// opens is read, and its samples must keep within the bits it reports.
#include <cstdint>
#include <string>
#include <vector>

#include "camera/video_source.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = frfcam::fuzz::WriteScratchFile("input.cine", data, size);
  std::string error;
  auto source = frfcam::camera::OpenCine(path, &error);
  if (!source) {
    if (error.empty() || error.find('\n') != std::string::npos) {
      frfcam::fuzz::Fail("a refusal without its one-line reason");
    }
    return 0;
  }
  const frfcam::camera::SourceInfo& info = source->info();
  if (info.width == 0 || info.height == 0 || info.frames <= 0 || info.bits < 1 || info.bits > 16) {
    frfcam::fuzz::Fail("an opened file reports no image or impossible bits");
  }
  std::vector<std::uint16_t> samples(std::size_t{info.width} * info.height);
  for (std::int64_t f = 0; f < info.frames; ++f) {
    if (!source->ReadFrame(f, samples.data(), &error)) continue;
    for (std::uint16_t v : samples) {
      if (v >> info.bits != 0) frfcam::fuzz::Fail("a sample beyond the reported bits");
    }
  }
  return 0;
}
