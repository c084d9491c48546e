#include "frfmap/spectrum_kernel.h"

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) || defined(_M_X64)
#include <immintrin.h>
#endif

#include <algorithm>
#include <climits>
#include <cstring>

namespace frfcam::frfmap {

namespace {
constexpr int kSeries = SpectrumKernel::kPanelPixels / 2;
constexpr std::int32_t kMeasuredFrames = 65536;
// Panels staged together at most, and the bytes their staging copy may
// take, so that it and a panel's series stay in a core's cache.
constexpr std::uint32_t kGroupMax = 4;
constexpr std::size_t kStagingBytes = 256u << 10;

// One bin's row of a panel, written to `dst`. Whole rows go past the cache:
// the block is far larger than it, and is next read by the write to the
// cube, so fetching its lines first only doubles the traffic.
void StoreRow(const float* row, std::uint32_t count, std::complex<float>* dst) {
#if defined(__SSE2__)
  if (count == SpectrumKernel::kPanelPixels && (reinterpret_cast<std::uintptr_t>(dst) & 15) == 0) {
    float* out = reinterpret_cast<float*>(dst);
    for (std::uint32_t i = 0; i < 2 * SpectrumKernel::kPanelPixels; i += 4)
      _mm_stream_ps(out + i, _mm_load_ps(row + i));
    return;
  }
#endif
  // A fixed-size copy for whole panels compiles to a few vector moves.
  if (count == SpectrumKernel::kPanelPixels) {
    std::memcpy(reinterpret_cast<float*>(dst), row,
                2 * SpectrumKernel::kPanelPixels * sizeof(float));
  } else {
    std::memcpy(reinterpret_cast<float*>(dst), row, count * sizeof(std::complex<float>));
  }
}

// Splits each transformed series Z of a panel into its two real inputs
// a + ib: A[k] = (Z[k] + conj Z[F-k]) / 2, B[k] = (Z[k] - conj Z[F-k]) / 2i,
// scaled by 1/F (`h` is 1/2F); A and B are neighbours in the bin-major
// block. This is bin `k`'s row. Every path below computes the same sums in
// the same order, so the cube does not depend on the processor.
void SplitBin(const float* z, std::size_t frames, std::size_t k, float h, std::uint32_t count,
              std::complex<float>* spectra, std::uint32_t n) {
  alignas(64) float row[2 * SpectrumKernel::kPanelPixels];
  const std::size_t mirror = (frames - k) % frames;
#if defined(__SSE2__)
  // (zr + mr, zi - mi, zi + mi, mr - zr) from (zr, zi, zi, zr) and
  // (mr, mi, mi, mr) with the signs flipped where needed.
  const __m128 flip_z = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, 0, 0, 0));
  const __m128 flip_m = _mm_castsi128_ps(_mm_set_epi32(0, 0, INT32_MIN, 0));
  const __m128 scale = _mm_set1_ps(h);
  for (int j = 0; j < kSeries; ++j) {
    const float* zs = z + 2 * (j * frames + k);
    const float* ms = z + 2 * (j * frames + mirror);
    const __m128 zv = _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(zs)));
    const __m128 mv = _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(ms)));
    const __m128 zz = _mm_shuffle_ps(zv, zv, _MM_SHUFFLE(0, 1, 1, 0));
    const __m128 mm = _mm_shuffle_ps(mv, mv, _MM_SHUFFLE(0, 1, 1, 0));
    const __m128 sum = _mm_add_ps(_mm_xor_ps(zz, flip_z), _mm_xor_ps(mm, flip_m));
    _mm_store_ps(row + 4 * j, _mm_mul_ps(sum, scale));
  }
#else
  for (int j = 0; j < kSeries; ++j) {
    const float zr = z[2 * (j * frames + k)], zi = z[2 * (j * frames + k) + 1];
    const float mr = z[2 * (j * frames + mirror)], mi = z[2 * (j * frames + mirror) + 1];
    row[4 * j + 0] = (zr + mr) * h;
    row[4 * j + 1] = (zi - mi) * h;
    row[4 * j + 2] = (zi + mi) * h;
    row[4 * j + 3] = (mr - zr) * h;
  }
