#include "modes/modes.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <new>
#include <numbers>

#include "frfmap/capture_header.h"
#include "frfmap/cube_check.h"
#include "frfmap/cube_files.h"
#include "frfmap/fft.h"
#include "modes/principal_frfs.h"
#include "modes/shape_fit.h"
#include "modes/window_channels.h"

namespace frfcam::modes {

namespace {

using Clock = std::chrono::steady_clock;
using Eigen::Index;

constexpr float kMinReference = 1e-3f;

ModesStatus Fail(ModesStatus status, const std::string& message, std::string* error) {
  if (error != nullptr) *error = message;
  return status;
}

// The caller's progress callback, one call at a time and only rising.
class Progress {
 public:
  explicit Progress(const std::function<void(int)>& f) : f_(f) {}
  void operator()(double percent) {
    if (!f_) return;
    const int p = static_cast<int>(std::clamp(percent, 0.0, 100.0));
    std::lock_guard<std::mutex> lock(mutex_);
    if (p <= last_) return;
    last_ = p;
    f_(p);
  }

 private:
  const std::function<void(int)>& f_;
  std::mutex mutex_;
  int last_ = -1;
};

bool Cancelled(const ModesOptions& o) {
  return o.cancel != nullptr && o.cancel->load(std::memory_order_relaxed);
}

std::vector<double> ToStd(const stability::RealVector& v) {
  return std::vector<double>(v.data(), v.data() + v.size());
}

// Of the selected poles, those whose resonance the modal model fits where
// it stands. The brightness a camera sees is not linear in the motion:
// the second-order terms put a bump at twice a strong mode's frequency (and
// at sums of two), which a single record cannot tell from a mode by its
// magnitude. Its phase against the reference, however, is that of a
// product of two responses, not of one pole, so the model leaves most of it
// unexplained. With every pole and the residual terms fitted to all
// channels, a pole stays when the model explains at least `minFit` of the
// channels' energy within three half-power bandwidths of it; the rest are
// fitted again without the poles that failed.
stability::SelectedPoles KeepCoherentPoles(const stability::RealVector& omega,
                                           const stability::ComplexMatrix& h,
                                           stability::SelectedPoles poles, double minFit,
                                           std::vector<stability::PoleVerdict>* verdicts) {
  for (;;) {
    const Index count = poles.frequency.size();
    if (count == 0) return poles;
    const stability::ComplexMatrix a =
        stability::ModalDesignMatrix(omega, poles.frequency, poles.damping);
    const stability::ComplexMatrix fit = a * a.colPivHouseholderQr().solve(h);
    Index worst = -1;
    double worstFit = minFit;
    for (Index m = 0; m < count; ++m) {
      const double w = 2.0 * std::numbers::pi * poles.frequency[m];
      const double half = std::max(3.0 * poles.damping[m] * w, 2.0 * (omega[1] - omega[0]));
      double energy = 0.0, rest = 0.0;
      for (Index b = 0; b < omega.size(); ++b) {
        if (std::abs(omega[b] - w) > half) continue;
        energy += h.row(b).squaredNorm();
        rest += (h.row(b) - fit.row(b)).squaredNorm();
      }
      const double explained = energy > 0.0 ? 1.0 - rest / energy : 0.0;
      if (explained < worstFit) {
        worstFit = explained;
        worst = m;
      }
    }
    if (worst < 0) return poles;
    if (verdicts != nullptr) {
      for (auto& v : *verdicts) {
        if (v.kept && v.frequency == poles.frequency[worst]) v.kept = false;
      }
    }
    stability::SelectedPoles rest;
    rest.frequency.resize(count - 1);
    rest.damping.resize(count - 1);
    for (Index m = 0, n = 0; m < count; ++m) {
      if (m == worst) continue;
      rest.frequency[n] = poles.frequency[m];
      rest.damping[n++] = poles.damping[m];
    }
    poles = std::move(rest);
  }
}

}  // namespace

const char* ShapeKindName(ShapeKind kind) {
  switch (kind) {
    case ShapeKind::kAuto:
      return "auto";
    case ShapeKind::kBrightness:
      return "brightness";
    case ShapeKind::kDisplacement:
      return "displacement";
  }
  return "?";
}

int DefaultStride(unsigned width, unsigned height, int minPixels) {
  int s = 1;
  const auto count = [&](int step) {
    return static_cast<std::uint64_t>((width + step - 1) / step) * ((height + step - 1) / step);
  };
  while (count(s + 1) >= static_cast<std::uint64_t>(std::max(1, minPixels))) ++s;
  return s;
}

double PhaseCollinearity(const std::vector<std::complex<float>>& v) {
  std::complex<double> squares = 0.0;
  double energy = 0.0;
  for (const auto& x : v) {
    const std::complex<double> d(x);
    squares += d * d;
    energy += std::norm(d);
  }
  if (!(energy > 0.0)) return 0.0;
  const double r = std::abs(squares) / energy;
  return r * r;
}

double DominantPhase(const std::vector<std::complex<float>>& v) {
  std::complex<double> squares = 0.0;
  for (const auto& x : v) squares += std::complex<double>(x) * std::complex<double>(x);
  double theta = 0.5 * std::arg(squares);
  // The largest value decides the sign: it is made positive.
  std::complex<double> largest = 0.0;
  for (const auto& x : v) {
    if (std::norm(std::complex<double>(x)) > std::norm(largest)) largest = x;
  }
  if ((largest * std::polar(1.0, -theta)).real() < 0.0) theta += std::numbers::pi;
  return theta;
}

double Mac(const std::vector<std::complex<double>>& a, const std::vector<std::complex<double>>& b) {
  std::complex<double> cross = 0.0;
  double aa = 0.0, bb = 0.0;
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    cross += std::conj(a[i]) * b[i];
    aa += std::norm(a[i]);
    bb += std::norm(b[i]);
  }
  return aa > 0.0 && bb > 0.0 ? std::norm(cross) / (aa * bb) : 0.0;
}

