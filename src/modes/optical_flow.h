// Displacement from brightness spectra, as gradient-based optical flow does
// it in the time domain, here bin by bin.
//
// A surface that moves by u(p, t) keeps its brightness: I(p, t) =
// Ibar(p - u(p, t)). To first order, the brightness spectrum of a pixel at
// any bin k >= 1 is X(p, k) = -grad Ibar(p) . U(p, k), U being the spectrum
// of the displacement, with Ibar the mean image (bin 0 of the cube). One
// pixel gives one equation for two unknowns, so U is estimated for a window
// of pixels around p, which all move alike, by least squares:
//   min over U of  sum_{q in window} |X(q, k) + g(q) . U|^2,
//   M U = -b,   M = sum g g^T (2 x 2, real),   b = sum g X(q, k).
// M depends on the image only, so its inverse is worked out once per window
// and every bin costs two weighted sums and a 2 x 2 product. The estimate is
// linear in X, so it commutes with anything else linear over the bins: a
// residue fitted to X gives the residue of U by the same window operator.
//
// Windows and what they can measure (see FlowOptions):
//  - no texture (the largest eigenvalue of M below the texture floor):
//    neither component, both NaN;
//  - gradients in one direction only (the smaller eigenvalue below
//    `minIsotropy` of the larger): only the component along them can be
//    seen. When that direction lies within `maxEdgeTilt` of an image axis,
//    the component along that axis is kept (fitted with that gradient
//    alone) and the other is NaN; otherwise both are NaN.
//  - otherwise both components.
//
// Choices, by measurement (bench/bench_flow_choices.cpp: a speckled beam
// under 1 % shot noise, MAC along the beam and measured over true
// amplitude of its three modes, at 0.25 and 0.025 px of motion): the
// five-point derivative (1, -8, 0, 8, -1) / 12 along each axis, not
// smoothed across, over a square window of 7 x 7 equally weighted pixels.
//  - The central difference underestimates the gradient of fine texture and
//    so overstates the amplitude by about 10 %; Sobel's smoothing across,
//    which X does not share, by 15 %. The five-point derivative is within
//    2 % and gives the best MACs too.
//  - 3 x 3 windows are noisy (MAC 0.91 for the weakest mode at 0.025 px);
//    from 7 x 7 up the gain is small (0.983 at 7 x 7, 0.995 at 13 x 13)
//    and larger windows average over more of the shape and lose detail at
//    edges and in small parts.
#pragma once

#include <complex>
#include <cstdint>
#include <limits>
#include <vector>

namespace frfcam::modes {

// Derivative filters: the three-point central difference (-1, 0, 1) / 2,
// the five-point (1, -8, 0, 8, -1) / 12, and Sobel's central difference
// smoothed across by (1, 2, 1) / 4.
enum class GradientOperator { kCentral, kFivePoint, kSobel };

struct FlowOptions {
  GradientOperator gradient = GradientOperator::kFivePoint;
  int radius = 3;  // window of (2 radius + 1)^2 pixels
  // A window has texture when the largest eigenvalue of M is at least
  // `minTexture` times the 99th percentile of that eigenvalue over the
  // image, and at least `minGradientSnr` squared times the window's pixel
  // count times the variance that noise alone gives a gradient (see
  // FlowOperator::Build).
  double minTexture = 1e-3;
  double minGradientSnr = 3.0;
  double minIsotropy = 0.05;
  double maxEdgeTilt = 0.26;  // radians (15 degrees)
};

// What a window can measure: bit 0 the x component, bit 1 the y component.
enum FlowSeen : std::uint8_t { kSeesNone = 0, kSeesX = 1, kSeesY = 2, kSeesBoth = 3 };

// Gradient of an image, by columns (gx, positive to the right) and rows
// (gy, positive down). Near the borders the five-point derivative falls
// back to the three-point one, and at the borders to one-sided differences;
// Sobel's smoothing across repeats the border row.
void ImageGradient(const float* image, unsigned width, unsigned height, GradientOperator op,
                   std::vector<float>* gx, std::vector<float>* gy);

// The variance of a gradient value (each axis) per unit variance of the
// image's pixels, for independent pixel noise.
double GradientNoiseGain(GradientOperator op);

// The least-squares operator of every window: U = -K b, with K the inverse
// of M (both components seen), or 1/Mxx, 1/Myy for the one component an
// edge lets through.
class FlowOperator {
 public:
  // The operator of the image with gradients gx, gy (ImageGradient with
  // options.gradient).
  // `pixelNoise` is the variance of one pixel of the image the gradients
  // were taken from (for the mean image of a capture of F frames: the
  // noise variance of a frame divided by F); 0 skips that floor.
  void Build(const std::vector<float>& gx, const std::vector<float>& gy, unsigned width,
             unsigned height, double pixelNoise, const FlowOptions& options);

  unsigned width() const { return width_; }
  unsigned height() const { return height_; }
  int radius() const { return radius_; }
  FlowSeen seen(std::size_t p) const { return static_cast<FlowSeen>(seen_[p]); }
  // Window sums of g g^T at p.
  double mxx(std::size_t p) const { return m_[3 * p]; }
  double mxy(std::size_t p) const { return m_[3 * p + 1]; }
  double myy(std::size_t p) const { return m_[3 * p + 2]; }

  // Displacement at pixel p from the window sums b = (bx, by); NaN for the
  // components the window cannot see.
  template <typename T>
  void Solve(std::size_t p, const std::complex<T>& bx, const std::complex<T>& by,
             std::complex<T>* ux, std::complex<T>* uy) const {
    const T nan = std::numeric_limits<T>::quiet_NaN();
    const float* k = &k_[3 * p];
    *ux = seen_[p] & kSeesX ? -(static_cast<T>(k[0]) * bx + static_cast<T>(k[1]) * by)
                            : std::complex<T>(nan, nan);
    *uy = seen_[p] & kSeesY ? -(static_cast<T>(k[1]) * bx + static_cast<T>(k[2]) * by)
                            : std::complex<T>(nan, nan);
  }

  // Noise variance of the x (y) estimate at p per unit noise variance of
  // a pixel of X: Kxx (Kyy); infinite where not seen.
  double NoiseGainX(std::size_t p) const;
  double NoiseGainY(std::size_t p) const;

  // The whole field at once: for one plane X (width x height complex
  // values), the displacement planes ux and uy (NaN where not seen).
  // `scratch` (2 values per pixel) may be kept between calls to save its
  // allocation.
  void Apply(const std::complex<float>* x, std::complex<float>* ux, std::complex<float>* uy,
             std::vector<std::complex<double>>* scratch = nullptr) const;

  // The window sums at one pixel p = (cx, cy) of plane rows: `rows` holds
  // the image rows cy - radius .. cy + radius (clipped at the borders) of X,
  // starting at row `firstRow`.
  void WindowSums(const std::complex<float>* rows, unsigned firstRow, unsigned cx, unsigned cy,
                  std::complex<float>* bx, std::complex<float>* by, float* energy) const;

 private:
  unsigned width_ = 0, height_ = 0;
  int radius_ = 3;
  std::vector<float> gx_, gy_;
  std::vector<double> m_;  // 3 per pixel
  std::vector<float> k_;   // 3 per pixel: Kxx, Kxy, Kyy
  std::vector<std::uint8_t> seen_;
};

}  // namespace frfcam::modes
