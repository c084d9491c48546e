// FRF maps: one bin plane of the cube, divided by the reference spectrum at
// that bin, as gained magnitudes quantised to 8 bits.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "frfmap/cube_record.h"
#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

namespace {

// The map in chunks of two passes that each vectorise well: the gained
// magnitude of every value (`Magnitude` gives |v| or |v / d|), rounded to
// nearest with ties to even and saturated to 0..255 in floats (negative
// values and NaN give 0; adding and subtracting 1.5 * 2^23 leaves the
// nearest integer in the default rounding mode), then narrowed to bytes.
template <class Magnitude>
[[gnu::always_inline]] inline void QuantiseChunks(const float* __restrict v, std::size_t pixels,
                                                  float gain, std::uint8_t* __restrict map,
                                                  Magnitude magnitude) {
  constexpr std::size_t kChunk = 256;
  constexpr float kMagic = 12582912.0f;
  float rounded[kChunk];
  for (std::size_t p0 = 0; p0 < pixels; p0 += kChunk) {
    const std::size_t n = std::min(kChunk, pixels - p0);
    const float* w = v + 2 * p0;
    for (std::size_t i = 0; i < n; ++i) {
      float c = std::max(0.0f, magnitude(w[2 * i], w[2 * i + 1]) * gain);  // NaN: 0
      c = std::min(255.0f, c);
      rounded[i] = (c + kMagic) - kMagic;
    }
    for (std::size_t i = 0; i < n; ++i) {
      map[p0 + i] = static_cast<std::uint8_t>(static_cast<int>(rounded[i]));
    }
  }
}

FRFCAM_VECTOR_CLONES void QuantiseMagnitudes(const float* __restrict v, std::size_t pixels,
                                             float gain, std::uint8_t* __restrict map) {
  QuantiseChunks(v, pixels, gain, map,
                 [](float re, float im) { return std::sqrt(re * re + im * im); });
}

// The quotient by the reference value d, as a plain complex division.
FRFCAM_VECTOR_CLONES void QuantiseQuotients(const float* __restrict v, std::size_t pixels,
                                            std::complex<float> d, float gain,
                                            std::uint8_t* __restrict map) {
  const float dr = d.real(), di = d.imag();
  const float inv_norm = 1.0f / (dr * dr + di * di);
  QuantiseChunks(v, pixels, gain, map, [=](float re, float im) {
    const float qr = (re * dr + im * di) * inv_norm;
    const float qi = (im * dr - re * di) * inv_norm;
    return std::sqrt(qr * qr + qi * qi);
  });
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
  if (bin < 0 || layout.plane_bytes == 0) return 0;
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

  // The plane goes through a small buffer that stays in the cache, chunk by
  // chunk, into a map of the object's own: the caller's map is written only
  // once the whole plane has been read, so a file cut short (even while it is
  // read) leaves it untouched.
  if (!read_chunk_) {
    read_chunk_ = AllocateFftBuffer<float>(2 * kMapChunkPixels);
    if (!read_chunk_) return kReadNoMemory;
  }
  if (staged_map_.size() != pixels) staged_map_.assign(pixels, 0);
  cubes_.SetMode(CubeFileSet::Mode::kRead);
  const auto b = static_cast<std::uint32_t>(bin);
  // A zero reference value, or a bin beyond the reference, reads unreferenced.
  const bool referenced = b < reference_.size() && reference_[b] != std::complex<float>{};
  std::size_t read = 0;
  for (std::size_t p0 = 0; p0 < pixels; p0 += kMapChunkPixels) {
    const std::size_t count = std::min(kMapChunkPixels, pixels - p0);
    const std::size_t bytes = count * kSpectrumValueBytes;
    const std::size_t got = cubes_.ReadInPlane(b, read, read_chunk_.get(), bytes);
    read += got;
    if (got != bytes) return static_cast<int>(read);
    if (referenced) {
      QuantiseQuotients(read_chunk_.get(), count, reference_[b], gain, staged_map_.data() + p0);
    } else {
      QuantiseMagnitudes(read_chunk_.get(), count, gain, staged_map_.data() + p0);
    }
  }
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