#endif
  StoreRow(row, count, spectra + k * n);
}

#if defined(__x86_64__) || defined(_M_X64)
// Bins k0 .. k1 - 1 (a multiple of 4, k0 >= 1, so that no mirror wraps), four
// at a time: each series' four values and their four mirrors are two
// contiguous loads, where one bin at a time needs eight scattered ones.
__attribute__((target("avx"))) void SplitBinsAvx(const float* z, std::size_t frames, std::size_t k0,
                                                 std::size_t k1, float h, std::uint32_t count,
                                                 std::complex<float>* spectra, std::uint32_t n) {
  alignas(64) float rows[4][2 * SpectrumKernel::kPanelPixels];
  const __m256 scale = _mm256_set1_ps(h);
  const __m256 flip_im =
      _mm256_castsi256_ps(_mm256_set_epi32(INT32_MIN, 0, INT32_MIN, 0, INT32_MIN, 0, INT32_MIN, 0));
  for (std::size_t k = k0; k < k1; k += 4) {
    for (int j = 0; j < kSeries; ++j) {
      const float* series = z + 2 * j * frames;
      const __m256 zv = _mm256_loadu_ps(series + 2 * k);  // Z[k .. k+3]
      // Z[F-k-3 .. F-k], reversed to Z[F-k], Z[F-k-1], Z[F-k-2], Z[F-k-3].
      __m256 mv = _mm256_loadu_ps(series + 2 * (frames - k - 3));
      mv = _mm256_permute2f128_ps(mv, mv, 1);
      mv = _mm256_permute_ps(mv, _MM_SHUFFLE(1, 0, 3, 2));
      // A = (zr + mr, zi - mi), B = (zi + mi, mr - zr), as in SplitBin.
      const __m256 a = _mm256_mul_ps(_mm256_add_ps(zv, _mm256_xor_ps(mv, flip_im)), scale);
      const __m256 zs = _mm256_permute_ps(zv, _MM_SHUFFLE(2, 3, 0, 1));
      const __m256 ms = _mm256_permute_ps(mv, _MM_SHUFFLE(2, 3, 0, 1));
      const __m256 b = _mm256_mul_ps(_mm256_add_ps(_mm256_xor_ps(zs, flip_im), ms), scale);
      // (A, B) of bins k, k+2 and of bins k+1, k+3.
      const __m256d even = _mm256_unpacklo_pd(_mm256_castps_pd(a), _mm256_castps_pd(b));
      const __m256d odd = _mm256_unpackhi_pd(_mm256_castps_pd(a), _mm256_castps_pd(b));
      _mm_store_pd(reinterpret_cast<double*>(rows[0] + 4 * j), _mm256_castpd256_pd128(even));
      _mm_store_pd(reinterpret_cast<double*>(rows[1] + 4 * j), _mm256_castpd256_pd128(odd));
      _mm_store_pd(reinterpret_cast<double*>(rows[2] + 4 * j), _mm256_extractf128_pd(even, 1));
      _mm_store_pd(reinterpret_cast<double*>(rows[3] + 4 * j), _mm256_extractf128_pd(odd, 1));
    }
    for (std::size_t t = 0; t < 4; ++t) StoreRow(rows[t], count, spectra + (k + t) * n);
  }
}
#endif
}  // namespace

struct SpectrumKernel::Workspace {
  FftBuffer<fftwf_complex> series;   // one panel's series
  FftBuffer<fftwf_complex> spectra;  // and their transforms
  FftBuffer<std::uint16_t> staging;  // a group's samples, frame by frame
};

// One workspace per worker thread, taken once per render: touching fresh
// memory for every panel would cost more than the transform.
struct SpectrumKernel::Workspaces {
  tbb::enumerable_thread_specific<Workspace> local;
};

SpectrumKernel::SpectrumKernel() = default;
SpectrumKernel::~SpectrumKernel() = default;

