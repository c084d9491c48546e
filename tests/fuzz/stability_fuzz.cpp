// Fuzzes the modal stability analysis through the call behind the
// ComputeStability export, on small problems: a few lines and channels, low
// orders, values that may be NaN, infinite, huge or tiny. Exceptions end as
// the export ends them (result codes); crashes, hangs and sanitizer reports
// are findings.
//
// Input: lines (u8), channels (u8, top bit: a larger problem), orders (two u8), flags (u8), the
// three tolerances and the stable count, then the values: the frequencies, the FRF vector and the
// FRF matrix, each value either a raw double (tag byte with its top bit set, then 8 bytes) or a
// small number (the tag alone).
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "api/guard.h"
#include "fuzz_support.h"
#include "stability/driver.h"

using namespace frfcam;

namespace {

double Value(fuzz::ByteReader& in) {
  const std::uint8_t tag = in.U8();
  if ((tag & 0x80) != 0) return in.F64();
  return (static_cast<int>(tag) - 64) / 8.0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ByteReader in(data, size);
  const std::uint8_t lines_byte = in.U8(), channels_byte = in.U8();
  // The top bit of the channel byte asks for a larger problem: up to 96
  // lines and 40 orders, still well under a second.
  const bool larger = (channels_byte & 0x80) != 0;
  const int lines = lines_byte % (larger ? 97 : 25);
  const int channels = channels_byte % 4;
  const int min_order = static_cast<int>(static_cast<std::int8_t>(in.U8())) % 12;
  const int max_order = min_order + static_cast<int>(in.U8() % (larger ? 40 : 10)) - 2;
  const std::uint8_t flags = in.U8();

  stability::StabilityRequest r;
  r.numLines = lines;
  r.numChannels = channels;
  r.minOrder = min_order;
  r.maxOrder = max_order;
  r.selectionTolerance = Value(in);
  r.frequencyTolerance = Value(in);
  r.dampingTolerance = Value(in);
  r.minStableCount = static_cast<std::int8_t>(in.U8());
  r.estimatorFlag1 = (flags & 1) != 0;
  r.estimatorFlag2 = (flags & 2) != 0;

  // Frequencies: raw values, or (flag 4) an even grid from a start and a step,
  // which gets deeper into the fits than random values do.
  std::vector<double> frequencies(static_cast<std::size_t>(lines));
  if ((flags & 4) != 0) {
    const double start = Value(in), step = Value(in);
    for (int i = 0; i < lines; ++i) frequencies[i] = start + step * i;
  } else {
    for (double& f : frequencies) f = Value(in);
  }
  std::vector<double> frf(2 * static_cast<std::size_t>(lines));
  for (double& v : frf) v = Value(in);
  std::vector<double> matrix(2 * static_cast<std::size_t>(lines) * channels);
  // Flag 8: the matrix repeats the FRF vector in every channel.
  for (std::size_t i = 0; i < matrix.size(); ++i) {
    matrix[i] = (flags & 8) != 0 ? frf[i % frf.size()] : Value(in);
  }

  static const std::string output = fuzz::ScratchDir() + "record.bin";
  r.outputPath = output.c_str();
  r.frequencies = frequencies.data();
  r.frf = frf.data();
  r.frfMatrix = (flags & 16) != 0 && channels == 0 ? nullptr : matrix.data();
  const int status = api::Guard([&] { return stability::ComputeStability(r); },
                                static_cast<int>(stability::kStabilityOutOfMemory),
                                static_cast<int>(stability::kStabilityFailed));
  if (status > 0 || status < stability::kStabilityFailed) fuzz::Fail("unknown result code");
  return 0;
}
