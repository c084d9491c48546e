// Fuzzes the PNG reader: the input is the one file of a numbered folder.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camera/video_source.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace frfcam;
  fuzz::RemoveScratch("png");
  fuzz::WriteScratchFile("png/frame1.png", data, size);
  std::string error;
  std::unique_ptr<camera::VideoSource> source =
      camera::OpenPngSequence(fuzz::ScratchDir() + "png", &error);
  if (source == nullptr) {
    if (error.empty() || error.find('\n') != std::string::npos) fuzz::Fail("no one-line error");
    return 0;
  }
  const camera::SourceInfo& info = source->info();
  if (info.width == 0 || info.height == 0 || info.frames != 1 || info.bits < 1 || info.bits > 16) {
    fuzz::Fail("an opened folder describes no frame");
  }
  std::vector<std::uint16_t> samples(std::size_t{info.width} * info.height);
  if (!source->ReadFrame(0, samples.data(), &error)) {
    if (error.empty() || error.find('\n') != std::string::npos) fuzz::Fail("no one-line error");
    return 0;
  }
  for (std::uint16_t v : samples) {
    if (v >> info.bits != 0) fuzz::Fail("a sample beyond the bits");
  }
  return 0;
}
