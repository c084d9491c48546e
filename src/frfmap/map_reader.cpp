// FRF maps: one bin plane of the cube, divided by the reference spectrum at
// that bin, as gained magnitudes quantised to 8 bits.
#include <tbb/task_group.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "frfmap/cube_record.h"
#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

namespace {

// The map of one run of values: the magnitude of every value scaled by
// `scale` (> 0) first, so that neither the squares of large values nor those
// of tiny ones leave the float range unless the result does, rounded to
// nearest with ties to even (the default rounding mode) and saturated to
// 0..255 (NaN gives 0).
void QuantiseMagnitudesScalar(const float* v, std::size_t pixels, float scale, std::uint8_t* map) {
  for (std::size_t i = 0; i < pixels; ++i) {
    const float re = v[2 * i] * scale, im = v[2 * i + 1] * scale;
    float c = std::max(0.0f, std::sqrt(re * re + im * im));  // NaN: 0
    c = std::min(255.0f, c);
    // Adding and subtracting 1.5 x 2^23 leaves the nearest integer.
    map[i] = static_cast<std::uint8_t>(static_cast<int>((c + 12582912.0f) - 12582912.0f));
  }
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define FRFMAP_AVX2_MAP 1
// The same with AVX2, 32 values a step. The compiler's own vectorisation of
// the loop above spends most of its time taking real and imaginary parts
// apart; here the squares are added pairwise in place (hadd), the
// conversion rounds in the default mode, the two packs saturate to 0..255
// (a NaN converts to INT_MIN, which packs to 0; min keeps +inf at 255), and
// one permute and one shuffle put the bytes back in order.
__attribute__((target("avx2"), always_inline)) inline __m256i Magnitudes8(const float* w,
                                                                          __m256 scale,
                                                                          __m256 top) {
  const __m256 a = _mm256_mul_ps(_mm256_loadu_ps(w), scale);
  const __m256 b = _mm256_mul_ps(_mm256_loadu_ps(w + 8), scale);
  // Pixels 0 1 4 5 | 2 3 6 7 of the eight.
  const __m256 squares = _mm256_hadd_ps(_mm256_mul_ps(a, a), _mm256_mul_ps(b, b));
  return _mm256_cvtps_epi32(_mm256_min_ps(top, _mm256_sqrt_ps(squares)));
}

__attribute__((target("avx2"))) void QuantiseMagnitudesAvx2(const float* v, std::size_t pixels,
                                                            float scale, std::uint8_t* map) {
  const __m256 s = _mm256_set1_ps(scale), top = _mm256_set1_ps(255.0f);
  // After the packs each 128-bit half holds pixel pairs 0 2 4 .. and 1 3 5 ..
  // of its sixteen: interleave the pairs again.
  const __m256i order = _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15, 0, 1,
                                         8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
  std::size_t i = 0;
  for (; i + 32 <= pixels; i += 32) {
    const float* w = v + 2 * i;
    const __m256i lo = _mm256_packus_epi32(Magnitudes8(w, s, top), Magnitudes8(w + 16, s, top));
    const __m256i hi =
        _mm256_packus_epi32(Magnitudes8(w + 32, s, top), Magnitudes8(w + 48, s, top));
    const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(lo, hi), 0xD8);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(map + i), _mm256_shuffle_epi8(bytes, order));
  }
  QuantiseMagnitudesScalar(v + 2 * i, pixels - i, scale, map + i);
}
#endif

void QuantiseMagnitudes(const float* v, std::size_t pixels, float scale, std::uint8_t* map) {
#ifdef FRFMAP_AVX2_MAP
  static const bool avx2 = __builtin_cpu_supports("avx2");
  if (avx2) return QuantiseMagnitudesAvx2(v, pixels, scale, map);
#endif
  QuantiseMagnitudesScalar(v, pixels, scale, map);
}

// round(gain x |v / d|) for every value v, as |v| x (gain / |d|) with the
// factor worked out in double precision, so that any finite, non-zero d
// gives the right quotient (a plain complex division in floats overflows or
// underflows in |d|^2). A factor outside the float range takes a double path.
// d = 0 reads as no reference. A gain that is not positive gives zeros.
void Quantise(const float* v, std::size_t pixels, std::complex<float> d, float gain,
              std::uint8_t* map) {
  const double norm = d == std::complex<float>{} ? 1.0 : std::hypot<double>(d.real(), d.imag());
  const double scale = static_cast<double>(gain) / norm;
  if (!(scale > 0.0)) {
    std::memset(map, 0, pixels);
  } else if (scale <= FLT_MAX && scale >= FLT_MIN) {
    QuantiseMagnitudes(v, pixels, static_cast<float>(scale), map);
  } else {
    for (std::size_t i = 0; i < pixels; ++i) {
      const double m = std::hypot<double>(v[2 * i], v[2 * i + 1]) * scale;
      map[i] = static_cast<std::uint8_t>(std::nearbyint(std::min(255.0, std::max(0.0, m))));
    }
  }
}