std::uint64_t SpectrumKernel::WorkingBytes(std::int32_t frames) {
  if (frames < 1) return 0;
  const std::uint64_t panel =
      2 * static_cast<std::uint64_t>(frames) * kSeries * sizeof(fftwf_complex) +
      static_cast<std::uint64_t>(frames) * kGroupMax * 2 * kSeries * 2;
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
  FftBuffer<fftwf_complex> scratch_out = AllocateFftBuffer<fftwf_complex>(count);
  if (!scratch || !scratch_out) return false;
  // Two real pixels travel as one complex series; a panel's series lie one
  // after another and are transformed in one call, each with unit stride,
  // out of place: in place, the library copies each series through a buffer
  // of its own, which made the transform a sixth slower.
  const int n = frames;
  {
    std::lock_guard<std::mutex> lock(FftPlannerMutex());
    fftwf_set_timelimit(1.0);
    // Measuring long transforms takes seconds and touches all the scratch;
    // for them the estimate is near enough.
    const unsigned flags = frames > kMeasuredFrames ? FFTW_ESTIMATE : FFTW_MEASURE;
    plan_ = FftPlan(fftwf_plan_many_dft(1, &n, kSeries, scratch.get(), nullptr, 1, n,
                                        scratch_out.get(), nullptr, 1, n, FFTW_FORWARD, flags));
  }
  if (!plan_) return false;
  frames_ = frames;
  return true;
}

bool SpectrumKernel::Acquire() {
  if (!prepared()) return false;
  workspaces_ = std::make_unique<Workspaces>();
  return true;
}

void SpectrumKernel::Release() { workspaces_.reset(); }

std::uint32_t SpectrumKernel::GroupPanels() const {
  const std::size_t row = static_cast<std::size_t>(frames_) * kPanelPixels * sizeof(std::uint16_t);
  return static_cast<std::uint32_t>(std::clamp<std::size_t>(kStagingBytes / row, 1, kGroupMax));
}

void SpectrumKernel::Transform(const SampleRuns& block, std::uint32_t first, std::uint32_t last,
                               std::complex<float>* spectra,
                               const std::atomic<std::uint8_t>& cancel) const {
  if (first >= last || !workspaces_) return;
  const std::uint32_t group = GroupPanels() * kPanelPixels;
  const std::uint32_t groups = (last - first + group - 1) / group;
  const std::size_t frames = static_cast<std::size_t>(frames_);
  tbb::parallel_for(
      tbb::blocked_range<std::uint32_t>(0, groups),
      [&](const tbb::blocked_range<std::uint32_t>& r) {
        Workspace& ws = workspaces_->local.local();
        if (!ws.series) {
          ws.series = AllocateFftBuffer<fftwf_complex>(frames * kSeries);
          ws.spectra = AllocateFftBuffer<fftwf_complex>(frames * kSeries);
          ws.staging = AllocateFftBuffer<std::uint16_t>(frames * group);
          if (!ws.series || !ws.spectra || !ws.staging) throw std::bad_alloc();
        }
        for (std::uint32_t g = r.begin(); g != r.end(); ++g) {
          if (cancel.load(std::memory_order_relaxed) != 0) break;
          const std::uint32_t p0 = first + g * group;
          TransformGroup(block, p0, std::min(group, last - p0), spectra, ws);
        }
#if defined(__SSE2__)
        _mm_sfence();  // the streamed rows are visible before the task ends
#endif
      },
      tbb::auto_partitioner());
}

