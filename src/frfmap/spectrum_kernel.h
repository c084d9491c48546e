// The per-pixel transform of a render: every pixel's time series through a
// forward real DFT scaled by 1/F, from frame-major samples to bin-major
// spectra.
#pragma once

#include <atomic>
#include <complex>
#include <cstdint>
#include <memory>

#include "frfmap/fft.h"
#include "frfmap/unpack.h"

namespace frfcam::frfmap {

// A block of n pixels in every frame, as read: frame f's run of pixels
// start .. start + n - 1 lies at runs + f * stride, in `encoding`.
struct SampleRuns {
  const std::uint8_t* runs = nullptr;
  std::size_t stride = 0;
  std::uint32_t n = 0;
  std::uint64_t start = 0;
  RunEncoding encoding = RunEncoding::kSamples;
};

class SpectrumKernel {
 public:
  SpectrumKernel();
  ~SpectrumKernel();
  SpectrumKernel(const SpectrumKernel&) = delete;
  SpectrumKernel& operator=(const SpectrumKernel&) = delete;

  // Bytes a render's transforms of `frames` samples need: one panel's series,
  // their transforms and a group's staging copy per worker thread and once
  // more for planning, and the plan's own tables.
  static std::uint64_t WorkingBytes(std::int32_t frames);

  // Plans transforms of `frames` samples; false when that is impossible.
  bool Prepare(std::int32_t frames);
  bool prepared() const { return static_cast<bool>(plan_); }
  std::int32_t frames() const { return frames_; }
  std::uint32_t bins() const { return static_cast<std::uint32_t>(frames_ / 2 + 1); }

  // Takes the per-thread working memory for a render; false when it cannot
  // be had. Release() gives it back (also done by Prepare and the destructor).
  bool Acquire();
  void Release();

  // Transforms pixels [first, last) of a block: `spectra` receives bins rows
  // of block.n values. Decoding the runs is part of the work. Runs in
  // parallel; pixels not yet started when `cancel` becomes non-zero are
  // skipped (their spectra are then undefined).
  void Transform(const SampleRuns& block, std::uint32_t first, std::uint32_t last,
                 std::complex<float>* spectra, const std::atomic<std::uint8_t>& cancel) const;

  // Pixels per transform call: 16 complex series, two real pixels each.
  static constexpr std::uint32_t kPanelPixels = 32;

 private:
  struct Workspaces;
  struct Workspace;
  // Panels taken together from the samples, so that each frame's run of them
  // is a few whole cache lines; fewer for long series, whose staging copy
  // would not stay in the core's cache.
  std::uint32_t GroupPanels() const;
  void TransformGroup(const SampleRuns& block, std::uint32_t p0, std::uint32_t count,
                      std::complex<float>* spectra, Workspace& ws) const;
  void TransformPanel(const std::uint16_t* rows, std::size_t row_stride, std::uint32_t count,
                      std::complex<float>* spectra, std::uint32_t n, Workspace& ws) const;

  std::int32_t frames_ = 0;
  FftPlan plan_;
  std::unique_ptr<Workspaces> workspaces_;
};

}  // namespace frfcam::frfmap
