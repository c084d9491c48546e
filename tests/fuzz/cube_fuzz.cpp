// Fuzzes what the map reader reads of a rendered cube: the completion record
// and cube file 1, for a small capture header made from the first bytes.
//
// Input: width, height (u8 each), frames (u16, as int16), flags (u8), two
// bins (u8 each), gain (f32 bits), the 64 record bytes, then cube file 1.
// Flags: 1 the harness gives the record its magic and checksum, so that the
// fuzzer need not find them; 2 the record also gets the header's dimensions;
// 4 no record file; 8 a reference signal; 16 division files, not ".cap".
#include <cstdint>
#include <cstring>
#include <vector>

#include "frfmap/capture_format.h"
#include "frfmap/cube_check.h"
#include "frfmap/cube_files.h"
#include "frfmap/cube_record.h"
#include "frfmap/frf_map_calcs.h"
#include "fuzz_support.h"

using namespace frfcam;

namespace {

constexpr std::size_t kRecordBytes = 64;

void FixRecord(std::uint8_t* r, std::uint32_t width, std::uint32_t height, std::uint32_t bins,
               bool dims) {
  std::memcpy(r, "FRFCUBE1", 8);
  if (dims) {
    frfmap::format::StoreU32(r + 8, width);
    frfmap::format::StoreU32(r + 12, height);
    frfmap::format::StoreU32(r + 16, bins);
  }
  std::uint64_t h = 1469598103934665603ull;  // FNV-1a over the 56 bytes before it
  for (std::size_t i = 0; i < 56; ++i) h = (h ^ r[i]) * 1099511628211ull;
  for (int i = 0; i < 8; ++i) r[56 + i] = static_cast<std::uint8_t>(h >> (8 * i));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ByteReader in(data, size);
  const std::uint16_t width = in.U8();
  const std::uint16_t height = in.U8();
  auto frames = static_cast<std::int32_t>(static_cast<std::int16_t>(in.U16()));
  // Transforms of a few hundred frames at most keep the runs fast.
  if (frames > 256) frames %= 257;
  const std::uint8_t flags = in.U8();
  const int bin_a = in.U8(), bin_b = in.U8();
  const std::uint32_t gain_bits = in.U32();
  float gain;
  std::memcpy(&gain, &gain_bits, sizeof gain);
  std::uint8_t record[kRecordBytes] = {};
  std::size_t got = 0;
  std::memcpy(record, in.Take(kRecordBytes, &got), got);
  std::size_t cube_size = 0;
  const std::uint8_t* cube = in.Rest(&cube_size);

  std::vector<std::uint8_t> header(frfmap::format::kHeaderSize, 0);
  frfmap::format::StoreU16(&header[frfmap::format::kWidthOffset], width);
  frfmap::format::StoreU16(&header[frfmap::format::kHeightOffset], height);
  frfmap::format::StoreU32(&header[frfmap::format::kFrameCountOffset],
                           static_cast<std::uint32_t>(frames));
  frfmap::format::StoreU32(&header[frfmap::format::kFramesPerDivisionOffset], 500);
  header[frfmap::format::kSingleFileFlagOffset] = (flags & 16) != 0 ? 0 : 1;
  const std::uint32_t bins = frames > 0 ? static_cast<std::uint32_t>(frames / 2 + 1) : 0;
  if ((flags & 1) != 0) FixRecord(record, width, height, bins, (flags & 2) != 0);

  fuzz::RemoveScratch("cube");
  const std::string header_path =
      fuzz::WriteScratchFile("cube/c.hdr", header.data(), header.size());
  if ((flags & 4) == 0) fuzz::WriteScratchFile("cube/c/c.fft", record, sizeof record);
  fuzz::WriteScratchFile("cube/c/c_0001.fft", cube, cube_size);

  frfmap::CubeIsComplete(header_path);
  frfmap::CubeRecord r;
  frfmap::ReadCubeRecord(header_path, &r);

  frfmap::FrfMapCalcs calcs("fuzz");
  if (calcs.OpenCube(header_path) != frfmap::kOpenOk) return 0;
  if ((flags & 8) != 0 && frames > 0) {
    std::vector<float> signal(static_cast<std::size_t>(frames));
    for (std::size_t i = 0; i < signal.size(); ++i) signal[i] = static_cast<float>(i % 7) - 3.0f;
    calcs.SetReference(signal.data(), frames);
  }
  std::vector<unsigned char> map(static_cast<std::size_t>(width) * height);
  const int result_a = calcs.ReadFRFMap(bin_a, gain, map.data());
  const int result_b = calcs.ReadFRFMap(bin_b - 128, gain, map.data());
  // A short read reports at most one plane.
  const int plane = static_cast<int>(map.size() * frfmap::kSpectrumValueBytes);
  if (result_a > plane || result_b > plane) fuzz::Fail("a read reports more than a plane");
  return 0;
}
