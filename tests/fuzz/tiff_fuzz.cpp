// Fuzzes the TIFF reader: the input is a multipage file, opened and read
// frame by frame, each in turn and then the first again (which seeks back).
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camera/video_source.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace frfcam;
  const std::string path = fuzz::WriteScratchFile("input.tif", data, size);
  std::string error;
  std::unique_ptr<camera::VideoSource> source = camera::OpenTiff(path, &error);
  if (source == nullptr) {
    if (error.empty() || error.find('\n') != std::string::npos) fuzz::Fail("no one-line error");
    return 0;
  }
  const camera::SourceInfo& info = source->info();
  if (info.width == 0 || info.height == 0 || info.frames < 1 || info.bits < 1 || info.bits > 16) {
    fuzz::Fail("an opened file describes no frames");
  }
  std::vector<std::uint16_t> samples(std::size_t{info.width} * info.height);
  for (std::int64_t f = 0; f <= info.frames; ++f) {
    if (!source->ReadFrame(f % info.frames, samples.data(), &error)) continue;
    for (std::uint16_t v : samples) {
      if (v >> info.bits != 0) fuzz::Fail("a sample beyond the bits");
    }
  }
  return 0;
}
