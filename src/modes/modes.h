// Full-field modes from a rendered cube: natural frequencies, damping ratios
// and complex mode shapes, as displacement or as brightness.
//
// The cube holds each pixel's brightness spectrum X; divided by the
// reference spectrum R it is an FRF per pixel, H = X / R. A camera looking
// at a structure that moves sees X = -grad(Ibar) . U (modes/optical_flow.h):
// the brightness of one pixel carries the random sign and size of the
// texture's gradient there, so pixels of one structure do not add up, while
// their displacement U does. The pipeline:
//  1. Channels, from one pass over the band's planes:
//     - displacement: U = -K b over windows on a grid (optical_flow.h),
//       each component divided by its noise (from the window's residual);
//     - brightness: H at a grid of pixels every `stride` pixels, kept when
//       the pixel responds above its noise (ModesOptions::minPeakToMedian).
//     Which kind the scene is (ShapeKind::kAuto): displacement when the
//     windows' gradients explain most of the brightness change above the
//     noise (ModesResult::motionShare >= minMotionShare), as they do for
//     anything that moves and do not for light that changes in place.
//  2. Poles: for displacement, the channels compressed into their leading
//     principal spectra (principal_frfs.h) divided by R; for brightness the
//     channels themselves. Then the stability estimator over the order
//     range, the exact stable-pole rule and the significance filter
//     (stability/significance.h).
//  3. Shapes: with the poles fixed, the residues and the two residual terms
//     of every pixel's brightness FRF, by one least-squares operator
//     applied to the planes as they stream past (modes/shape_fit.h). For
//     displacement, each mode's brightness residues then go through the
//     window operator, which is linear and commutes with the residue fit.
// The cube is read, never written; rendering it is the caller's business.
#pragma once

#include <atomic>
#include <chrono>
#include <complex>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "modes/optical_flow.h"
#include "stability/significance.h"

namespace frfcam::modes {

// What a mode shape measures.
enum class ShapeKind {
  kAuto,          // options only: decided from the data (see above)
  kBrightness,    // brightness FRF residues per pixel
  kDisplacement,  // displacement per window, x and y, in pixels
};

// "brightness", "displacement" ("auto" for kAuto).
const char* ShapeKindName(ShapeKind kind);

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
  ShapeKind shapes = ShapeKind::kAuto;
  // Displacement: the windows (optical_flow.h); the grid of pole-fit
  // windows every `windowStride` pixels (0: the largest step giving at
  // least `minWindows` windows); the principal spectra kept (those above
  // `componentFloor` times the noise floor, at most `maxComponents`); and
  // the motion rule of kAuto.
  FlowOptions flow;
  int windowStride = 0;
  int minWindows = 1200;
  int maxComponents = 8;
  double componentFloor = 1.5;
  double minMotionShare = 0.5;
  // Displacement: a selected pole stays when the modal model explains at
  // least this share of the channels' energy around it (see modes.cpp).
  double minLocalFit = 0.8;
  // Displacement FRFs to hand back for export (ModesResult::windowFrfs):
  // those of the pole-fit windows on a coarser grid, at most this many
  // windows (0: none).
  int exportWindows = 0;
  // Bytes of planes per streamed product (the working set of step 3).
  std::size_t chunkBytes = std::size_t{64} << 20;
  const std::atomic<bool>* cancel = nullptr;  // polled between chunks
  // Told the share done, 0..100, rising: reading the band up to 45, the
  // pole fit up to 55, the shapes up to 100. Called one call at a time, but
  // from whichever worker thread finished a piece.
  std::function<void(int percent)> progress;

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
  // Brightness residue of every pixel, H x W raster order; 0 where the fit
  // was not trusted (see ModesOptions::minFitQuality).
  std::vector<std::complex<float>> shape;
  // Displacement shapes (ShapeKind::kDisplacement only, else empty), H x W
  // raster order: x (columns, positive right) and y (rows, positive down)
  // in pixels per unit of reference, as the mode alone contributes to the
  // displacement FRF at its natural frequency, R_k / (2i zeta w_k^2); NaN
  // where the window cannot see that component.
  std::vector<std::complex<float>> dispX, dispY;
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
  std::chrono::nanoseconds flow{0};      // displacement from the residues (step 3)
};

struct ModesResult {
  unsigned width = 0, height = 0;
  int stride = 0;
  int gridPixels = 0;  // pixels of the grid
  int channels = 0;    // brightness: grid pixels above the noise; displacement: components seen
  ShapeKind kind = ShapeKind::kBrightness;
  double motionShare = 0.0;  // see ModesOptions::minMotionShare
  int windows = 0;           // pole-fit windows that see at least one component
  int windowStride = 0;
  int flowRadius = 0;            // windows of 2 flowRadius + 1 pixels a side
  int components = 0;            // principal spectra the poles were fitted to
  std::vector<float> meanImage;  // bin 0, H x W
  // Displacement FRFs U / R of windows (see ModesOptions::exportWindows),
  // at the band's lines (chart.lineHz), in pixels per unit of reference.
  struct WindowFrf {
    unsigned x = 0, y = 0;  // the window's centre
    int component = 0;      // 0 x, 1 y
    std::vector<std::complex<float>> frf;
  };
  std::vector<WindowFrf> windowFrfs;
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
