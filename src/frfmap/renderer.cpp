// RenderCube: the capture is walked in blocks of pixels. The calling
// thread does every read, every write and every progress report; the worker
// pool decodes and transforms the current block meanwhile, so that the disk
// and the cores work at once: while block i is transformed, the calling
// thread writes block i - 1's spectra and reads block i + 1's stored bytes.
// Two buffers of each kind hold the blocks in flight. Most of a large cube
// is written with direct writes queued to the OS, which go on while the
// calling thread reads and the pool transforms; a buffer of spectra is
// reused only once its writes have finished.
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <exception>

#include "frfmap/cube_record.h"
#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"
#include "frfmap/render_settings.h"
#include "platform/platform.h"
#include "platform/write_queue.h"

namespace frfcam::frfmap {

namespace {

constexpr int kSlots = 2;
constexpr std::uint64_t kPipelineBlockBytes = 64ull << 20;
// With direct writes, runs of 128 KiB (at a thousand bins) kept a virtual
// disk 40 % busier than runs of 64 KiB; 256 KiB gained little more.
constexpr std::uint64_t kDirectBlockBytes = 128ull << 20;

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

// Direct writes in flight at most: enough to keep a disk's queue full with
// runs of tens of KiB.
constexpr unsigned kWritesInFlight = 128;

std::atomic<std::uint64_t> cached_cube_bytes{kCachedCubeBytesAutomatic};
std::atomic<std::uint64_t> block_bytes_setting{0};

// The bins whose planes go through the OS's file cache: those of the cube
// files that fit, from the first on, within a tenth of the available memory.
// Linux starts writing cached data back to the disk once it passes a tenth
// of the available memory, and holds the writer back at a fifth; up to a
// tenth, each byte costs the calling thread a copy (and on virtual machines
// that hand freed memory back to their host, a fresh page, which costs more)
// while the disk stays free for the other files, written directly: their
// bytes go from the render's buffers to the disk with no copy, and the cache
// keeps what the user had in it. Whole files, because a file's writes are
// all direct or all cached. A cube within the tenth is written through the
// cache alone, as it fits there.
std::uint32_t CachedBins(const CubeLayout& layout) {
  std::uint64_t budget = cached_cube_bytes.load(std::memory_order_relaxed);
  if (budget == kCachedCubeBytesAll) return layout.bins;
  if (budget == kCachedCubeBytesAutomatic) {
    const std::uint64_t available = platform::AvailablePhysicalMemory();
    if (available == 0) return layout.bins;
    budget = available / 10;
  }
  const std::uint64_t file_bytes =
      static_cast<std::uint64_t>(layout.bins_per_file) * layout.plane_bytes;
  if (file_bytes == 0) return layout.bins;
  if (static_cast<std::uint64_t>(layout.bins) * layout.plane_bytes <= budget) return layout.bins;
  return static_cast<std::uint32_t>(budget / file_bytes) * layout.bins_per_file;
}

}  // namespace

void SetCachedCubeBytes(std::uint64_t bytes) {
  cached_cube_bytes.store(bytes, std::memory_order_relaxed);
}

void SetRenderBlockBytes(std::uint64_t bytes) {
  block_bytes_setting.store(bytes, std::memory_order_relaxed);
}

int FrfMapCalcs::RenderCube(const ProgressFn& progress) {
  cancel_.store(0, std::memory_order_relaxed);
  if (!opened_) return kRenderNoMemory;
  opened_ = false;  // a render consumes its opening

  const std::int32_t frames = kernel_.frames();
  const std::uint32_t bins = kernel_.bins();
  // Direct writes need every run on a page boundary in memory and on disk:
  // planes of whole pages, and blocks of whole pages, which PipelineBlock
  // gives whenever the planes are whole pages.
  constexpr std::size_t kAlign = platform::kDirectWriteAlignment;
  const std::uint64_t plane_bytes = cubes_.layout().plane_bytes;
  const std::uint32_t cached_bins = CachedBins(cubes_.layout());
  const bool want_direct = plane_bytes % kAlign == 0 && cached_bins < bins;
  const std::uint64_t block_bytes = block_bytes_setting.load(std::memory_order_relaxed);
  const std::uint32_t block =
      PipelineBlock(std::min(block_pixels_, total_pixels_), width_, total_pixels_, bins,
                    block_bytes != 0 ? block_bytes
                    : want_direct    ? kDirectBlockBytes
                                     : kPipelineBlockBytes);
  // Runs stay as stored until the transform decodes them: the calling
  // thread, which bounds the render, only reads.
  const RunEncoding encoding = reader_.run_encoding();
  const std::size_t stride =
      (std::max(RunBytes(encoding, 0, block), RunBytes(encoding, 1, block)) + 63) / 64 * 64;
  const std::size_t raw_count = static_cast<std::size_t>(frames) * stride;
  const std::size_t spectra_count = static_cast<std::size_t>(bins) * block;

  std::array<FftBuffer<std::uint8_t>, kSlots> raw;
  std::array<FftBuffer<std::complex<float>>, kSlots> spectra_memory;
  std::array<std::complex<float>*, kSlots> spectra{};
  FftBuffer<std::uint8_t> records = AllocateFftBuffer<std::uint8_t>(16ull * frames);
  bool memory_ok = static_cast<bool>(records) && kernel_.Acquire();
  for (int s = 0; s < kSlots && memory_ok; ++s) {
    raw[s] = AllocateFftBuffer<std::uint8_t>(raw_count);
    // A page more, so that the spectra can start on a page boundary.
    constexpr std::size_t kPad = kAlign / sizeof(std::complex<float>);
    spectra_memory[s] = AllocateFftBuffer<std::complex<float>>(spectra_count + kPad);
    memory_ok = raw[s] && spectra_memory[s];
    if (memory_ok) {
      const auto at = reinterpret_cast<std::uintptr_t>(spectra_memory[s].get());
      spectra[s] =
          spectra_memory[s].get() + (kAlign - at % kAlign) % kAlign / sizeof(std::complex<float>);
      platform::AdviseLargePages(raw[s].get(), raw_count);
      platform::AdviseLargePages(spectra[s], spectra_count * sizeof(std::complex<float>));
    }
  }
  // Declared after the buffers, so that however the render ends, no write
  // in flight outlives the spectra it writes from.
  platform::WriteQueue queue;
  const bool direct = want_direct &&
                      (static_cast<std::size_t>(block) * kSpectrumValueBytes) % kAlign == 0 &&
                      queue.Start(kWritesInFlight);
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
      kernel_.Transform(runs, first, last, spectra[slot], cancel_);
      done.fetch_add(last - first, std::memory_order_relaxed);
    }
  };
  auto read = [&](const Block& b, int slot) {
    // Frames that cannot be read are zero; the others are read all the same.
    reader_.ReadRuns(b.start, b.n, frames, raw[slot].get(), stride, records.get());
  };
  // Each bin's run of the block goes to its place in that bin's plane, with
  // direct writes queued (the slot's spectra then stay untouched until
  // settle) or else written at once.
  auto write = [&](const Block& b, int slot) {
    const std::complex<float>* src = spectra[slot];
    const std::size_t run = static_cast<std::size_t>(b.n) * kSpectrumValueBytes;
    const std::uint64_t at = static_cast<std::uint64_t>(b.start) * kSpectrumValueBytes;
    for (std::uint32_t bin = 0; bin < bins; ++bin) {
      const std::complex<float>* data = src + static_cast<std::size_t>(bin) * b.n;
      const platform::File* file =
          direct && bin >= cached_bins ? cubes_.DirectFileFor(bin) : nullptr;
      // A write the queue refuses is made at once instead (aligned, it
      // suits a direct file too).
      const bool ok =
          (file != nullptr && queue.Submit(*file, cubes_.layout().Locate(bin).offset + at, data,
                                           run, static_cast<unsigned>(slot))) ||
          cubes_.WriteInPlane(bin, at, data, run);
      if (!ok) return false;
      if (bin % 64 == 63) report();
    }
    return true;
  };
  // Once a block's writes have all finished, the record counts its rows as
  // written, and its slot may take the next block.
  auto settle = [&](const Block& b, int slot) {
    return queue.Wait(static_cast<unsigned>(slot)) && record.SetRows((b.start + b.n) / width_);
  };

  // Block i is transformed in slot i % 2 while the calling thread writes
  // block i - 1 (the other slot's spectra) and reads block i + 1 (the other
  // slot's samples, free once block i - 1 was transformed). Direct writes of
  // block i - 1 go on meanwhile, until block i + 1 needs their slot.
  bool write_ok = true;
  bool all_written = false;
  std::exception_ptr failure;
  tbb::task_group group;
  // Blocks are written in order: blocks settled .. written - 1 are written
  // (or being written) and not yet settled, at most one per slot.
  std::size_t settled = 0, written = 0;
  auto settle_oldest = [&] {
    const std::size_t j = settled++;
    return settle(blocks[j], static_cast<int>(j % kSlots));
  };
  // A block that failed is never settled: the blocks after it are not
  // written, and the record stops before it.
  auto wrote = [&](std::size_t j, bool ok) {
    if (ok) written = j + 1;
    return ok;
  };
  try {
    if (!blocks.empty()) read(blocks[0], 0);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const int slot = static_cast<int>(i % kSlots);
      const int other = 1 - slot;
      if (settled < written) write_ok = settle_oldest();  // block i - 2, in this slot
      if (!write_ok) break;
      group.run([&, i, slot] { transform(blocks[i], slot); });
      if (i > 0) write_ok = wrote(i - 1, write(blocks[i - 1], other));
      if (write_ok && i + 1 < blocks.size() && cancel_.load(std::memory_order_relaxed) == 0) {
        read(blocks[i + 1], other);
      }
      report();
      group.wait();
      report();
      // A block interrupted by a cancel is incomplete and is not written.
      if (!write_ok || cancel_.load(std::memory_order_relaxed) != 0) break;
      if (i + 1 == blocks.size()) {
        write_ok = wrote(i, write(blocks[i], slot));
        all_written = write_ok;
      }
    }
  } catch (...) {
    failure = std::current_exception();
  }
  // No task may outlive the buffers it uses, nor may a write in flight.
  try {
    group.wait();
  } catch (...) {
    if (!failure) failure = std::current_exception();
  }
  // Blocks written whole count as written, in order, up to the first that
  // failed; a cancel keeps what was written before it. Then the writes of a
  // block that failed part way are waited for too.
  while (settled < written && write_ok) write_ok = settle_oldest();
  all_written = all_written && write_ok;
  for (unsigned tag = 0; tag < kSlots; ++tag) queue.Wait(tag);
  if (all_written && !record.Complete()) write_ok = false;
  record.Close();
  tear_down();

  if (!write_ok) return kRenderWriteFailed;
  if (failure) return kRenderNoMemory;  // out of memory in the transform
  if (cancel_.load(std::memory_order_relaxed) != 0 && !all_written) return kRenderCancelled;
  return all_written ? kRenderOk : kRenderNoMemory;
}

}  // namespace frfcam::frfmap
