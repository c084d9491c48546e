// Full-field modes from a rendered cube: natural frequencies, damping ratios
// and complex mode shapes at every pixel.
//
// The cube holds each pixel's brightness spectrum X; divided by the
// reference spectrum R it is an FRF per pixel, H = X / R. The pipeline:
//  1. Channels: H at a grid of pixels every `stride` pixels, over the bins of
//     the band, kept when the pixel responds above its noise (see
//     ModesOptions::minPeakToMedian).
//  2. Poles: the stability estimator over the order range, then the exact
//     stable-pole rule and the significance filter (stability/significance.h).
//  3. Shapes: with the poles fixed, the residues and the two residual terms
//     of every pixel, by one least-squares operator applied to the planes as
//     they stream past (modes/shape_fit.h).
// The cube is read, never written; rendering it is the caller's business.
#pragma once

#include <atomic>
#include <chrono>
#include <complex>
#include <cstdint>
#include <string>
#include <vector>

#include "stability/significance.h"

namespace frfcam::modes {

struct ModesOptions {
  double fps = 0.0;  // frames per second of the capture; must be > 0
  // The band in Hz; bins with lo <= f <= hi take part, bin 0 never. hi <= 0
  // means up to Nyquist.
  double bandLoHz = 0.0;
  double bandHiHz = 0.0;
  // Grid step of the pole-fit pixels; 0 picks the largest step that still
  // gives at least `minGridPixels` pixels (1 for small images).
  int stride = 0;
  int minGridPixels = 10000;
  // Noise rule of the channels: a grid pixel takes part when the largest
  // |X|^2 over the band is at least this many times its median |X|^2 over
  // the band. Camera noise is white, so a pixel that sees only noise has a
  // ratio of about ln(bins) / ln(2) (about 10 for 1000 bins); a pixel on a
  // vibrating surface shows resonance peaks far above that.
  double minPeakToMedian = 30.0;
  // Pixels whose fitted model explains less than this fraction of their FRF
  // energy over the band (noise, static background) get shape 0.
  double minFitQuality = 0.3;
  stability::SelectionSettings selection = DefaultModesSelection();
  // Bytes of planes per streamed product (the working set of step 3).
  std::size_t chunkBytes = std::size_t{64} << 20;
  const std::atomic<bool>* cancel = nullptr;  // polled between chunks

  // The selection defaults for pixel FRFs: orders 2..40.
  static stability::SelectionSettings DefaultModesSelection() {
    stability::SelectionSettings s;
    s.minOrder = 2;
    s.maxOrder = 40;
    return s;
  }
};

struct Mode {
  double frequencyHz = 0.0;
  double damping = 0.0;  // ratio
  double mpc = 0.0;      // modal phase collinearity of the shape, 0..1
  // Residue of every pixel, H x W raster order; 0 where the fit was not
  // trusted (see ModesOptions::minFitQuality).
  std::vector<std::complex<float>> shape;
};

// What the stabilisation chart shows: per classified order the pole
// frequencies of each class, and the summed FRF magnitude behind them.
struct ChartData {
  struct Order {
    int order = 0;
    std::vector<double> s, f, d, o;  // Hz
  };
  std::vector<Order> orders;
  std::vector<double> lineHz;        // the band's lines
  std::vector<double> sumMagnitude;  // sum over channels of |H| per line
  std::vector<double> selectedHz;    // the modes
};

struct ModesTimes {
  std::chrono::nanoseconds reading{0};   // gathering the channels (step 1)
  std::chrono::nanoseconds poleFit{0};   // estimation and selection (step 2)
  std::chrono::nanoseconds residues{0};  // per-pixel shapes, reading included (step 3)
};

struct ModesResult {
  unsigned width = 0, height = 0;
  int stride = 0;
  int gridPixels = 0;  // pixels of the grid
  int channels = 0;    // of which above the noise
  int bandFirstBin = 0, bandLastBin = 0;
  std::vector<Mode> modes;  // increasing frequency
  std::vector<stability::PoleVerdict> verdicts;
  ChartData chart;
  ModesTimes times;
};

enum class ModesStatus {
  kOk = 0,
  kBadCapture,      // the header cannot be read or describes no cube
  kCubeIncomplete,  // cube files missing or too short
  kBadReference,    // the reference's length is not the capture's frame count
  kBadOptions,      // fps, band or orders unusable
  kNoResponse,      // no grid pixel above the noise
  kCancelled,
  kOutOfMemory,
};

// Runs steps 1-3 on the cube of the capture `headerPath` with the reference
// signal `reference` (one sample per frame). On kOk `out` is filled; on any
// other code `error` (when given) receives one line saying what was wrong and
// `out` is unspecified. Uses the calling thread and the TBB worker pool.
ModesStatus ComputeModes(const std::string& headerPath, const std::vector<float>& reference,
                         const ModesOptions& options, ModesResult* out,
                         std::string* error = nullptr);

// Largest stride s with ceil(width / s) * ceil(height / s) >= minPixels
// (1 when even s = 1 gives fewer).
int DefaultStride(unsigned width, unsigned height, int minPixels);

// Modal phase collinearity (|sum v^2| / sum |v|^2)^2 of the non-zero values;
// 1 for a real (mono-phase) vector, 0 for a circular one; 0 when all are 0.
double PhaseCollinearity(const std::vector<std::complex<float>>& v);

// The angle theta that best turns `v` real: v * exp(-i theta) has the
// largest real energy. The sign is chosen so that the largest value ends up
// positive.
double DominantPhase(const std::vector<std::complex<float>>& v);

// Modal assurance criterion |a^H b|^2 / (|a|^2 |b|^2) of two shapes.
double Mac(const std::vector<std::complex<double>>& a, const std::vector<std::complex<double>>& b);

}  // namespace frfcam::modes
