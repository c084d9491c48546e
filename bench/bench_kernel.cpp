// The render's per-pixel transform in isolation, on one worker thread: a
// block of 12-bit packed runs as the reader leaves it (frame-major, as
// stored) decoded and transformed to bin-major spectra,
// against the FFT library's own batch transform of as many series already
// laid out contiguously in a warm buffer, transformed out of place: the
// arithmetic no layout can avoid.
// The difference is what the decode, the gather, the split and the scatter
// cost.
//
//   bench_kernel [frames (1000)] [block pixels (16512)] [runs (7)]
#include <tbb/global_control.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "bench_support.h"
#include "frfmap/fft.h"
#include "frfmap/spectrum_kernel.h"

using namespace frfcam;

namespace {

double ThreadCpu() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

}  // namespace

int main(int argc, char** argv) {
  const int frames = argc > 1 ? std::atoi(argv[1]) : 1000;
  const std::uint32_t n = argc > 2 ? static_cast<std::uint32_t>(std::atoi(argv[2])) : 16512;
  const int runs = argc > 3 ? std::max(1, std::atoi(argv[3])) : 7;
  const std::uint32_t bins = static_cast<std::uint32_t>(frames / 2 + 1);
  // One worker: thread CPU time is then the whole cost, whatever else runs.
  tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);

  // Any bytes are valid packed samples.
  const std::size_t stride = frfmap::RunBytes(frfmap::RunEncoding::kPacked12, 0, n);
  std::vector<std::uint8_t> stored(static_cast<std::size_t>(frames) * stride);
  std::mt19937 rng(1);
  for (auto& b : stored) b = static_cast<std::uint8_t>(rng());
  std::vector<std::complex<float>> spectra(static_cast<std::size_t>(bins) * n);

  frfmap::SpectrumKernel kernel;
  if (!kernel.Prepare(frames) || !kernel.Acquire()) return 1;
  const std::atomic<std::uint8_t> cancel{0};

  // The floor: 16 contiguous series of `frames` points per call, n / 32
  // calls, from one warm buffer to another.
  constexpr int kSeries = frfmap::SpectrumKernel::kPanelPixels / 2;
  auto buffer =
      frfmap::AllocateFftBuffer<fftwf_complex>(static_cast<std::size_t>(frames) * kSeries);
  auto out = frfmap::AllocateFftBuffer<fftwf_complex>(static_cast<std::size_t>(frames) * kSeries);
  fftwf_plan plan;
  {
    std::lock_guard<std::mutex> lock(frfmap::FftPlannerMutex());
    plan = fftwf_plan_many_dft(1, &frames, kSeries, buffer.get(), nullptr, 1, frames, out.get(),
                               nullptr, 1, frames, FFTW_FORWARD, FFTW_MEASURE);
  }
  for (int i = 0; i < frames * kSeries; ++i) buffer[i][0] = buffer[i][1] = 1.0f;
  const std::uint32_t panels = n / frfmap::SpectrumKernel::kPanelPixels;

  std::vector<double> t_kernel, t_floor;
  for (int r = 0; r <= runs; ++r) {  // run 0 warms both
    double t0 = ThreadCpu();
    const frfmap::SampleRuns block{stored.data(), stride, n, 0, frfmap::RunEncoding::kPacked12};
    kernel.Transform(block, 0, n, spectra.data(), cancel);
    double t1 = ThreadCpu();
    for (std::uint32_t p = 0; p < panels; ++p) fftwf_execute(plan);
    double t2 = ThreadCpu();
    if (r > 0) {
      t_kernel.push_back(t1 - t0);
      t_floor.push_back(t2 - t1);
    }
  }
  {
    std::lock_guard<std::mutex> lock(frfmap::FftPlannerMutex());
    fftwf_destroy_plan(plan);
  }
  const double km = *std::min_element(t_kernel.begin(), t_kernel.end());
  const double fm = *std::min_element(t_floor.begin(), t_floor.end());
  std::printf("%d frames, block of %u pixels, one thread (cpu time)\n", frames, n);
  std::printf("  transform     min %7.2f ms  median %7.2f ms  (%.2f us per pixel)\n", km * 1e3,
              bench::Median(t_kernel) * 1e3, km * 1e6 / n);
  std::printf("  FFT only      min %7.2f ms  median %7.2f ms\n", fm * 1e3,
              bench::Median(t_floor) * 1e3);
  std::printf("  transform / FFT only: %.2f (min), %.2f (median)\n", km / fm,
              bench::Median(t_kernel) / bench::Median(t_floor));
  return 0;
}
