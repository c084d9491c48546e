// RenderCube: the capture is walked in blocks of whole rows. Three stages
// overlap so that the disk and the cores work at once: a reader thread fills
// the next block's samples, the calling thread transforms the current block
// on the worker pool (and reports progress), a writer thread stores the
// previous block's spectra into the cube files. Two buffers per stage
// boundary keep every stage busy.
#include <algorithm>
#include <array>
#include <cstring>
#include <thread>

#include "frfmap/cube_record.h"
#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"
#include "frfmap/handoff.h"

namespace frfcam::frfmap {

namespace {

constexpr int kSlots = 2;

// The pipeline moves blocks of whole rows no larger than the plan allows,
// and no larger than keeps each spectrum buffer near 64 MiB: the buffers are
// fresh memory whose first touch costs kernel time in proportion to their
// size, and small ones keep the stages in step.
std::uint32_t PipelineBlock(std::uint32_t planned, std::uint32_t width, std::uint32_t bins) {
  const std::uint64_t target = (64ull << 20) / (static_cast<std::uint64_t>(bins) * 8);
  const std::uint64_t rows = std::max<std::uint64_t>(1, target / width);
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(planned, rows * width));
}

struct Block {
  std::uint32_t start = 0;
  std::uint32_t n = 0;
};

}  // namespace

int FrfMapCalcs::RenderCube(const ProgressFn& progress) {
  cancel_.store(0, std::memory_order_relaxed);
  if (!opened_) return kRenderNoMemory;
  opened_ = false;  // a render consumes its opening

  const std::int32_t frames = kernel_.frames();
  const std::uint32_t bins = kernel_.bins();
  const std::uint32_t block = PipelineBlock(std::min(block_pixels_, total_pixels_), width_, bins);
  const std::size_t raw_count = static_cast<std::size_t>(frames) * block;
  const std::size_t spec_count = static_cast<std::size_t>(bins) * block;

  std::array<FftBuffer<std::uint16_t>, kSlots> raw;
  std::array<FftBuffer<std::complex<float>>, kSlots> spectra;
  FftBuffer<std::uint8_t> records = AllocateFftBuffer<std::uint8_t>(16ull * frames);
  bool memory_ok = static_cast<bool>(records) && kernel_.Acquire();
  for (int s = 0; s < kSlots && memory_ok; ++s) {
    raw[s] = AllocateFftBuffer<std::uint16_t>(raw_count);
    spectra[s] = AllocateFftBuffer<std::complex<float>>(spec_count);
    memory_ok = raw[s] && spectra[s];
  }
  if (!memory_ok) {
    kernel_.Release();
    reader_.Close();
    return kRenderNoMemory;
  }

  std::vector<Block> blocks;
  for (std::uint32_t start = 0; start < total_pixels_; start += block) {
    blocks.push_back({start, std::min(block, total_pixels_ - start)});
  }
  // The cube reads as incomplete from before its first file is touched.
  CubeRecordWriter record;
  if (!record.Begin(reader_.header_path(), width_, height_, bins)) {
    kernel_.Release();
    reader_.Close();
    return kRenderWriteFailed;
  }
  cubes_.SetMode(CubeFileSet::Mode::kWrite);

  Handoff raw_free, raw_full, spec_free, spec_full;
  for (int s = 0; s < kSlots; ++s) {
    raw_free.Push(s);
    spec_free.Push(s);
  }
  std::atomic<bool> write_failed{false};
  std::atomic<bool> worker_failed{false};  // an exception (out of memory) on an I/O thread

  // Reader: frames that cannot be read render as zero brightness rather than
  // as whatever an earlier block left in the buffer.
  auto read_blocks = [&] {
    try {
      for (const Block& b : blocks) {
        const std::optional<int> slot = raw_free.Pop();
        if (!slot) break;
        std::uint16_t* dst = raw[*slot].get();
        if (!reader_.ReadBlock(b.start, b.n, frames, dst, records.get())) {
          std::memset(dst, 0, static_cast<std::size_t>(frames) * b.n * sizeof(std::uint16_t));
        }
        raw_full.Push(*slot);
      }
    } catch (...) {
      worker_failed.store(true);
    }
    raw_full.Close();
  };

  // Writer: each bin's run of the block goes to its place in that bin's plane.
  auto write_blocks = [&] {
    try {
      std::size_t index = 0;
      while (const std::optional<int> slot = spec_full.Pop()) {
        const Block& b = blocks[index++];
        const std::complex<float>* src = spectra[*slot].get();
        for (std::uint32_t bin = 0; bin < bins && !write_failed.load(); ++bin) {
          if (!cubes_.WriteInPlane(bin, static_cast<std::uint64_t>(b.start) * kSpectrumValueBytes,
                                   src + static_cast<std::size_t>(bin) * b.n,
                                   static_cast<std::size_t>(b.n) * kSpectrumValueBytes)) {
            write_failed.store(true);
          }
        }
        if (!write_failed.load() && !record.SetRows((b.start + b.n) / width_)) {
          write_failed.store(true);
        }
        spec_free.Push(*slot);
        if (write_failed.load()) break;
      }
    } catch (...) {
      worker_failed.store(true);
    }
    spec_free.Close();
  };

  int status = kRenderOk;
  std::size_t transformed = 0;
  std::uint32_t done = 0;
  int last_percent = -1;
  const std::uint32_t sub_block = std::max<std::uint32_t>(sub_block_pixels_, 1);
  std::thread reader, writer;
  try {
    reader = std::thread(read_blocks);
    writer = std::thread(write_blocks);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const std::optional<int> in = raw_full.Pop();
      const std::optional<int> out = in ? spec_free.Pop() : std::nullopt;
      if (!in || !out || write_failed.load()) break;
      const Block& b = blocks[i];
      for (std::uint32_t first = 0; first < b.n; first += sub_block) {
        if (cancel_.load(std::memory_order_relaxed) != 0) break;
        const std::uint32_t last = std::min(b.n, first + sub_block);
        kernel_.Transform(raw[*in].get(), b.n, first, last, spectra[*out].get(), cancel_);
        done += last - first;
        const int percent =
            static_cast<int>(static_cast<std::uint64_t>(done) * 100 / total_pixels_);
        if (percent != last_percent && cancel_.load(std::memory_order_relaxed) == 0) {
          last_percent = percent;
          if (progress) progress(percent);
        }
      }
      raw_free.Push(*in);
      // A block interrupted by a cancel is incomplete and is not written.
      if (cancel_.load(std::memory_order_relaxed) != 0) break;
      spec_full.Push(*out);
      ++transformed;
    }
  } catch (...) {
    status = kRenderNoMemory;  // out of memory, or no thread could be started
  }

  // Every queue is closed before the joins, so no thread waits for a stage
  // that has stopped.
  raw_free.Close();
  raw_full.Close();
  spec_free.Close();
  spec_full.Close();
  if (reader.joinable()) reader.join();
  if (writer.joinable()) writer.join();

  kernel_.Release();
  reader_.Close();
  cubes_.Close();

  if (write_failed.load()) return kRenderWriteFailed;
  if (status != kRenderOk || worker_failed.load()) return kRenderNoMemory;
  if (cancel_.load(std::memory_order_relaxed) != 0) return kRenderCancelled;
  if (transformed != blocks.size()) return kRenderNoMemory;
  return record.Complete() ? kRenderOk : kRenderWriteFailed;
}

}  // namespace frfcam::frfmap