// The pixels of the next chunk of a plane, `left` pixels from its end: large
// chunks while much is left, for few reads, halving towards the end, so that
// what is still to quantise once the last read is done is small.
std::size_t MapChunkPixels(std::size_t left) {
  constexpr std::size_t kLargest = 65536, kSmallest = 4096;  // 512 and 32 KiB
  return std::min(left, std::clamp(left / 2, kSmallest, kLargest));
}

}  // namespace

void FrfMapCalcs::SetReference(const float* signal, int length) {
  if (length < 0 || (length > 0 && signal == nullptr)) return;
  std::vector<std::complex<float>> spectrum(static_cast<std::size_t>(length));
  if (length > 0 && !ScaledRealDft(signal, length, spectrum.data())) {
    std::fill(spectrum.begin(), spectrum.end(), std::complex<float>{});
  }
  reference_ = std::move(spectrum);
}

int FrfMapCalcs::ReadFRFMap(int bin, float gain, unsigned char* map) {
  if (map == nullptr) return kReadNullMap;
  const CubeLayout& layout = cubes_.layout();
  // A bin past the opened cube is a short read of nothing, whatever longer
  // cube files may lie on disk.
  if (bin < 0 || layout.plane_bytes == 0 || static_cast<std::uint32_t>(bin) >= bins_) return 0;
  const std::size_t pixels = static_cast<std::size_t>(width_) * height_;
  const std::uint64_t plane = layout.plane_bytes;

  // Only what the cube's completion record says is written is read: the
  // rows of a cube being rendered (or cancelled) are complete only up to its
  // count, and a record for other dimensions means the cube opened is gone.
  const std::string& header_path = reader_.header_path();
  CubeRecord before;
  const RecordState state = ReadCubeRecord(header_path, &record_file_, &before);
  if (state == RecordState::kInvalid) return 0;
  const std::uint64_t generation = state == RecordState::kValid ? before.generation : 0;
  if (generation != read_generation_) {
    cubes_.Close();  // handles of an earlier render's files
    read_generation_ = generation;
  }
  if (state == RecordState::kValid) {
    if (before.width != width_ || before.height != height_ || before.bins != bins_) return 0;
    if (!before.complete) {
      return static_cast<int>(std::min<std::uint64_t>(
          plane, static_cast<std::uint64_t>(before.rows) * width_ * kSpectrumValueBytes));
    }
  }

  // The calling thread reads the plane chunk by chunk into a buffer of the
  // object's own, and each chunk, once in, becomes a pool task that
  // quantises it: nobody waits for anybody until the last chunk is read.
  if (read_plane_size_ != pixels) {
    read_plane_.reset();
    read_plane_size_ = 0;
    // Memory the machine does not have is refused here, not granted now and
    // taken from the host by the kernel's out-of-memory killer later (0:
    // not known).
    const std::uint64_t available = platform::AvailablePhysicalMemory();
    if (available != 0 && plane + pixels > available) return kReadNoMemory;
    read_plane_ = AllocateFftBuffer<float>(2 * pixels);
    read_plane_size_ = read_plane_ ? pixels : 0;
    if (!read_plane_) return kReadNoMemory;
  }
  const auto b = static_cast<std::uint32_t>(bin);
  // A bin beyond the reference reads unreferenced (as a zero value does).
  const std::complex<float> reference = b < reference_.size() ? reference_[b] : 0.0f;

  // Through a handle that an earlier call opened, and that holds the whole
  // plane, the map is made in place: the read can then fall short only if
  // another process cuts the file meanwhile. A render replaces the record
  // before it replaces any cube file and never writes into an old one, and
  // a new generation closes every handle above, so with the record as it
  // was the handle still holds the complete cube's file. A file opened now
  // may be a render's that began just after the record was read, so its map
  // is staged and the record read again before the caller's is written.
  cubes_.SetMode(CubeFileSet::Mode::kRead);
  const bool in_place = cubes_.HoldsPlane(b);
  if (!in_place && staged_map_.size() != pixels) staged_map_.assign(pixels, 0);
  std::uint8_t* const out = in_place ? map : staged_map_.data();
  std::size_t read = 0;
  {
    tbb::task_group group;
    try {
      for (std::size_t p0 = 0, count = 0; p0 < pixels; p0 += count) {
        count = MapChunkPixels(pixels - p0);
        const std::size_t bytes = count * kSpectrumValueBytes;
        float* chunk = read_plane_.get() + 2 * p0;
        const std::size_t got = cubes_.ReadInPlane(b, read, chunk, bytes);
        read += got;
        if (got != bytes) break;
        group.run([=] { Quantise(chunk, count, reference, gain, out + p0); });
      }
    } catch (...) {
      group.wait();
      throw;
    }
    group.wait();
  }
  if (read != plane) return static_cast<int>(read);
  if (in_place) return 0;
  if (state == RecordState::kValid) {
    CubeRecord after;
    if (ReadCubeRecord(header_path, &record_file_, &after) != RecordState::kValid ||
        after.generation != before.generation || !after.complete) {
      return 0;
    }
  }
  std::memcpy(map, staged_map_.data(), pixels);
  return 0;
}

}  // namespace frfcam::frfmap
