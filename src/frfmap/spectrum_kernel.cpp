#include "frfmap/spectrum_kernel.h"

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <cstring>

namespace frfcam::frfmap {

namespace {
constexpr int kSeries = SpectrumKernel::kPanelPixels / 2;
constexpr std::int32_t kMeasuredFrames = 65536;
}  // namespace

// One panel buffer per worker thread, taken once per render: touching fresh
// memory for every panel would cost more than the transform.
struct SpectrumKernel::Workspaces {
  explicit Workspaces(std::size_t count) : count(count) {}
  std::size_t count;
  tbb::enumerable_thread_specific<FftBuffer<fftwf_complex>> buffers;
};

SpectrumKernel::SpectrumKernel() = default;
SpectrumKernel::~SpectrumKernel() = default;

std::uint64_t SpectrumKernel::WorkingBytes(std::int32_t frames) {
  if (frames < 1) return 0;
  const std::uint64_t panel = static_cast<std::uint64_t>(frames) * kSeries * sizeof(fftwf_complex);
  const auto threads = static_cast<std::uint64_t>(tbb::this_task_arena::max_concurrency());
  return panel * (threads + 1) + 4 * static_cast<std::uint64_t>(frames) * sizeof(fftwf_complex);
}

bool SpectrumKernel::Prepare(std::int32_t frames) {
  Release();
  plan_.Reset();
  frames_ = 0;
  if (frames < 1) return false;
  const std::size_t count = static_cast<std::size_t>(frames) * kSeries;
  FftBuffer<fftwf_complex> scratch = AllocateFftBuffer<fftwf_complex>(count);
  if (!scratch) return false;
  // Two real pixels travel as one complex series; a panel's series are
  // transformed together, interleaved, so each frame's samples of a panel
  // are one contiguous run of kPanelPixels values.
  const int n = frames;
  {
    std::lock_guard<std::mutex> lock(FftPlannerMutex());
    fftwf_set_timelimit(1.0);
    // Measuring long transforms takes seconds and touches all the scratch;
    // for them the estimate is near enough.
    const unsigned flags = frames > kMeasuredFrames ? FFTW_ESTIMATE : FFTW_MEASURE;
    plan_ = FftPlan(fftwf_plan_many_dft(1, &n, kSeries, scratch.get(), nullptr, kSeries, 1,
                                        scratch.get(), nullptr, kSeries, 1, FFTW_FORWARD, flags));
  }
  if (!plan_) return false;
  frames_ = frames;
  return true;
}

bool SpectrumKernel::Acquire() {
  if (!prepared()) return false;
  workspaces_ = std::make_unique<Workspaces>(static_cast<std::size_t>(frames_) * kSeries);
  return true;
}

void SpectrumKernel::Release() { workspaces_.reset(); }

void SpectrumKernel::Transform(const std::uint16_t* samples, std::uint32_t n, std::uint32_t first,
                               std::uint32_t last, std::complex<float>* spectra,
                               const std::atomic<std::uint8_t>& cancel) const {
  if (first >= last || !workspaces_) return;
  const std::uint32_t panels = (last - first + kPanelPixels - 1) / kPanelPixels;
  tbb::parallel_for(
      tbb::blocked_range<std::uint32_t>(0, panels),
      [&](const tbb::blocked_range<std::uint32_t>& r) {
        auto& buffer = workspaces_->buffers.local();
        if (!buffer) {
          buffer = AllocateFftBuffer<fftwf_complex>(workspaces_->count);
          if (!buffer) throw std::bad_alloc();
        }
        for (std::uint32_t panel = r.begin(); panel != r.end(); ++panel) {
          if (cancel.load(std::memory_order_relaxed) != 0) return;
          const std::uint32_t p0 = first + panel * kPanelPixels;
          TransformPanel(samples, n, p0, std::min(kPanelPixels, last - p0), spectra, buffer.get());
        }
      },
      tbb::auto_partitioner());
}

void SpectrumKernel::TransformPanel(const std::uint16_t* samples, std::uint32_t n, std::uint32_t p0,
                                    std::uint32_t count, std::complex<float>* spectra,
                                    fftwf_complex* work) const {
  const std::size_t frames = static_cast<std::size_t>(frames_);
  float* w = reinterpret_cast<float*>(work);
  // Gather: frame f's samples of the panel become the (re, im) pairs of its
  // series at row f. A short last panel is padded with zeros.
  if (count == kPanelPixels) {
    for (std::size_t f = 0; f < frames; ++f) {
      const std::uint16_t* src = samples + f * n + p0;
      float* dst = w + f * kPanelPixels;
      for (std::uint32_t j = 0; j < kPanelPixels; ++j) dst[j] = static_cast<float>(src[j]);
    }
  } else {
    for (std::size_t f = 0; f < frames; ++f) {
      const std::uint16_t* src = samples + f * n + p0;
      float* dst = w + f * kPanelPixels;
      for (std::uint32_t j = 0; j < kPanelPixels; ++j) {
        dst[j] = j < count ? static_cast<float>(src[j]) : 0.0f;
      }
    }
  }
  fftwf_execute_dft(plan_.get(), work, work);

  // Split each series Z into its two real inputs a + ib:
  // A[k] = (Z[k] + conj Z[F-k]) / 2, B[k] = (Z[k] - conj Z[F-k]) / 2i,
  // scaled by 1/F, and scatter them into the bin-major block.
  const float half_scale = 0.5f * static_cast<float>(1.0 / static_cast<double>(frames_));
  const std::size_t bins = frames / 2 + 1;
  alignas(64) float row[2 * kPanelPixels];
  for (std::size_t k = 0; k < bins; ++k) {
    const float* z = w + k * 2 * kSeries;
    const float* m = w + ((frames - k) % frames) * 2 * kSeries;
    for (int j = 0; j < kSeries; ++j) {
      const float zr = z[2 * j], zi = z[2 * j + 1];
      const float mr = m[2 * j], mi = m[2 * j + 1];
      row[4 * j + 0] = (zr + mr) * half_scale;
      row[4 * j + 1] = (zi - mi) * half_scale;
      row[4 * j + 2] = (zi + mi) * half_scale;
      row[4 * j + 3] = (mr - zr) * half_scale;
    }
    // A fixed-size copy for whole panels compiles to a few vector moves.
    if (count == kPanelPixels) {
      std::memcpy(spectra + k * n + p0, row, sizeof row);
    } else {
      std::memcpy(spectra + k * n + p0, row, count * sizeof(std::complex<float>));
    }
  }
}

}  // namespace frfcam::frfmap
