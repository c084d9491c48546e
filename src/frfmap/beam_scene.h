// A synthetic high-speed video of a vibrating cantilever beam as a camera
// sees it: a bright speckled strip on a dark background that moves sideways,
// so a pixel's brightness changes by the image gradient times the local
// displacement (plus the higher-order terms of the true warp). The truth is
// known: the displacement of every pixel in every frame, and the transfer
// from the force to each mode. Everything is deterministic for a given seed.
//
// Model, upright beam (clamped near the bottom edge, free tip near the top,
// bending in x). Row y lies at s = (clamp - (y + 1/2)) / length along the
// beam, s in [0, 1] from the clamp to the tip, and shifts sideways by
//   u(s, t) = sum_k q_k[t] * A_k(s)  px,
// A_k being the clamped-free beam's bending shape of mode k + 1, scaled to 1
// at the tip. The frame is
//   sample = background + B_y(x + 1/2 - u) + shot noise, rounded, 0..4095,
// B_y being the row's static beam profile: speckle under optics blur and
// pixel integration, evaluated on a grid 32 times finer than the pixels
// along x and interpolated linearly. The strip continues below the clamp up
// to the image edge without moving. Shot noise has the standard deviation
// noise * 2048 * sqrt(I / 2048) at brightness I.
//
// Each q_k is the steady-state response of
//   H_k(w) = c_k * w_k^2 / (w_k^2 - w^2 + 2 i zeta_k w_k w)
// to a periodic force of unit RMS spanning the capture (scene_signals.h),
// so DFT(q_k)[j] = ModalFrf(k, j * fps / frames) * DFT(force)[j] exactly;
// c_k gives q_k the RMS tip_rms_px of the mode.
//
// A horizontal beam is the upright scene turned a quarter turn clockwise:
// pixel (x, y) of a horizontal W x H scene is pixel (y, W - 1 - x) of the
// upright H x W scene with the same seed, noise included, so the clamp is at
// the left and the beam moves in y.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "frfmap/scene_signals.h"

namespace frfcam::frfmap {

// Bending mode m = (index in the list) + 1.
struct BeamMode {
  double frequency_hz = 0.0;
  double damping = 0.0;     // ratio of critical damping, in (0, 1)
  double tip_rms_px = 0.0;  // RMS of the tip's displacement
};

// 60, 250 and 700 Hz with 2, 1.5 and 1 % damping and tip RMS 0.25, 0.08 and
// 0.04 px: a first mode that dominates, as under a real broadband force.
std::vector<BeamMode> DefaultBeamModes();

struct BeamSetup {
  std::uint16_t width = 96;
  std::uint16_t height = 256;
  double fps = 2000.0;
  std::int32_t frames = 2000;
  bool horizontal = false;      // lying along x, clamped at the left, moving in y
  std::vector<BeamMode> modes;  // empty: DefaultBeamModes()
  double motion = 0.0;          // > 0: scale the modes so mode 1's tip RMS is this many px
  double noise = 0.01;          // shot noise std at mid-grey (2048), as a fraction of it
  Excitation excitation = Excitation::kRandom;
  bool plain_patch = false;  // 25 % .. 40 % of the length from the clamp: no speckle
  std::uint64_t seed = 1;
};

// A pixel rectangle, [x0, x1) x [y0, y1).
struct BeamRect {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool empty() const { return x1 <= x0 || y1 <= y0; }
};

class BeamScene {
 public:
  // Throws std::invalid_argument for an image under 16 px across the beam or
  // 32 px along it, no frames, a frame rate that is not positive, a mode
  // outside (0, fps / 2), with a damping outside (0, 1) or a negative tip
  // RMS, a negative motion (or a positive one with a still first mode), or a
  // noise outside [0, 1].
  explicit BeamScene(BeamSetup setup);

  // Fills frame f (0 <= f < frames) with width * height 12-bit samples,
  // raster order; throws std::out_of_range for any other f. Thread-safe; the
  // same f always gives the same samples.
  void Frame(std::int32_t f, std::uint16_t* samples) const;

  // The force, one value per frame; the reference signal for FRF maps.
  const std::vector<float>& excitation() const { return excitation_; }
  // The scene as built: the modes filled in and scaled to `motion`.
  const BeamSetup& setup() const { return setup_; }

  // Lateral displacement shape of mode k at s in [0, 1] from the clamp:
  // 0 with zero slope at the clamp, 1 at the free end.
  double AlongBeam(std::size_t k, double s) const;
  // Lateral displacement of pixel (x, y) along MotionAxis(), in px per unit
  // modal coordinate of mode k; 0 off the beam's rectangle at rest.
  double Displacement(std::size_t k, int x, int y) const;
  // The axis the beam moves along: 0 for x (upright), 1 for y (horizontal).
  int MotionAxis() const { return setup_.horizontal ? 1 : 0; }

  // Modal coordinate of mode k at frame f: its tip displacement in px.
  double Modal(std::size_t k, std::int32_t f) const {
    return modal_[static_cast<std::size_t>(f) * setup_.modes.size() + k];
  }
  // Transfer from the force to mode k's tip displacement at `hz`, px per
  // force unit.
  std::complex<double> ModalFrf(std::size_t k, double hz) const;

  // The moving part of the beam at rest, from the clamp to the tip.
  BeamRect beam() const { return ToImage(beam_); }
  // Pixels inside the plain patch that show no texture in any frame: clear
  // of the speckle's blur across the patch's ends and of the beam's edges
  // however far they move. Empty without a plain patch.
  BeamRect plain_patch() const { return ToImage(patch_); }
  // Noise-free brightness of pixel (x, y) at rest.
  double Rest(int x, int y) const;

 private:
  // Upright coordinates of image pixel (x, y), and the image rectangle of an
  // upright one.
  void ToUpright(int x, int y, int* ux, int* uy) const;
  BeamRect ToImage(const BeamRect& upright) const;
  // s of upright row y, not clamped.
  double RowPosition(int y) const;
  // The beam's part of upright row y's brightness at x, shifted by u.
  float Profile(int y, double x, double u) const;
  void RenderStatic();

  BeamSetup setup_;
  int across_ = 0, along_ = 0;           // upright image size
  BeamRect beam_;                        // upright
  BeamRect patch_;                       // upright; the textureless interior
  int patch_row0_ = 0, patch_row1_ = 0;  // upright rows without speckle
  int span0_ = 0;                        // upright x where the fine profile starts
  int fine_cols_ = 0;
  std::vector<float> profile_;     // along_ x fine_cols_
  std::vector<double> row_shape_;  // along_ x modes: A_k of each row, clamped to the beam
  std::vector<double> tip_shape_;  // raw shape at the tip, per mode
  std::vector<float> excitation_;
  std::vector<double> gain_;        // c_k
  std::vector<double> modal_;       // frames x modes
  std::vector<float> noise_table_;  // unit Gaussian quantiles
};

}  // namespace frfcam::frfmap
