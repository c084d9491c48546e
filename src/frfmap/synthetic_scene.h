// A synthetic high-speed video of a vibrating plate: a textured rectangle on a
// dark background, excited by a known broadband force and vibrating in a few
// modes of a simply supported plate. Each pixel's brightness follows the
// local out-of-plane displacement, so the spectra of the pixels show the mode
// shapes at the modal frequencies. Everything is deterministic for a given seed.
//
// Model, for frame t and a pixel p on the plate:
//   sample = T(p) * (1 + sum_k q_k[t] * phi_k(p)) + noise,  clamped to 0..4095
// T: the speckled texture (with vignetting); phi_k(x, y) = sin(m pi u) sin(n pi v)
// over the plate's normalised coordinates u, v in (0, 1); noise: Gaussian with
// the given standard deviation. Background pixels are static texture + noise.
//
// The excitation e[t] is a periodic signal of unit RMS, one period spanning
// the capture: periodic random (all frequency lines from the first up to
// below Nyquist with equal magnitude and random phases) or a sweep (see
// scene_signals.h). Each modal
// coordinate q_k is the steady-state response of the second-order system
//   H_k(w) = c_k * w_k^2 / (w_k^2 - w^2 + 2 i zeta_k w_k w)
// to it, so DFT(q_k)[j] = ModalFrf(k, j * fps / frames) * DFT(e)[j] exactly;
// c_k is chosen so that q_k has the RMS value `amplitude` of the mode.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "frfmap/scene_signals.h"

namespace frfcam::frfmap {

struct PlateMode {
  double frequency_hz = 0.0;
  double damping = 0.0;     // ratio of critical damping, in (0, 1)
  int m = 1;                // half-waves across the plate's width
  int n = 1;                // half-waves across its height
  double amplitude = 0.05;  // RMS relative brightness change at an antinode
};

// Three modes of clearly different shape, (1,1), (2,1) and (2,2), at 0.06,
// 0.15 and 0.27 of the frame rate.
std::vector<PlateMode> DefaultPlateModes(double fps);

// Two close modes, (2,1) and (1,2) at 0.15 and 0.16 of the frame rate (1 %
// damping each, so their half-power bands nearly touch), beside the (1,1)
// mode at 0.06.
std::vector<PlateMode> CloseModePairModes(double fps);

// The first three bending modes of a cantilever strip (m = 1, 2, 3), the
// first at 0.02 of the frame rate and the others at the beam's frequency
// ratios 6.27 and 17.55.
std::vector<PlateMode> CantileverModes(double fps);

// What vibrates: a plate simply supported on all edges (shapes
// sin(m pi u) sin(n pi v)), or a strip clamped at its left end and free at
// its right, bending along its length (the cantilever beam's shape of mode m
// over u, uniform over v; n is ignored), +-1 at the free end.
enum class SceneKind { kPlate, kStrip };

struct SceneSetup {
  std::uint16_t width = 256;
  std::uint16_t height = 192;
  double fps = 2000.0;
  std::int32_t frames = 1000;
  std::vector<PlateMode> modes;  // empty: DefaultPlateModes(fps)
  double noise = 6.0;            // camera noise, standard deviation in counts
  std::uint64_t seed = 1;
  SceneKind kind = SceneKind::kPlate;  // kStrip: a narrow horizontal strip
  Excitation excitation = Excitation::kRandom;
};

// The plate's pixel rectangle, [x0, x1) x [y0, y1).
struct PlateRect {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
};

class PlateScene {
 public:
  // Throws std::invalid_argument for an empty image, no frames, a frame rate
  // that is not positive, or a mode outside (0, fps / 2), with a damping
  // outside (0, 1), or with m or n below 1.
  explicit PlateScene(SceneSetup desc);

  // Fills frame f (0 <= f < frames) with width * height samples, raster
  // order; throws std::out_of_range for any other f. Thread-safe; the same f
  // always gives the same samples.
  void Frame(std::int32_t f, std::uint16_t* samples) const;

  // The force, one value per frame; the reference signal for FRF maps.
  const std::vector<float>& excitation() const { return excitation_; }
  // The desc with the modes filled in.
  const SceneSetup& desc() const { return desc_; }
  const std::vector<PlateMode>& modes() const { return desc_.modes; }
  PlateRect plate() const { return plate_; }

  // Modal coordinate of mode k at frame f.
  double Modal(std::size_t k, std::int32_t f) const {
    return modal_[static_cast<std::size_t>(f) * desc_.modes.size() + k];
  }
  // Shape of mode k at pixel (x, y); 0 off the plate.
  double Shape(std::size_t k, int x, int y) const;
  // Noise-free brightness of pixel (x, y) at rest.
  double Texture(int x, int y) const {
    return texture_[static_cast<std::size_t>(y) * desc_.width + x];
  }
  // Transfer from the excitation to mode k's coordinate at `hz`.
  std::complex<double> ModalFrf(std::size_t k, double hz) const;

 private:
  SceneSetup desc_;
  PlateRect plate_;
  std::vector<float> excitation_;
  std::vector<double> gain_;         // c_k per mode
  std::vector<float> modal_;         // frames x modes
  std::vector<float> texture_;       // per pixel
  std::vector<float> shaded_shape_;  // modes x pixels: T(p) * phi_k(p)
  std::vector<float> noise_table_;   // Gaussian quantiles times the noise level
};

}  // namespace frfcam::frfmap
