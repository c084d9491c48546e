#include "frfmap/beam_scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string>

#include "frfmap/cantilever_shape.h"

namespace frfcam::frfmap {

namespace {

constexpr double kPi = std::numbers::pi;
constexpr float kMaxSample = 4095.0f;
constexpr double kMidGrey = 2048.0;
constexpr float kBackground = 200.0f;
constexpr double kBeamMean = 2000.0;
// Speckle standard deviation relative to the mean: about +-40 % at two sigma.
constexpr double kSpeckleStd = 0.2;
constexpr double kBlobSigma = 1.2;    // px
constexpr double kBlobSpacing = 2.0;  // px between blob lattice sites
constexpr double kOpticsSigma = 0.7;  // px
constexpr int kOversample = 32;       // fine samples per px along the motion
// Dark pixels beside the beam that its blurred edges still reach.
constexpr int kProfileMargin = 4;
// Rows beside a speckled row that its blur across rows still reaches.
constexpr int kRowBlurReach = 3;

void Check(bool ok, const std::string& what) {
  if (!ok) throw std::invalid_argument(what);
}

std::vector<double> Normalised(std::vector<double> v) {
  double sum = 0.0;
  for (double x : v) sum += x;
  for (double& x : v) x /= sum;
  return v;
}

// Samples of a normalised, odd-length kernel centred on its middle: a
// Gaussian of `sigma` samples convolved with a box `box` samples wide (a
// trapezoid of box + 1 taps with half weights at the ends, which keeps the
// kernel symmetric; 0: no box).
std::vector<double> BlurKernel(double sigma, int box) {
  const int reach = static_cast<int>(std::ceil(4.0 * sigma));
  std::vector<double> gauss(2 * reach + 1);
  for (int i = -reach; i <= reach; ++i) gauss[i + reach] = std::exp(-0.5 * i * i / (sigma * sigma));
  if (box == 0) return Normalised(gauss);
  std::vector<double> kernel(gauss.size() + box, 0.0);
  for (std::size_t i = 0; i < gauss.size(); ++i) {
    for (int b = 0; b <= box; ++b) kernel[i + b] += (b == 0 || b == box ? 0.5 : 1.0) * gauss[i];
  }
  return Normalised(kernel);
}

}  // namespace

std::vector<BeamMode> DefaultBeamModes() {
  return {{60.0, 0.02, 0.25}, {250.0, 0.015, 0.08}, {700.0, 0.01, 0.04}};
}

BeamScene::BeamScene(BeamSetup setup) : setup_(std::move(setup)) {
  across_ = setup_.horizontal ? setup_.height : setup_.width;
  along_ = setup_.horizontal ? setup_.width : setup_.height;
  Check(across_ >= 16 && along_ >= 32,
        "the beam needs an image of at least 16 px across it and 32 px along it");
  Check(setup_.frames >= 1, "the scene needs at least one frame");
  Check(setup_.fps > 0.0 && std::isfinite(setup_.fps), "the frame rate must be positive");
  Check(setup_.noise >= 0.0 && setup_.noise <= 1.0, "the shot noise must lie in 0..1");
  Check(setup_.motion >= 0.0 && std::isfinite(setup_.motion), "the motion must not be negative");
  if (setup_.modes.empty()) setup_.modes = DefaultBeamModes();
  for (const BeamMode& m : setup_.modes) {
    Check(m.frequency_hz > 0.0 && m.frequency_hz < setup_.fps / 2,
          "mode frequency " + std::to_string(m.frequency_hz) + " Hz is outside (0, fps/2)");
    Check(m.damping > 0.0 && m.damping < 1.0, "a mode's damping must lie in (0, 1)");
    Check(m.tip_rms_px >= 0.0 && std::isfinite(m.tip_rms_px),
          "a mode's tip RMS must not be negative");
  }
  if (setup_.motion > 0.0) {
    Check(setup_.modes[0].tip_rms_px > 0.0, "the first mode must move to scale the motion");
    const double scale = setup_.motion / setup_.modes[0].tip_rms_px;
    for (BeamMode& m : setup_.modes) m.tip_rms_px *= scale;
  }

  const auto frames = static_cast<std::size_t>(setup_.frames);
  const std::size_t modes = setup_.modes.size();

  // A strip a quarter of the image wide, from a few px above the clamp edge
  // to 8 % short of the far edge, so the free tip is in view.
  const int width = std::max(4, static_cast<int>(std::lround(0.25 * across_)));
  beam_.x0 = (across_ - width) / 2;
  beam_.x1 = beam_.x0 + width;
  beam_.y0 = static_cast<int>(std::lround(0.08 * along_));
  beam_.y1 = along_ - std::max(3, static_cast<int>(std::lround(0.02 * along_)));
  tip_shape_.resize(modes);
  for (std::size_t k = 0; k < modes; ++k) {
    tip_shape_[k] = CantileverShape(static_cast<int>(k) + 1, 1.0);
  }
  row_shape_.resize(static_cast<std::size_t>(along_) * modes);
  for (int y = 0; y < along_; ++y) {
    // The blur halo above the tip moves with the tip; the clamped part does
    // not move at all.
    const double s = std::clamp(RowPosition(y), 0.0, 1.0);
    for (std::size_t k = 0; k < modes; ++k) row_shape_[y * modes + k] = AlongBeam(k, s);
  }

  Dft dft(frames);
  const PeriodicForce force =
      MakePeriodicForce(setup_.excitation, frames, setup_.fps, setup_.seed, dft);
  excitation_ = force.samples;
  gain_.assign(modes, 1.0);
  modal_.assign(frames * modes, 0.0);
  for (std::size_t k = 0; k < modes; ++k) {
    const std::vector<double> wave = PeriodicResponse(
        force, setup_.fps, [&](double hz) { return ModalFrf(k, hz); }, dft);
    const double rms = Rms(wave);
    gain_[k] = rms > 0.0 ? setup_.modes[k].tip_rms_px / rms : 0.0;
    for (std::size_t t = 0; t < frames; ++t) modal_[t * modes + k] = wave[t] * gain_[k];
  }

  if (setup_.plain_patch) {
    const double length = beam_.y1 - beam_.y0;
    patch_row0_ = static_cast<int>(std::ceil(beam_.y1 - 0.40 * length - 0.5));
    patch_row1_ = static_cast<int>(std::floor(beam_.y1 - 0.25 * length - 0.5)) + 1;
    double reach = 0.0;
    for (std::size_t t = 0; t < frames; ++t) {
      for (int y = patch_row0_; y < patch_row1_; ++y) {
        double u = 0.0;
        for (std::size_t k = 0; k < modes; ++k)
          u += modal_[t * modes + k] * row_shape_[y * modes + k];
        reach = std::max(reach, std::abs(u));
      }
    }
    const int side = kRowBlurReach + static_cast<int>(std::ceil(reach));
    patch_ = {beam_.x0 + side, patch_row0_ + kRowBlurReach, beam_.x1 - side,
              patch_row1_ - kRowBlurReach};
    if (patch_.empty()) patch_ = {};
  }

  RenderStatic();
  noise_table_ = GaussianQuantiles(1.0);
}

void BeamScene::RenderStatic() {
  // Speckle: Gaussian blobs of random brightness, one near each site of a
  // jittered lattice, over the strip and a little beyond so its edges are
  // speckled like its middle.
  const std::uint64_t key = SceneHash(setup_.seed ^ 0xB1AB5u);
  auto site = [&](std::int64_t i, std::int64_t j, int what) {
    return SceneSigned(
        SceneHash(key ^ SceneHash(static_cast<std::uint64_t>(i) * 0x632BE59BD9B4E019ull +
                                  static_cast<std::uint64_t>(j) * 4 + what)));
  };
  const int reach = static_cast<int>(std::ceil(4.0 * kBlobSigma / kBlobSpacing));
  auto speckle = [&](double x, double y) {
    const auto ci = static_cast<std::int64_t>(std::floor(x / kBlobSpacing));
    const auto cj = static_cast<std::int64_t>(std::floor(y / kBlobSpacing));
    double g = 0.0;
    for (std::int64_t j = cj - reach; j <= cj + reach; ++j) {
      for (std::int64_t i = ci - reach; i <= ci + reach; ++i) {
        const double bx = (static_cast<double>(i) + 0.5 + 0.45 * site(i, j, 0)) * kBlobSpacing;
        const double by = (static_cast<double>(j) + 0.5 + 0.45 * site(i, j, 1)) * kBlobSpacing;
        const double r2 = (x - bx) * (x - bx) + (y - by) * (y - by);
        g += site(i, j, 2) * std::exp(-0.5 * r2 / (kBlobSigma * kBlobSigma));
      }
    }
    return g;
  };

  span0_ = beam_.x0 - kProfileMargin;
  fine_cols_ = (beam_.x1 - beam_.x0 + 2 * kProfileMargin) * kOversample;
  const auto cols = static_cast<std::size_t>(fine_cols_);
  // Unblurred beam minus background, at the fine samples' centres.
  std::vector<double> raw(static_cast<std::size_t>(along_) * cols, 0.0);
  std::vector<double> g(raw.size(), 0.0);
  double sum = 0.0, sum2 = 0.0;
  std::size_t count = 0;
  for (int y = beam_.y0; y < along_; ++y) {
    for (std::size_t i = 0; i < cols; ++i) {
      const double x = span0_ + (static_cast<double>(i) + 0.5) / kOversample;
      if (x < beam_.x0 || x >= beam_.x1) continue;
      const double v = speckle(x, y + 0.5);
      g[y * cols + i] = v;
      sum += v;
      sum2 += v * v;
      ++count;
    }
  }
  const double mean = sum / static_cast<double>(count);
  const double spread = std::sqrt(std::max(sum2 / static_cast<double>(count) - mean * mean, 1e-12));
  for (int y = beam_.y0; y < along_; ++y) {
    const bool plain = setup_.plain_patch && y >= patch_row0_ && y < patch_row1_;
    for (std::size_t i = 0; i < cols; ++i) {
      const double x = span0_ + (static_cast<double>(i) + 0.5) / kOversample;
      if (x < beam_.x0 || x >= beam_.x1) continue;
      const double contrast = plain ? 0.0 : kSpeckleStd * (g[y * cols + i] - mean) / spread;
      raw[y * cols + i] = kBeamMean * std::clamp(1.0 + contrast, 0.2, 1.8) - kBackground;
    }
  }

  // Optics blur and pixel integration along the motion on the fine grid;
  // the blur across rows on whole rows.
  const std::vector<double> along = BlurKernel(kOpticsSigma * kOversample, kOversample);
  const int half = static_cast<int>(along.size() / 2);
  std::vector<double> blurred(raw.size(), 0.0);
  for (int y = 0; y < along_; ++y) {
    const double* in = &raw[y * cols];
    double* out = &blurred[y * cols];
    for (int i = 0; i < fine_cols_; ++i) {
      double acc = 0.0;
      const int lo = std::max(0, i - half);
      const int hi = std::min(fine_cols_ - 1, i + half);
      for (int m = lo; m <= hi; ++m) acc += along[m - i + half] * in[m];
      out[i] = acc;
    }
  }
  const std::vector<double> across = BlurKernel(kOpticsSigma, 0);
  const int row_half = static_cast<int>(across.size() / 2);
  profile_.assign(raw.size(), 0.0f);
  for (int y = 0; y < along_; ++y) {
    for (std::size_t i = 0; i < cols; ++i) {
      double acc = 0.0;
      for (int d = -row_half; d <= row_half; ++d) {
        // The strip runs on past the image edge: the last row repeats.
        const int r = std::min(y + d, along_ - 1);
        if (r < 0) continue;
        acc += across[d + row_half] * blurred[r * cols + i];
      }
      profile_[y * cols + i] = static_cast<float>(acc);
    }
  }
}

double BeamScene::RowPosition(int y) const {
  return (beam_.y1 - (y + 0.5)) / static_cast<double>(beam_.y1 - beam_.y0);
}

double BeamScene::AlongBeam(std::size_t k, double s) const {
  return CantileverShape(static_cast<int>(k) + 1, s) / tip_shape_[k];
}

void BeamScene::ToUpright(int x, int y, int* ux, int* uy) const {
  if (setup_.horizontal) {
    *ux = y;
    *uy = setup_.width - 1 - x;
  } else {
    *ux = x;
    *uy = y;
  }
}

BeamRect BeamScene::ToImage(const BeamRect& r) const {
  if (!setup_.horizontal || r.empty()) return r;
  return {setup_.width - r.y1, r.x0, setup_.width - r.y0, r.x1};
}

double BeamScene::Displacement(std::size_t k, int x, int y) const {
  int ux = 0, uy = 0;
  ToUpright(x, y, &ux, &uy);
  if (ux < beam_.x0 || ux >= beam_.x1 || uy < beam_.y0 || uy >= beam_.y1) return 0.0;
  return AlongBeam(k, RowPosition(uy));
}

std::complex<double> BeamScene::ModalFrf(std::size_t k, double hz) const {
  const BeamMode& m = setup_.modes[k];
  const double wk = 2.0 * kPi * m.frequency_hz;
  const double w = 2.0 * kPi * hz;
  return gain_[k] * wk * wk / std::complex<double>(wk * wk - w * w, 2.0 * m.damping * wk * w);
}

float BeamScene::Profile(int y, double x, double u) const {
  const double pos = (x + 0.5 - u - span0_) * kOversample - 0.5;
  const double floor = std::floor(pos);
  const auto i = static_cast<std::int64_t>(floor);
  if (i < 0 || i + 1 >= fine_cols_) return 0.0f;
  const float* row = &profile_[static_cast<std::size_t>(y) * fine_cols_];
  const auto frac = static_cast<float>(pos - floor);
  return row[i] + frac * (row[i + 1] - row[i]);
}

double BeamScene::Rest(int x, int y) const {
  int ux = 0, uy = 0;
  ToUpright(x, y, &ux, &uy);
  return kBackground + Profile(uy, ux, 0.0);
}

void BeamScene::Frame(std::int32_t f, std::uint16_t* samples) const {
  if (f < 0 || f >= setup_.frames) throw std::out_of_range("frame outside the scene");
  const std::size_t modes = setup_.modes.size();
  const double* q = &modal_[static_cast<std::size_t>(f) * modes];
  const std::uint64_t frame_key =
      SceneHash(setup_.seed ^ SceneHash(static_cast<std::uint64_t>(f) + 1));
  const auto noise_scale = static_cast<float>(setup_.noise * std::sqrt(kMidGrey));
  const std::size_t hashes_per_row = (static_cast<std::size_t>(across_) + 4) / 5;
  const int first_beam_row = std::max(0, beam_.y0 - kRowBlurReach);
  const int out_width = setup_.width;

  std::vector<float> clean(across_);
  for (int y = 0; y < along_; ++y) {
    std::fill(clean.begin(), clean.end(), kBackground);
    if (y >= first_beam_row) {
      double u = 0.0;
      for (std::size_t k = 0; k < modes; ++k) u += q[k] * row_shape_[y * modes + k];
      // Only where the shifted profile lands; it is zero beyond.
      const int x0 = std::max(0, static_cast<int>(std::floor(span0_ + u)) - 1);
      const int x1 =
          std::min(across_, static_cast<int>(std::ceil(span0_ + u)) + fine_cols_ / kOversample + 1);
      for (int x = x0; x < x1; ++x) clean[x] += Profile(y, x, u);
    }
    // Upright pixel (x, y) is image pixel (x, y), or (W - 1 - y, x) turned.
    const std::ptrdiff_t start = setup_.horizontal ? out_width - 1 - y : y * across_;
    const std::ptrdiff_t step = setup_.horizontal ? out_width : 1;
    const std::uint64_t row_key = frame_key + y * hashes_per_row;
    for (int x = 0; x < across_; x += 5) {
      std::uint64_t bits = SceneHash(row_key + static_cast<std::uint64_t>(x / 5));
      const int end = std::min(across_, x + 5);
      for (int j = x; j < end; ++j, bits >>= kNoiseBits) {
        const float c = clean[j];
        const float v = c + noise_table_[bits & (kNoiseLevels - 1)] * noise_scale *
                                std::sqrt(std::max(c, 0.0f));
        samples[start + j * step] =
            static_cast<std::uint16_t>(std::clamp(v, 0.0f, kMaxSample) + 0.5f);
      }
    }
  }
}

}  // namespace frfcam::frfmap
