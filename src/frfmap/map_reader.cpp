// FRF maps: one bin plane of the cube, divided by the reference spectrum at
// that bin, as gained magnitudes quantised to 8 bits.
#include <algorithm>
#include <cmath>

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

  // The plane is read where the page cache holds it, without a copy.
  cubes_.SetMode(CubeFileSet::Mode::kRead);
  const CubeFileSet::PlaneView plane = cubes_.MapPlane(static_cast<std::uint32_t>(bin));
  if (plane.size != pixels * kSpectrumValueBytes) return static_cast<int>(plane.size);
  const float* values = reinterpret_cast<const float*>(plane.data);

  // A zero reference value, or a bin beyond the reference, reads unreferenced.
  const std::size_t b = static_cast<std::size_t>(bin);
  if (b < reference_.size() && reference_[b] != std::complex<float>{}) {
    QuantiseQuotients(values, pixels, reference_[b], gain, map);
  } else {
    QuantiseMagnitudes(values, pixels, gain, map);
  }
  return 0;
}

}  // namespace frfcam::frfmap
