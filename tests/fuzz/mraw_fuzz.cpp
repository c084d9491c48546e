// Fuzzes the MRAW reader: a flags byte (bit 0: the header is CIHX, bit 1:
// open by the .mraw path), the header's length (16 bits) and text, and the
// rest as the MRAW file. Every frame is read and checked against the bits
// the reader promises.
#include <cstdint>
#include <string>
#include <vector>

#include "camera/video_source.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using frfcam::fuzz::Fail;
  frfcam::fuzz::ByteReader in(data, size);
  const std::uint8_t flags = in.U8();
  std::size_t header_size = 0, data_size = 0;
  const std::uint8_t* header = in.Take(in.U16(), &header_size);
  const std::uint8_t* mraw = in.Rest(&data_size);
  const bool xml = flags & 1;
  frfcam::fuzz::RemoveScratch(xml ? "rec.cih" : "rec.cihx");
  const std::string header_path =
      frfcam::fuzz::WriteScratchFile(xml ? "rec.cihx" : "rec.cih", header, header_size);
  const std::string mraw_path = frfcam::fuzz::WriteScratchFile("rec.mraw", mraw, data_size);

  std::string error;
  const auto source = frfcam::camera::OpenMraw(flags & 2 ? mraw_path : header_path, &error);
  if (!source) {
    if (error.empty() || error.find('\n') != std::string::npos) Fail("the error is not one line");
    return 0;
  }
  const auto& info = source->info();
  if (info.bits < 1 || info.bits > 16) Fail("bits out of range");
  const std::uint64_t pixels = std::uint64_t{info.width} * info.height;
  if (pixels == 0 || pixels * static_cast<std::uint64_t>(info.frames) > data_size) {
    Fail("the header's frames do not fit the data");
  }
  std::vector<std::uint16_t> samples(pixels);
  for (std::int64_t f = 0; f < info.frames; ++f) {
    if (!source->ReadFrame(f, samples.data(), &error)) Fail("a checked frame did not read");
    for (std::uint16_t s : samples) {
      if (s >> info.bits) Fail("a sample above its bits");
    }
  }
  if (source->ReadFrame(info.frames, samples.data(), &error)) Fail("read past the last frame");
  return 0;
}
