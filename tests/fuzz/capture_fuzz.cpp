// Fuzzes the capture header and the frame data behind it: division files and
// the single ".cap" file, read through CaptureReader.
//
// Input: mode (u8), first pixel (u32), run length (u16), frames (u8), then
// the header file (u16 length + bytes), division file 1 or the ".cap" file
// (u32 length + bytes) and, with what is left, division file 2.
#include <cstdint>
#include <vector>

#include "frfmap/capture_format.h"
#include "frfmap/capture_reader.h"
#include "frfmap/unpack.h"
#include "fuzz_support.h"

using namespace frfcam;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ByteReader in(data, size);
  const std::uint8_t mode = in.U8();
  std::uint64_t first = in.U32();
  const std::uint32_t n = in.U16() % 1025;
  const std::int32_t frames = in.U8() % 9;
  std::size_t header_size = 0, file1_size = 0, file2_size = 0;
  const std::uint8_t* header = in.Take(in.U16(), &header_size);
  const std::uint8_t* file1 = in.Take(in.U32(), &file1_size);
  const std::uint8_t* file2 = in.Rest(&file2_size);

  fuzz::RemoveScratch("cap");
  const std::string header_path = fuzz::WriteScratchFile("cap/c.hdr", header, header_size);
  const bool single = header_size > frfmap::format::kSingleFileFlagOffset &&
                      header[frfmap::format::kSingleFileFlagOffset] != 0;
  fuzz::WriteScratchFile(single ? "cap/c/c.cap" : "cap/c/c_0001.div", file1, file1_size);
  if (!single) fuzz::WriteScratchFile("cap/c/c_0002.div", file2, file2_size);

  frfmap::CaptureReader reader;
  if (!reader.Open(header_path)) return 0;
  const std::uint64_t pixels = reader.header().pixels();
  // Mostly runs inside the frame, to get past the bounds check to the data.
  if ((mode & 1) != 0 && pixels != 0) first %= pixels;

  std::vector<std::uint16_t> samples(static_cast<std::size_t>(frames) * n);
  std::vector<std::uint8_t> records(static_cast<std::size_t>(frames) * 16);
  reader.ReadBlock(first, n, frames, samples.data(), records.data());

  const frfmap::RunEncoding e = reader.run_encoding();
  if (first + n <= pixels) {
    const std::size_t stride = (frfmap::RunBytes(e, first, n) + 1) / 2 * 2;
    std::vector<std::uint8_t> runs(static_cast<std::size_t>(frames) * stride);
    reader.ReadRuns(first, n, frames, runs.data(), stride,
                    (mode & 2) != 0 ? records.data() : nullptr);
  }
  return 0;
}