void SpectrumKernel::TransformGroup(const SampleRuns& block, std::uint32_t p0, std::uint32_t count,
                                    std::complex<float>* spectra, Workspace& ws) const {
  const std::size_t frames = static_cast<std::size_t>(frames_);
  const std::uint32_t group = GroupPanels() * kPanelPixels;
  // Every frame's run of the group lies on another page of the block. Decoded
  // first, frame by frame with the runs a few frames ahead requested, the
  // misses overlap; the panels then read their samples from the core's cache.
  // A short group is padded with zeros.
  constexpr std::size_t kAhead = 8;
  std::uint16_t* stage = ws.staging.get();
  const std::size_t at = RunOffset(block.encoding, block.start, p0);
  const std::size_t span = RunBytes(block.encoding, block.start + p0, count) + (at % 64);
  for (std::size_t f = 0; f < frames; ++f) {
    const std::uint8_t* run = block.runs + f * block.stride;
    if (f + kAhead < frames) {
      const std::uint8_t* ahead = run + kAhead * block.stride + at;
      for (std::size_t line = 0; line < span; line += 64) __builtin_prefetch(ahead + line);
    }
    std::uint16_t* dst = stage + f * group;
    DecodeRun(block.encoding, run, block.start, p0, count, dst);
    if (count < group) std::memset(dst + count, 0, (group - count) * sizeof(std::uint16_t));
  }
  for (std::uint32_t q = 0; q * kPanelPixels < count; ++q) {
    TransformPanel(stage + q * kPanelPixels, group,
                   std::min(kPanelPixels, count - q * kPanelPixels),
                   spectra + p0 + q * kPanelPixels, block.n, ws);
  }
}

void SpectrumKernel::TransformPanel(const std::uint16_t* rows, std::size_t row_stride,
                                    std::uint32_t count, std::complex<float>* spectra,
                                    std::uint32_t n, Workspace& ws) const {
  const std::size_t frames = static_cast<std::size_t>(frames_);
  float* w = reinterpret_cast<float*>(ws.series.get());
  // Gather: pixels 2j and 2j + 1 of frame f become the (re, im) pair at row
  // f of series j. The series lie one after another, so the library
  // transforms each with unit stride, its fastest case.
  std::size_t f = 0;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  for (; f + 2 <= frames; f += 2) {
    const std::uint16_t* s0 = rows + f * row_stride;
    const std::uint16_t* s1 = s0 + row_stride;
    for (int c = 0; c < kSeries / 4; ++c) {
      const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + 8 * c));
      const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + 8 * c));
      const __m128 lo0 = _mm_cvtepi32_ps(_mm_unpacklo_epi16(v0, zero));
      const __m128 hi0 = _mm_cvtepi32_ps(_mm_unpackhi_epi16(v0, zero));
      const __m128 lo1 = _mm_cvtepi32_ps(_mm_unpacklo_epi16(v1, zero));
      const __m128 hi1 = _mm_cvtepi32_ps(_mm_unpackhi_epi16(v1, zero));
      float* d = w + 2 * (static_cast<std::size_t>(4 * c) * frames + f);
      const std::size_t step = 2 * frames;  // floats from one series to the next
      _mm_storeu_ps(d, _mm_movelh_ps(lo0, lo1));
      _mm_storeu_ps(d + step, _mm_movehl_ps(lo1, lo0));
      _mm_storeu_ps(d + 2 * step, _mm_movelh_ps(hi0, hi1));
      _mm_storeu_ps(d + 3 * step, _mm_movehl_ps(hi1, hi0));
    }
  }
#endif
  for (; f < frames; ++f) {
    const std::uint16_t* src = rows + f * row_stride;
    for (int j = 0; j < kSeries; ++j) {
      w[2 * (j * frames + f)] = static_cast<float>(src[2 * j]);
      w[2 * (j * frames + f) + 1] = static_cast<float>(src[2 * j + 1]);
    }
  }
  fftwf_execute_dft(plan_.get(), ws.series.get(), ws.spectra.get());
  const float* z = reinterpret_cast<const float*>(ws.spectra.get());
  const float h = 0.5f * static_cast<float>(1.0 / static_cast<double>(frames_));
  const std::size_t bins = frames / 2 + 1;
  std::size_t k = 0;
#if defined(__x86_64__) || defined(_M_X64)
  static const bool avx = __builtin_cpu_supports("avx");
  if (avx && bins > 4) {
    SplitBin(z, frames, 0, h, count, spectra, n);
    k = 1 + (bins - 1) / 4 * 4;
    SplitBinsAvx(z, frames, 1, k, h, count, spectra, n);
  }
#endif
  for (; k < bins; ++k) SplitBin(z, frames, k, h, count, spectra, n);
}

}  // namespace frfcam::frfmap
