#include "frfmap/synthetic_scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string>

#include "frfmap/cantilever_shape.h"
#include "frfmap/scene_signals.h"

namespace frfcam::frfmap {

namespace {

constexpr float kMaxSample = 4095.0f;

// Smooth value noise in [-1, 1]: random values on a square lattice of
// `cell` pixels, blended with a smoothstep.
double ValueNoise(double x, double y, double cell, std::uint64_t key) {
  const double gx = x / cell;
  const double gy = y / cell;
  const auto ix = static_cast<std::int64_t>(std::floor(gx));
  const auto iy = static_cast<std::int64_t>(std::floor(gy));
  auto lattice = [&](std::int64_t i, std::int64_t j) {
    return SceneSigned(
        SceneHash(key ^ SceneHash(static_cast<std::uint64_t>(i) * 0x632BE59BD9B4E019ull +
                                  static_cast<std::uint64_t>(j))));
  };
  auto smooth = [](double t) { return t * t * (3.0 - 2.0 * t); };
  const double tx = smooth(gx - static_cast<double>(ix));
  const double ty = smooth(gy - static_cast<double>(iy));
  const double top = lattice(ix, iy) + tx * (lattice(ix + 1, iy) - lattice(ix, iy));
  const double bottom = lattice(ix, iy + 1) + tx * (lattice(ix + 1, iy + 1) - lattice(ix, iy + 1));
  return top + ty * (bottom - top);
}

void Check(bool ok, const std::string& what) {
  if (!ok) throw std::invalid_argument(what);
}

}  // namespace

std::vector<PlateMode> DefaultPlateModes(double fps) {
  return {{0.06 * fps, 0.02, 1, 1, 0.05},
          {0.15 * fps, 0.015, 2, 1, 0.05},
          {0.27 * fps, 0.01, 2, 2, 0.05}};
}

std::vector<PlateMode> CloseModePairModes(double fps) {
  return {{0.06 * fps, 0.02, 1, 1, 0.05},
          {0.15 * fps, 0.01, 2, 1, 0.05},
          {0.16 * fps, 0.01, 1, 2, 0.05}};
}

std::vector<PlateMode> CantileverModes(double fps) {
  return {{0.02 * fps, 0.02, 1, 1, 0.05},
          {0.02 * 6.267 * fps, 0.01, 2, 1, 0.03},
          {0.02 * 17.547 * fps, 0.008, 3, 1, 0.02}};
}

PlateScene::PlateScene(SceneSetup desc) : desc_(std::move(desc)) {
  Check(desc_.width > 0 && desc_.height > 0, "the scene needs a non-empty image");
  Check(desc_.frames >= 1, "the scene needs at least one frame");
  Check(desc_.fps > 0.0 && std::isfinite(desc_.fps), "the frame rate must be positive");
  Check(desc_.noise >= 0.0 && std::isfinite(desc_.noise), "the noise level must not be negative");
  if (desc_.modes.empty()) desc_.modes = DefaultPlateModes(desc_.fps);
  for (const PlateMode& m : desc_.modes) {
    Check(m.frequency_hz > 0.0 && m.frequency_hz < desc_.fps / 2,
          "mode frequency " + std::to_string(m.frequency_hz) + " Hz is outside (0, fps/2)");
    Check(m.damping > 0.0 && m.damping < 1.0, "a mode's damping must lie in (0, 1)");
    Check(m.m >= 1 && m.n >= 1, "a mode needs at least one half-wave each way");
  }

  const int w = desc_.width;
  const int h = desc_.height;
  const auto frames = static_cast<std::size_t>(desc_.frames);
  const std::size_t modes = desc_.modes.size();
  const std::size_t pixels = static_cast<std::size_t>(w) * h;

  // The plate fills most of the view, leaving a dark margin around it.
  plate_.x0 = static_cast<int>(std::lround(0.07 * w));
  plate_.y0 = static_cast<int>(std::lround(desc_.kind == SceneKind::kStrip ? 0.38 * h : 0.08 * h));
  plate_.x1 = w - plate_.x0;
  plate_.y1 = h - plate_.y0;

  // One period of the force per capture makes the response periodic, so its
  // spectrum is the transfer function times the force's spectrum with no
  // leakage.
  Dft dft(frames);
  const PeriodicForce force =
      MakePeriodicForce(desc_.excitation, frames, desc_.fps, desc_.seed, dft);
  excitation_ = force.samples;

  gain_.assign(modes, 0.0);
  modal_.assign(frames * modes, 0.0f);
  for (std::size_t k = 0; k < modes; ++k) {
    gain_[k] = 1.0;
    const std::vector<double> wave = PeriodicResponse(
        force, desc_.fps, [&](double hz) { return ModalFrf(k, hz); }, dft);
    const double rms = Rms(wave);
    const double scale = rms > 0.0 ? desc_.modes[k].amplitude / rms : 0.0;
    gain_[k] = scale;
    for (std::size_t t = 0; t < frames; ++t) {
      modal_[t * modes + k] = static_cast<float>(wave[t] * scale);
    }
  }

  // Texture: a speckled plate under slightly uneven light on a dim
  // background. Speckle makes the brightness follow the motion the way a
  // real surface does, pixel by pixel rather than uniformly.
  const std::uint64_t key = SceneHash(desc_.seed ^ 0x7E57u);
  const double coarse = std::max(3.0, std::min(w, h) / 24.0);
  texture_.resize(pixels);
  shaded_shape_.assign(modes * pixels, 0.0f);
  const double cx = 0.5 * w;
  const double cy = 0.5 * h;
  const double r2max = cx * cx + cy * cy;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const std::size_t p = static_cast<std::size_t>(y) * w + x;
      const bool on_plate = x >= plate_.x0 && x < plate_.x1 && y >= plate_.y0 && y < plate_.y1;
      const double grain = SceneSigned(SceneHash(key + p));
      double t;
      if (on_plate) {
        const double speckle = 0.18 * ValueNoise(x, y, coarse, key + 1) +
                               0.08 * ValueNoise(x, y, 2.0, key + 2) + 0.03 * grain;
        const double r2 = ((x - cx) * (x - cx) + (y - cy) * (y - cy)) / r2max;
        t = 1900.0 * (1.0 + speckle) * (1.0 - 0.15 * r2);
      } else {
        t = 320.0 + 40.0 * ValueNoise(x, y, coarse, key + 3) + 10.0 * grain +
            60.0 * y / static_cast<double>(h);
      }
      texture_[p] = static_cast<float>(t);
      for (std::size_t k = 0; k < modes; ++k) {
        shaded_shape_[k * pixels + p] = static_cast<float>(t * Shape(k, x, y));
      }
    }
  }

  noise_table_ = GaussianQuantiles(desc_.noise);
}