namespace {

ModesStatus Compute(const std::string& headerPath, const std::vector<float>& reference,
                    const ModesOptions& options, ModesResult* out, std::string* error) {
  frfmap::CaptureHeader header;
  if (!header.Load(headerPath)) {
    return Fail(ModesStatus::kBadCapture, headerPath + ": cannot read the capture header", error);
  }
  const unsigned width = header.width(), height = header.height();
  const std::int32_t frames = header.frame_count();
  if (width == 0 || height == 0 || frames < 4) {
    return Fail(ModesStatus::kBadCapture, headerPath + ": the capture has no usable frames", error);
  }
  const auto pixels = static_cast<std::uint32_t>(width * height);
  const auto bins = static_cast<std::uint32_t>(frames / 2 + 1);
  const frfmap::CubeLayout layout = frfmap::CubeLayout::For(pixels, bins);
  std::string why;
  if (frfmap::CheckCube(headerPath, header, &why) != frfmap::CubeState::kReady) {
    return Fail(ModesStatus::kCubeIncomplete, why, error);
  }
  if (static_cast<std::int64_t>(reference.size()) != frames) {
    return Fail(ModesStatus::kBadReference,
                "the reference has " + std::to_string(reference.size()) +
                    " samples; the capture has " + std::to_string(frames) + " frames",
                error);
  }
  const stability::SelectionSettings& sel = options.selection;
  if (!(options.fps > 0.0) || !std::isfinite(options.fps)) {
    return Fail(ModesStatus::kBadOptions, "the frame rate must be positive", error);
  }
  if (sel.minOrder < 1 || sel.maxOrder <= sel.minOrder) {
    return Fail(ModesStatus::kBadOptions, "the orders need 1 <= LOW < HIGH", error);
  }

  // The band's bins.
  const double binHz = options.fps / frames;
  const double hi = options.bandHiHz > 0.0 ? options.bandHiHz : options.fps / 2.0;
  std::vector<std::uint32_t> band;
  for (std::uint32_t b = 1; b < bins; ++b) {
    const double f = b * binHz;
    if (f >= options.bandLoHz - 1e-9 * binHz && f <= hi + 1e-9 * binHz) band.push_back(b);
  }
  if (band.size() < 8) {
    return Fail(ModesStatus::kBadOptions,
                "the band holds " + std::to_string(band.size()) + " bins; the fit needs at least 8",
                error);
  }

  // Reference spectrum at the band's bins. Where the reference has next to
  // no energy (below kMinReference of its median magnitude over the band;
  // for example at Nyquist, which a periodic excitation leaves empty) the
  // FRF is undefined, and those bins are left out.
  std::vector<std::complex<float>> spectrum(bins);
  if (!frfmap::ScaledRealDft(reference.data(), frames, spectrum.data())) {
    return Fail(ModesStatus::kOutOfMemory, "the reference transform cannot be prepared", error);
  }
  {
    std::vector<float> magnitude;
    for (std::uint32_t b : band) magnitude.push_back(std::abs(spectrum[b]));
    auto mid = magnitude.begin() + static_cast<std::ptrdiff_t>(magnitude.size() / 2);
    std::nth_element(magnitude.begin(), mid, magnitude.end());
    const float floor = kMinReference * *mid;
    std::vector<std::uint32_t> excited;
    for (std::uint32_t b : band) {
      if (std::abs(spectrum[b]) > floor) excited.push_back(b);
    }
    if (excited.size() < 8) {
      return Fail(ModesStatus::kBadReference, "the reference has (almost) no energy in the band",
                  error);
    }
    band = std::move(excited);
  }
  const auto lines = static_cast<Index>(band.size());
  std::vector<std::complex<double>> r(static_cast<std::size_t>(lines));
  stability::RealVector omega(lines);
  for (Index i = 0; i < lines; ++i) {
    r[static_cast<std::size_t>(i)] = spectrum[band[static_cast<std::size_t>(i)]];
    omega[i] = 2.0 * std::numbers::pi * band[static_cast<std::size_t>(i)] * binHz;
  }

  ModesResult result;
  result.width = width;
  result.height = height;
  result.bandFirstBin = static_cast<int>(band.front());
  result.bandLastBin = static_cast<int>(band.back());
  result.stride =
      options.stride > 0 ? options.stride : DefaultStride(width, height, options.minGridPixels);
  const int s = result.stride;
  std::vector<std::uint32_t> grid;
  std::vector<unsigned> gridRows;
  for (unsigned y = static_cast<unsigned>(s / 2); y < height; y += static_cast<unsigned>(s)) {
    gridRows.push_back(y);
    for (unsigned x = static_cast<unsigned>(s / 2); x < width; x += static_cast<unsigned>(s)) {
      grid.push_back(y * width + x);
    }
  }
  result.gridPixels = static_cast<int>(grid.size());
  // The pole-fit windows, centred every windowStride pixels.
  result.windowStride = options.windowStride > 0 ? options.windowStride
                                                 : DefaultStride(width, height, options.minWindows);
  const int radius = std::max(0, options.flow.radius);
  result.flowRadius = radius;
  WindowChannels windows(width, height, result.windowStride, radius, lines);

  frfmap::CubeFileSet cube;
  cube.Reset(headerPath, layout);
  cube.SetMode(frfmap::CubeFileSet::Mode::kRead);
  const std::size_t rowBytes = std::size_t{width} * sizeof(std::complex<float>);
  const std::size_t planeBytes = rowBytes * height;

  // 1. Channels. The mean image (bin 0) first, and the window operator of
  // its gradients. Every cube file is opened on this thread, as the file
  // set opens lazily; positioned reads on open files may then run side by
  // side.
  auto t0 = Clock::now();
  FlowOperator flow;
  {
    std::vector<std::complex<float>> plane;
    try {
      plane.resize(pixels);
    } catch (const std::bad_alloc&) {
      return Fail(ModesStatus::kOutOfMemory, "not enough memory for the mean image", error);
    }
    if (cube.ReadInPlane(0, 0, plane.data(), planeBytes) != planeBytes) {
      return Fail(ModesStatus::kCubeIncomplete, "a cube file is too short", error);
    }
    result.meanImage.resize(pixels);
    for (std::size_t p = 0; p < pixels; ++p) result.meanImage[p] = plane[p].real();
  }
  std::vector<float> gx, gy;
  ImageGradient(result.meanImage.data(), width, height, options.flow.gradient, &gx, &gy);
  flow.Build(gx, gy, width, height, 0.0, options.flow);
  {
    unsigned lastFile = 0;
    std::vector<std::complex<float>> probe(1);
    for (std::uint32_t b : band) {
      if (layout.Locate(b).file != lastFile) {
        lastFile = layout.Locate(b).file;
        if (cube.ReadInPlane(b, 0, probe.data(), sizeof(probe[0])) != sizeof(probe[0])) {
          return Fail(ModesStatus::kCubeIncomplete, "a cube file cannot be read", error);
        }
      }
    }
  }
  // The rows the channels need, as runs of consecutive rows: the grid's
  // rows and every window's.
  // One pass over the band reads the rows a job needs, as runs of
  // consecutive rows, into a plane-sized buffer per worker and hands it on
  // line by line.
  std::atomic<bool> shortRead{false};
  Progress progress(options.progress);
  progress(0);
  // Reading takes the band up to 45 %: the windows' pass to 40, the
  // brightness grid's (when read) the rest.
  double passFrom = 0.0, passTo = 40.0;
  const auto pass = [&](const std::vector<char>& needed, const auto& use) {
    std::atomic<Index> read{0};
    std::vector<std::pair<unsigned, unsigned>> runs;  // first row, count
    for (unsigned y = 0; y < height; ++y) {
      if (!needed[y]) continue;
      if (!runs.empty() && runs.back().first + runs.back().second == y) {
        ++runs.back().second;
      } else {
        runs.push_back({y, 1});
      }
    }
    tbb::parallel_for(
        tbb::blocked_range<Index>(0, lines, 4), [&](const tbb::blocked_range<Index>& range) {
          std::vector<std::complex<float>> plane(pixels);
          for (Index b = range.begin(); b != range.end(); ++b) {
            if (Cancelled(options)) return;
            const std::uint32_t bin = band[static_cast<std::size_t>(b)];
            for (const auto& [first, count] : runs) {
              const std::size_t bytes = rowBytes * count;
              if (cube.ReadInPlane(bin, std::uint64_t{first} * rowBytes,
                                   plane.data() + std::size_t{first} * width, bytes) != bytes) {
                shortRead.store(true);
                return;
              }
            }
            use(plane.data(), b);
            progress(passFrom + (passTo - passFrom) * static_cast<double>(++read) /
                                    static_cast<double>(lines));
          }
        });
    passFrom = passTo;
    passTo = 45.0;
  };
  {
    std::vector<char> needed(height, 0);
    windows.MarkRows(&needed);
    pass(needed,
         [&](const std::complex<float>* plane, Index b) { windows.Accumulate(flow, plane, b); });
  }
  if (shortRead.load())
    return Fail(ModesStatus::kCubeIncomplete, "a cube file is too short", error);
  if (Cancelled(options)) return Fail(ModesStatus::kCancelled, "cancelled", error);

  // The windows' noise, then the window operator again with the texture
  // floor that noise sets, and the motion rule.
  const double pixelNoise = windows.EstimateNoise(flow);
  if (pixelNoise > 0.0) {
    flow.Build(gx, gy, width, height, pixelNoise, options.flow);
    windows.EstimateNoise(flow);
  }
  std::vector<std::size_t> seenWindows;
  result.motionShare = windows.MotionShare(flow, &seenWindows);
  result.windows = static_cast<int>(seenWindows.size());
  ShapeKind kind = options.shapes;
  if (kind == ShapeKind::kAuto) {
    kind = !seenWindows.empty() && result.motionShare >= options.minMotionShare
               ? ShapeKind::kDisplacement
               : ShapeKind::kBrightness;
  }
  result.kind = kind;

  stability::ComplexMatrix h;
  if (kind == ShapeKind::kDisplacement) {
    if (seenWindows.empty()) {
      return Fail(ModesStatus::kNoResponse, "no window of the grid has texture to follow", error);
    }
    std::vector<WindowChannels::Column> columns;
    const Eigen::MatrixXcf y = windows.Whitened(flow, seenWindows, &columns);
    if (columns.empty()) {
      return Fail(ModesStatus::kNoResponse, "no window of the grid sees any motion", error);
    }
    result.channels = static_cast<int>(columns.size());
    if (options.exportWindows > 0) {
      const double ratio = static_cast<double>(seenWindows.size()) / options.exportWindows;
      const auto step = static_cast<std::size_t>(std::max(1.0, std::ceil(std::sqrt(ratio))));
      for (const auto& [w, component] : columns) {
        if (windows.gridRow(w) % step != 0 || windows.gridColumn(w) % step != 0) continue;
        ModesResult::WindowFrf f;
        f.x = windows.centreX(w);
        f.y = windows.centreY(w);
        f.component = component;
        f.frf.resize(static_cast<std::size_t>(lines));
        for (Index b = 0; b < lines; ++b) {
          std::complex<float> ux, uy;
          windows.Displacement(flow, w, b, &ux, &uy);
          f.frf[static_cast<std::size_t>(b)] = std::complex<float>(
              std::complex<double>(component == 0 ? ux : uy) / r[static_cast<std::size_t>(b)]);
        }
        result.windowFrfs.push_back(std::move(f));
      }
    }
    const PrincipalSpectra principal =
        LeadingComponents(y, options.maxComponents, options.componentFloor);
    result.components = static_cast<int>(principal.spectra.cols());
    h = principal.spectra;
    for (Index b = 0; b < lines; ++b) h.row(b) /= r[static_cast<std::size_t>(b)];
  } else {
    // The grid's pixels, in a pass of their own: a displacement fit needs
    // none of them.
    Eigen::MatrixXcf x(static_cast<Index>(grid.size()), lines);
    {
      std::vector<char> needed(height, 0);
      for (unsigned y : gridRows) needed[y] = 1;
      pass(needed, [&](const std::complex<float>* plane, Index b) {
        for (std::size_t g = 0; g < grid.size(); ++g) x(static_cast<Index>(g), b) = plane[grid[g]];
      });
    }
    if (shortRead.load())
      return Fail(ModesStatus::kCubeIncomplete, "a cube file is too short", error);
    if (Cancelled(options)) return Fail(ModesStatus::kCancelled, "cancelled", error);
    std::vector<Index> kept;
    std::vector<float> power(static_cast<std::size_t>(lines));
    for (Index g = 0; g < x.rows(); ++g) {
      for (Index b = 0; b < lines; ++b) power[static_cast<std::size_t>(b)] = std::norm(x(g, b));
      const float peak = *std::max_element(power.begin(), power.end());
      auto mid = power.begin() + static_cast<std::ptrdiff_t>(power.size() / 2);
      std::nth_element(power.begin(), mid, power.end());
      if (peak > 0.0f && peak >= options.minPeakToMedian * *mid) kept.push_back(g);
    }
    result.channels = static_cast<int>(kept.size());
    if (kept.empty()) {
      return Fail(ModesStatus::kNoResponse,
                  "no pixel of the grid responds above its noise in the band", error);
    }
    h.resize(lines, static_cast<Index>(kept.size()));
    for (std::size_t c = 0; c < kept.size(); ++c) {
      for (Index b = 0; b < lines; ++b) {
        h(b, static_cast<Index>(c)) =
            std::complex<double>(x(kept[c], b)) / r[static_cast<std::size_t>(b)];
      }
    }
  }
  auto t1 = Clock::now();
  result.times.reading = t1 - t0;
  // 2. Poles.
  if (Cancelled(options)) return Fail(ModesStatus::kCancelled, "cancelled", error);
  progress(45);
  const stability::EstimationResult estimation =
      stability::Estimate(omega, stability::ComplexVector(), h, {sel.minOrder, sel.maxOrder},
                          sel.frequencyTolerance, sel.dampingTolerance, false, false);
  stability::SelectedPoles poles =
      stability::SelectModes(estimation, omega, h, sel, &result.verdicts);
  if (kind == ShapeKind::kDisplacement) {
    poles = KeepCoherentPoles(omega, h, poles, options.minLocalFit, &result.verdicts);
  }
  ChartData& chart = result.chart;
  for (std::size_t k = 0; k < estimation.sByOrder.size(); ++k) {
    ChartData::Order o;
    o.order = sel.minOrder + 1 + static_cast<int>(k);
    o.s = ToStd(estimation.sByOrder[k]);
    o.f = ToStd(estimation.fByOrder[k]);
    o.d = ToStd(estimation.dByOrder[k]);
    o.o = ToStd(estimation.oByOrder[k]);
    chart.orders.push_back(std::move(o));
  }
  chart.lineHz.resize(static_cast<std::size_t>(lines));
  chart.sumMagnitude.resize(static_cast<std::size_t>(lines));
  for (Index b = 0; b < lines; ++b) {
    chart.lineHz[static_cast<std::size_t>(b)] = band[static_cast<std::size_t>(b)] * binHz;
    chart.sumMagnitude[static_cast<std::size_t>(b)] = h.row(b).cwiseAbs().sum();
  }
  chart.selectedHz = ToStd(poles.frequency);
  h.resize(0, 0);
  auto t2 = Clock::now();
  result.times.poleFit = t2 - t1;

  // 3. Shapes.
  ShapeFit fit;
  progress(55);
  switch (FitShapes(cube, pixels, band, omega, r, poles.frequency, poles.damping,
                    options.chunkBytes, options.cancel, &fit,
                    [&](double share) { progress(55.0 + 44.0 * share); })) {
    case ShapeFitStatus::kOk:
      break;
    case ShapeFitStatus::kShortCube:
      return Fail(ModesStatus::kCubeIncomplete, "a cube file is too short", error);
    case ShapeFitStatus::kCancelled:
      return Fail(ModesStatus::kCancelled, "cancelled", error);
    case ShapeFitStatus::kOutOfMemory:
      return Fail(ModesStatus::kOutOfMemory, "not enough memory for the shapes", error);
  }
  for (Index m = 0; m < poles.frequency.size(); ++m) {
    Mode mode;
    mode.frequencyHz = poles.frequency[m];
    mode.damping = poles.damping[m];
    const std::complex<float>* column = &fit.coefficients[static_cast<std::size_t>(m) * pixels];
    mode.shape.assign(column, column + pixels);
    for (std::size_t p = 0; p < pixels; ++p) {
      if (!(fit.quality[p] >= options.minFitQuality)) mode.shape[p] = 0.0f;
    }
    mode.mpc = PhaseCollinearity(mode.shape);
    result.modes.push_back(std::move(mode));
  }
  const auto t3 = Clock::now();
  result.times.residues = t3 - t2;
  if (kind == ShapeKind::kDisplacement) {
    // The window operator is linear, so the residues of U are the window
    // operator applied to the residues of X.
    std::vector<std::complex<double>> scratch;
    for (std::size_t m = 0; m < result.modes.size(); ++m) {
      Mode& mode = result.modes[m];
      try {
        mode.dispX.resize(pixels);
        mode.dispY.resize(pixels);
        flow.Apply(&fit.coefficients[m * pixels], mode.dispX.data(), mode.dispY.data(), &scratch);
      } catch (const std::bad_alloc&) {
        return Fail(ModesStatus::kOutOfMemory, "not enough memory for the shapes", error);
      }
      // The mode's term at its natural frequency: R / (2i zeta w^2).
      const double w = 2.0 * std::numbers::pi * mode.frequencyHz;
      const auto atPeak =
          std::complex<float>(1.0 / std::complex<double>(0.0, 2.0 * mode.damping * w * w));
      std::vector<std::complex<float>> seen;
      for (std::size_t p = 0; p < pixels; ++p) {
        mode.dispX[p] *= atPeak;
        mode.dispY[p] *= atPeak;
        if (std::isfinite(mode.dispX[p].real())) seen.push_back(mode.dispX[p]);
        if (std::isfinite(mode.dispY[p].real())) seen.push_back(mode.dispY[p]);
      }
      mode.mpc = PhaseCollinearity(seen);
    }
  }
  result.times.flow = Clock::now() - t3;
  *out = std::move(result);
  progress(100);
  return ModesStatus::kOk;
}

}  // namespace

ModesStatus ComputeModes(const std::string& headerPath, const std::vector<float>& reference,
                         const ModesOptions& options, ModesResult* out, std::string* error) {
  // Buffers in worker tasks too may fail to allocate; every such failure
  // ends here, whatever step it hit.
  try {
    return Compute(headerPath, reference, options, out, error);
  } catch (const std::bad_alloc&) {
    return Fail(ModesStatus::kOutOfMemory, "not enough memory", error);
  }
}

}  // namespace frfcam::modes
