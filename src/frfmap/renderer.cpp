// RenderCube: the capture is walked in blocks of pixels. The calling
// thread does every read, every write and every progress report; the worker
// pool decodes and transforms the current block meanwhile, so that the disk
// and the cores work at once: while block i is transformed, the calling
// thread writes block i - 1's spectra and reads block i + 1's stored bytes.
// Two buffers of each kind hold the blocks in flight.
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <exception>

#include "frfmap/cube_record.h"
#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

namespace {

constexpr int kSlots = 2;
constexpr std::uint64_t kPipelineBlockBytes = 64ull << 20;

// The pipeline moves blocks of pixels no larger than the plan allows, and
// no larger than keeps each spectrum buffer near `target` bytes: large
// enough that each bin's run of a block is one write of tens of KiB or more,
// small enough that the first and last blocks, which do not overlap, stay
// short, and that the buffers, touched afresh by every render, stay
// modest. Larger runs do not pay: on Linux 6.18 with ext4, buffered writes of
// 64-256 KiB cost the kernel the least CPU per byte, writes of 1 MiB and
// more several times as much, and scattering runs over the bin planes adds
// little; blocks of 256 MiB and 1 GiB made the render dearer (fresh pages),
// 16 and 32 MiB no cheaper. What does pay is alignment: when the planes lie
// on page boundaries, blocks of whole pages of spectra (512 pixels) make
// every run cover whole pages, which the kernel writes a fifth cheaper than
// runs that share a page with the next block's; and blocks of a power of
// two of pages let the page cache keep the runs in large pages, cheaper
// again (128 KiB runs into files allocated ahead: 0.13 s of CPU for 591 MB,
// against 0.18 s for runs of 33 pages). Otherwise blocks are whole rows, as
// the plan is.
std::uint32_t PipelineBlock(std::uint32_t planned, std::uint32_t width, std::uint32_t pixels,
                            std::uint32_t bins, std::uint64_t target) {
  constexpr std::uint32_t kPagePixels = 4096 / kSpectrumValueBytes;
  const std::uint64_t fit = target / (static_cast<std::uint64_t>(bins) * kSpectrumValueBytes);
  std::uint64_t block;
  if (pixels % kPagePixels == 0 && fit >= kPagePixels && planned >= kPagePixels) {
    block = std::bit_floor(std::min<std::uint64_t>(fit, planned) / kPagePixels) * kPagePixels;
  } else {
    block = std::min<std::uint64_t>(planned, std::max<std::uint64_t>(1, fit / width) * width);
  }
  return static_cast<std::uint32_t>(block);
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
  const std::uint32_t block = PipelineBlock(std::min(block_pixels_, total_pixels_), width_,
                                            total_pixels_, bins, kPipelineBlockBytes);
  // Runs stay as stored until the transform decodes them: the calling
  // thread, which bounds the render, only reads.
  const RunEncoding encoding = reader_.run_encoding();
  const std::size_t stride =
      (std::max(RunBytes(encoding, 0, block), RunBytes(encoding, 1, block)) + 63) / 64 * 64;
  const std::size_t raw_count = static_cast<std::size_t>(frames) * stride;
  const std::size_t spec_count = static_cast<std::size_t>(bins) * block;

  std::array<FftBuffer<std::uint8_t>, kSlots> raw;
  std::array<FftBuffer<std::complex<float>>, kSlots> spectra;
  FftBuffer<std::uint8_t> records = AllocateFftBuffer<std::uint8_t>(16ull * frames);
  bool memory_ok = static_cast<bool>(records) && kernel_.Acquire();
  for (int s = 0; s < kSlots && memory_ok; ++s) {
    raw[s] = AllocateFftBuffer<std::uint8_t>(raw_count);
    spectra[s] = AllocateFftBuffer<std::complex<float>>(spec_count);
    memory_ok = raw[s] && spectra[s];
    if (memory_ok) {
      platform::AdviseLargePages(raw[s].get(), raw_count);
      platform::AdviseLargePages(spectra[s].get(), spec_count * sizeof(std::complex<float>));
    }
  }
  auto tear_down = [&] {
    kernel_.Release();
    reader_.Close();
    cubes_.Close();
  };
  if (!memory_ok) {
    tear_down();
    return kRenderNoMemory;
  }

  std::vector<Block> blocks;
  for (std::uint32_t start = 0; start < total_pixels_; start += block) {
    blocks.push_back({start, std::min(block, total_pixels_ - start)});
  }

  // The cube reads as incomplete from before its first file is touched.
  CubeRecordWriter record;
  if (!record.Begin(reader_.header_path(), width_, height_, bins)) {
    tear_down();
    return kRenderWriteFailed;
  }
  cubes_.SetMode(CubeFileSet::Mode::kWrite);

  // Progress counts the pixels transformed; the workers add to it, the
  // calling thread reports it between its reads and writes. A value is
  // reported only when it exceeds the last one, which starts at 0.
  std::atomic<std::uint32_t> done{0};
  int last_percent = 0;
  auto report = [&] {
    const std::uint64_t d = done.load(std::memory_order_relaxed);
    const int percent = static_cast<int>(d * 100 / total_pixels_);
    if (percent > last_percent && cancel_.load(std::memory_order_relaxed) == 0) {
      last_percent = percent;
      if (progress) progress(percent);
    }
  };

  const std::uint32_t sub_block = std::max<std::uint32_t>(sub_block_pixels_, 1);
  auto transform = [&](const Block& b, int slot) {
    const SampleRuns runs{raw[slot].get(), stride, b.n, b.start, encoding};
    for (std::uint32_t first = 0; first < b.n; first += sub_block) {
      if (cancel_.load(std::memory_order_relaxed) != 0) return;
      const std::uint32_t last = std::min(b.n, first + sub_block);
      kernel_.Transform(runs, first, last, spectra[slot].get(), cancel_);
      done.fetch_add(last - first, std::memory_order_relaxed);
    }
  };
  auto read = [&](const Block& b, int slot) {
    // Frames that cannot be read are zero; the others are read all the same.
    reader_.ReadRuns(b.start, b.n, frames, raw[slot].get(), stride, records.get());
  };
  // Each bin's run of the block goes to its place in that bin's plane; the
  // record then counts the block's rows as written.
  auto write = [&](const Block& b, int slot) {
    const std::complex<float>* src = spectra[slot].get();
    for (std::uint32_t bin = 0; bin < bins; ++bin) {
      if (!cubes_.WriteInPlane(bin, static_cast<std::uint64_t>(b.start) * kSpectrumValueBytes,
                               src + static_cast<std::size_t>(bin) * b.n,
                               static_cast<std::size_t>(b.n) * kSpectrumValueBytes)) {
        return false;
      }
      if (bin % 64 == 63) report();
    }
    return record.SetRows((b.start + b.n) / width_);
  };

  // Block i is transformed in slot i % 2 while the calling thread writes
  // block i - 1 (the other slot's spectra) and reads block i + 1 (the other
  // slot's samples, free once block i - 1 was transformed).
  bool write_ok = true;
  bool all_written = false;
  std::exception_ptr failure;
  tbb::task_group group;
  try {
    if (!blocks.empty()) read(blocks[0], 0);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const int slot = static_cast<int>(i % kSlots);
      const int other = 1 - slot;
      group.run([&, i, slot] { transform(blocks[i], slot); });
      if (i > 0) write_ok = write(blocks[i - 1], other);
      if (write_ok && i + 1 < blocks.size() && cancel_.load(std::memory_order_relaxed) == 0) {
        read(blocks[i + 1], other);
      }
      report();
      group.wait();
      report();
      // A block interrupted by a cancel is incomplete and is not written.
      if (!write_ok || cancel_.load(std::memory_order_relaxed) != 0) break;
      if (i + 1 == blocks.size()) {
        write_ok = write(blocks[i], slot);
        all_written = write_ok;
      }
    }
  } catch (...) {
    failure = std::current_exception();
  }
  // No task may outlive the buffers it uses.
  try {
    group.wait();
  } catch (...) {
    if (!failure) failure = std::current_exception();
  }
  if (all_written && !record.Complete()) write_ok = false;
  record.Close();
  tear_down();

  if (!write_ok) return kRenderWriteFailed;
  if (failure) return kRenderNoMemory;  // out of memory in the transform
  if (cancel_.load(std::memory_order_relaxed) != 0 && !all_written) return kRenderCancelled;
  return all_written ? kRenderOk : kRenderNoMemory;
}

}  // namespace frfcam::frfmap