double PlateScene::Shape(std::size_t k, int x, int y) const {
  if (x < plate_.x0 || x >= plate_.x1 || y < plate_.y0 || y >= plate_.y1) return 0.0;
  const PlateMode& m = desc_.modes[k];
  const double u = (x - plate_.x0 + 0.5) / (plate_.x1 - plate_.x0);
  const double v = (y - plate_.y0 + 0.5) / (plate_.y1 - plate_.y0);
  if (desc_.kind == SceneKind::kStrip) return CantileverShape(m.m, u);
  return std::sin(m.m * std::numbers::pi * u) * std::sin(m.n * std::numbers::pi * v);
}

std::complex<double> PlateScene::ModalFrf(std::size_t k, double hz) const {
  const PlateMode& m = desc_.modes[k];
  const double wk = 2.0 * std::numbers::pi * m.frequency_hz;
  const double w = 2.0 * std::numbers::pi * hz;
  return gain_[k] * wk * wk / std::complex<double>(wk * wk - w * w, 2.0 * m.damping * wk * w);
}

void PlateScene::Frame(std::int32_t f, std::uint16_t* samples) const {
  if (f < 0 || f >= desc_.frames) throw std::out_of_range("frame outside the scene");
  const std::size_t pixels = texture_.size();
  const std::size_t modes = desc_.modes.size();
  const float* q = &modal_[static_cast<std::size_t>(f) * modes];
  const std::uint64_t frame_key =
      SceneHash(desc_.seed ^ SceneHash(static_cast<std::uint64_t>(f) + 1));

  // Work in chunks so the sums stay in cache and the inner loops vectorise.
  constexpr std::size_t kChunk = 4000;  // a multiple of 5: whole noise hashes
  float acc[kChunk];
  for (std::size_t start = 0; start < pixels; start += kChunk) {
    const std::size_t count = std::min(kChunk, pixels - start);
    std::copy_n(&texture_[start], count, acc);
    for (std::size_t k = 0; k < modes; ++k) {
      const float qk = q[k];
      const float* shape = &shaded_shape_[k * pixels + start];
      for (std::size_t i = 0; i < count; ++i) acc[i] += qk * shape[i];
    }
    for (std::size_t i = 0; i < count; i += 5) {
      std::uint64_t bits = SceneHash(frame_key + (start + i) / 5);
      const std::size_t end = std::min(count, i + 5);
      for (std::size_t j = i; j < end; ++j, bits >>= kNoiseBits) {
        const float v = acc[j] + noise_table_[bits & (kNoiseLevels - 1)];
        samples[start + j] = static_cast<std::uint16_t>(std::clamp(v, 0.0f, kMaxSample) + 0.5f);
      }
    }
  }
}

}  // namespace frfcam::frfmap
