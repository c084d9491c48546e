// Reading a whole 12-bit capture through the capture reader in row blocks,
// decoded (ReadBlock) and as stored (ReadRuns, the render's path), against
// plain fread of the same files in the same run.
// Arguments: [frames (1000)] [rows per block (the memory plan's block)].
#include <cstdio>
#include <vector>

#include "bench_support.h"
#include "frfmap/capture_reader.h"
#include "frfmap/naming.h"
#include "frfmap/planner.h"
#include "frfmap/unpack.h"
#include "platform/platform.h"

using namespace frfcam;

int main(int argc, char** argv) {
  const std::uint16_t w = 512, h = 512;
  const std::int32_t frames = argc > 1 ? std::atoi(argv[1]) : 1000;
  const std::string dir = bench::BenchDir("reader");
  const std::string header = bench::SynthesiseCapture(dir, "cap", w, h, frames, 500);
  const std::uint64_t frame_bytes = static_cast<std::uint64_t>(w) * h * 3 / 2;
  const double total_bytes = static_cast<double>((frame_bytes + 16) * frames);
  const unsigned files = static_cast<unsigned>((frames + 499) / 500);

  // Plain fread of every division file in 8 MiB pieces.
  std::vector<char> chunk(8 << 20);
  auto plain = [&] {
    for (unsigned d = 1; d <= files; ++d) {
      const std::string path = frfmap::DataFilePath(header, frfmap::DataFile::kDivision, d);
      std::FILE* f = std::fopen(path.c_str(), "rb");
      while (f != nullptr && std::fread(chunk.data(), 1, chunk.size(), f) == chunk.size()) {
      }
      if (f != nullptr) std::fclose(f);
    }
  };
  // The reader in row blocks of the memory plan's size (or as many rows as
  // the second argument says), unpacking every sample.
  const std::uint32_t rows =
      argc > 2 ? static_cast<std::uint32_t>(std::atoi(argv[2]))
               : frfmap::PlanBlockPixels(w, h, frames, platform::AvailablePhysicalMemory()) / w;
  std::vector<std::uint16_t> samples(static_cast<std::size_t>(frames) * w * rows);
  std::vector<std::uint8_t> records(16ull * frames);
  // Opens the capture and reads it block by block with `read`.
  auto each_block = [&](const auto& read) {
    frfmap::CaptureReader r;
    r.Open(header);
    for (std::uint32_t y = 0; y < h; y += rows) {
      if (!read(r, static_cast<std::uint64_t>(y) * w)) {
        std::fprintf(stderr, "read failed\n");
        std::exit(1);
      }
    }
  };
  auto reader = [&] {
    each_block([&](frfmap::CaptureReader& r, std::uint64_t first) {
      return r.ReadBlock(first, w * rows, frames, samples.data(), records.data());
    });
  };
  // The render's path: the same blocks' runs as stored, left for the
  // transform to decode.
  const frfmap::RunEncoding encoding = frfmap::RunEncoding::kPacked12;
  const std::size_t stride = (frfmap::RunBytes(encoding, 0, w * rows) + 63) / 64 * 64;
  std::vector<std::uint8_t> runs(static_cast<std::size_t>(frames) * stride);
  auto stored = [&] {
    each_block([&](frfmap::CaptureReader& r, std::uint64_t first) {
      return r.ReadRuns(first, w * rows, frames, runs.data(), stride, records.data());
    });
  };

  plain();  // warm the page cache
  std::vector<double> t_plain, t_reader, t_stored;
  for (int i = 0; i < 5; ++i) {
    t_plain.push_back(bench::Seconds(plain));
    t_reader.push_back(bench::Seconds(reader));
    t_stored.push_back(bench::Seconds(stored));
  }
  const double p = bench::Median(t_plain), r = bench::Median(t_reader),
               st = bench::Median(t_stored);
  std::printf("capture %ux%u, %d frames, 12-bit packed: %.0f MB\n", w, h, frames,
              total_bytes / 1e6);
  std::printf("fread of the files:        %.3f s  %7.0f MB/s\n", p, total_bytes / 1e6 / p);
  std::printf("reader, %3u-row blocks:     %.3f s  %7.0f MB/s\n", rows, r, total_bytes / 1e6 / r);
  std::printf("runs as stored:            %.3f s  %7.0f MB/s\n", st, total_bytes / 1e6 / st);
  std::printf("reader / fread throughput: %.2f (decoded), %.2f (as stored)\n", p / r, p / st);
  bench::RemoveDir(dir);
  return 0;
}
