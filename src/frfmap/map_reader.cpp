// FRF maps: one bin plane of the cube, divided by the reference spectrum at
// that bin, as gained magnitudes quantised to 8 bits.
#include <tbb/task_group.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "frfmap/cube_record.h"
#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

namespace {

// The map in chunks of two passes that each vectorise well: the magnitude of
// every value scaled by `scale` (> 0) first, so that neither the squares of
// large values nor those of tiny ones leave the float range unless the result
// does, rounded to nearest with ties to even and saturated to 0..255 in
// floats (NaN gives 0; adding and subtracting 1.5 * 2^23 leaves the nearest
// integer in the default rounding mode), then narrowed to bytes.
FRFCAM_VECTOR_CLONES void QuantiseMagnitudes(const float* __restrict v, std::size_t pixels,
                                             float scale, std::uint8_t* __restrict map) {
  constexpr std::size_t kChunk = 256;
  constexpr float kMagic = 12582912.0f;
  float rounded[kChunk];
  for (std::size_t p0 = 0; p0 < pixels; p0 += kChunk) {
    const std::size_t n = std::min(kChunk, pixels - p0);
    const float* w = v + 2 * p0;
    for (std::size_t i = 0; i < n; ++i) {
      const float re = w[2 * i] * scale, im = w[2 * i + 1] * scale;
      float c = std::max(0.0f, std::sqrt(re * re + im * im));  // NaN: 0
      c = std::min(255.0f, c);
      rounded[i] = (c + kMagic) - kMagic;
    }
    for (std::size_t i = 0; i < n; ++i) {
      map[p0 + i] = static_cast<std::uint8_t>(static_cast<int>(rounded[i]));
    }
  }
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
  const RecordState state = ReadCubeRecord(header_path, &before);
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

  // The plane goes through two small buffers that stay in the cache, chunk by
  // chunk, into a map of the object's own: the calling thread reads the next
  // chunk while a pool task quantises the last one, and the caller's map is
  // written only once the whole plane has been read, so a file cut short
  // (even while it is read) leaves it untouched.
  if (!read_chunk_) {
    read_chunk_ = AllocateFftBuffer<float>(4 * kMapChunkPixels);
    if (!read_chunk_) return kReadNoMemory;
  }
  if (staged_map_.size() != pixels) staged_map_.assign(pixels, 0);
  cubes_.SetMode(CubeFileSet::Mode::kRead);
  const auto b = static_cast<std::uint32_t>(bin);
  // A bin beyond the reference reads unreferenced (as a zero value does).
  const std::complex<float> reference = b < reference_.size() ? reference_[b] : 0.0f;
  std::size_t read = 0;
  bool whole = true;
  {
    tbb::task_group group;
    try {
      for (std::size_t p0 = 0, k = 0; p0 < pixels; p0 += kMapChunkPixels, ++k) {
        const std::size_t count = std::min(kMapChunkPixels, pixels - p0);
        const std::size_t bytes = count * kSpectrumValueBytes;
        float* chunk = read_chunk_.get() + (k % 2) * 2 * kMapChunkPixels;
        const std::size_t got = cubes_.ReadInPlane(b, read, chunk, bytes);
        read += got;
        group.wait();  // the other buffer's chunk is done before it is reused
        if (got != bytes) {
          whole = false;
          break;
        }
        std::uint8_t* out = staged_map_.data() + p0;
        group.run([=] { Quantise(chunk, count, reference, gain, out); });
      }
    } catch (...) {
      group.wait();
      throw;
    }
    group.wait();
  }
  if (!whole) return static_cast<int>(read);
  // A render that began while the plane was read may have replaced part of
  // it: then nothing of it is known to be complete.
  if (state == RecordState::kValid) {
    CubeRecord after;
    if (ReadCubeRecord(header_path, &after) != RecordState::kValid ||
        after.generation != before.generation || !after.complete) {
      return 0;
    }
  }
  std::memcpy(map, staged_map_.data(), pixels);
  return 0;
}

}  // namespace frfcam::frfmap
