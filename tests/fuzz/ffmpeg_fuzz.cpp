// Fuzzes the video reader: the input is the file. FFmpeg itself is not
// instrumented, so this guards the reader's own code: the frame count, the
// grey conversion of whatever pixel format a decoder gives, the reopening
// on a backward read, and the one-line errors.
#include <cstdint>
#include <string>
#include <vector>

#include "camera/video_source.h"
#include "fuzz_support.h"

using namespace frfcam;

namespace {

void CheckOneLine(const std::string& error, const std::string& path) {
  if (error.empty() || error.find('\n') != std::string::npos) fuzz::Fail("not one line of error");
  if (error.compare(0, path.size(), path) != 0) fuzz::Fail("the error does not name the file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = fuzz::WriteScratchFile("video", data, size);
  std::string error;
  auto source = camera::OpenFfmpeg(path, &error);
  if (!source) {
    CheckOneLine(error, path);
    return 0;
  }
  const camera::SourceInfo& info = source->info();
  if (info.width == 0 || info.height == 0 || info.frames < 1) fuzz::Fail("an empty video opened");
  if (info.bits < 1 || info.bits > 16) fuzz::Fail("bits out of range");
  // Large pictures cost time, not coverage.
  const std::uint64_t pixels = std::uint64_t{info.width} * info.height;
  if (pixels > (1u << 22)) return 0;
  std::vector<std::uint16_t> samples(pixels);
  const std::uint32_t limit = info.bits == 16 ? 0x10000u : 1u << info.bits;
  // Up to 16 frames forwards, then frame 0 again (a reopen).
  const std::int64_t frames = info.frames < 16 ? info.frames : 16;
  for (std::int64_t f = 0; f <= frames; ++f) {
    if (!source->ReadFrame(f == frames ? 0 : f, samples.data(), &error)) {
      CheckOneLine(error, path);
      continue;
    }
    for (const std::uint16_t s : samples) {
      if (s >= limit) fuzz::Fail("a sample beyond bits");
    }
  }
  if (source->ReadFrame(info.frames, samples.data(), &error)) fuzz::Fail("read past the end");
  CheckOneLine(error, path);
  return 0;
}
