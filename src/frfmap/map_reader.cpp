// FRF maps: one bin plane of the cube, divided by the reference spectrum at
// that bin, as gained magnitudes quantised to 8 bits.
#include <cmath>

#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"

namespace frfcam::frfmap {

namespace {

// Rounds to nearest with ties to even and saturates to 0..255 (negative
// values and NaN give 0). Adding and subtracting 1.5 * 2^23 leaves the
// integer nearest to v, ties to even, in the default rounding mode; written
// without branches so that the loop vectorises.
inline std::uint8_t Quantise(float v) {
  constexpr float kMagic = 12582912.0f;
  float c = v > 0.0f ? v : 0.0f;
  c = c < 255.0f ? c : 255.0f;
  c = (c + kMagic) - kMagic;
  return static_cast<std::uint8_t>(static_cast<int>(c));
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
  plane_.resize(pixels);

  cubes_.SetMode(CubeFileSet::Mode::kRead);
  const std::size_t want = pixels * kSpectrumValueBytes;
  const std::size_t got = cubes_.ReadPlane(static_cast<std::uint32_t>(bin), plane_.data(), want);
  if (got != want) return static_cast<int>(got);

  // A zero reference value, or a bin beyond the reference, reads unreferenced.
  std::complex<float> divisor;
  bool divide = false;
  if (static_cast<std::size_t>(bin) < reference_.size() &&
      reference_[static_cast<std::size_t>(bin)] != std::complex<float>{}) {
    divisor = reference_[static_cast<std::size_t>(bin)];
    divide = true;
  }
  const float* __restrict v = reinterpret_cast<const float*>(plane_.data());
  if (divide) {
    const float dr = divisor.real(), di = divisor.imag();
    const float inv_norm = 1.0f / (dr * dr + di * di);
    for (std::size_t p = 0; p < pixels; ++p) {
      const float re = v[2 * p], im = v[2 * p + 1];
      const float qr = (re * dr + im * di) * inv_norm;
      const float qi = (im * dr - re * di) * inv_norm;
      map[p] = Quantise(std::sqrt(qr * qr + qi * qi) * gain);
    }
  } else {
    for (std::size_t p = 0; p < pixels; ++p) {
      const float re = v[2 * p], im = v[2 * p + 1];
      map[p] = Quantise(std::sqrt(re * re + im * im) * gain);
    }
  }
  return 0;
}

}  // namespace frfcam::frfmap
