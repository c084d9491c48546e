#include "frfmap/synthetic_scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <stdexcept>
#include <string>
#include <unsupported/Eigen/FFT>

namespace frfcam::frfmap {

namespace {

constexpr double kPi = std::numbers::pi;
constexpr float kMaxSample = 4095.0f;
// Noise samples are drawn from 2^12 equally likely Gaussian quantiles, five
// per 64-bit hash: cheap enough for every pixel of long captures.
constexpr int kNoiseBits = 12;
constexpr std::size_t kNoiseLevels = std::size_t{1} << kNoiseBits;

std::uint64_t Mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Uniform in [-1, 1) from a hash; the standard distributions are not
// reproducible across library implementations, the hash is.
double Signed(std::uint64_t h) { return static_cast<double>(h >> 11) * 0x1.0p-52 - 1.0; }

double NormalCdf(double x) { return 0.5 * std::erfc(-x / std::sqrt(2.0)); }

// Newton's method from 0 approaches the root monotonically on either side,
// because the CDF is convex below 0 and concave above.
double NormalQuantile(double p) {
  if (p > 0.5) return -NormalQuantile(1.0 - p);
  double x = 0.0;
  for (int i = 0; i < 100; ++i) {
    const double step = (NormalCdf(x) - p) / (std::exp(-0.5 * x * x) / std::sqrt(2.0 * kPi));
    x -= step;
    if (std::abs(step) < 1e-12) break;
  }
  return x;
}

// Smooth value noise in [-1, 1]: random values on a square lattice of
// `cell` pixels, blended with a smoothstep.
double ValueNoise(double x, double y, double cell, std::uint64_t key) {
  const double gx = x / cell;
  const double gy = y / cell;
  const auto ix = static_cast<std::int64_t>(std::floor(gx));
  const auto iy = static_cast<std::int64_t>(std::floor(gy));
  auto lattice = [&](std::int64_t i, std::int64_t j) {
    return Signed(Mix(key ^ Mix(static_cast<std::uint64_t>(i) * 0x632BE59BD9B4E019ull +
                                static_cast<std::uint64_t>(j))));
  };
  auto smooth = [](double t) { return t * t * (3.0 - 2.0 * t); };
  const double tx = smooth(gx - static_cast<double>(ix));
  const double ty = smooth(gy - static_cast<double>(iy));
  const double top = lattice(ix, iy) + tx * (lattice(ix + 1, iy) - lattice(ix, iy));
  const double bottom = lattice(ix, iy + 1) + tx * (lattice(ix + 1, iy + 1) - lattice(ix, iy + 1));
  return top + ty * (bottom - top);
}

std::size_t LargestPrimeFactor(std::size_t n) {
  std::size_t largest = 1;
  for (std::size_t p = 2; p * p <= n; ++p) {
    while (n % p == 0) {
      largest = p;
      n /= p;
    }
  }
  return n > 1 ? n : largest;
}

// Inverse DFT with the 1/n factor. The FFT's generic radix costs p^2 for a
// prime factor p, which makes long captures of awkward lengths crawl; those
// go through Bluestein's chirp convolution on a power-of-two length instead.
class InverseDft {
 public:
  explicit InverseDft(std::size_t n) : n_(n) {
    if (LargestPrimeFactor(n) <= 64) return;
    m_ = 1;
    while (m_ < 2 * n - 1) m_ *= 2;
    chirp_.resize(n);
    // j^2 mod 2n, stepped as (j + 1)^2 = j^2 + 2j + 1, keeps the phase exact
    // for long transforms.
    std::uint64_t j2 = 0;
    for (std::size_t j = 0; j < n; ++j) {
      chirp_[j] = std::polar(1.0, kPi * static_cast<double>(j2) / static_cast<double>(n));
      j2 = (j2 + 2 * j + 1) % (2 * n);
    }
    std::vector<std::complex<double>> b(m_);
    b[0] = std::conj(chirp_[0]);
    for (std::size_t j = 1; j < n; ++j) b[j] = b[m_ - j] = std::conj(chirp_[j]);
    kernel_.resize(m_);
    fft_.fwd(kernel_.data(), b.data(), static_cast<Eigen::Index>(m_));
  }

  void operator()(const std::complex<double>* in, std::complex<double>* out) {
    if (m_ == 0) {
      fft_.inv(out, in, static_cast<Eigen::Index>(n_));
      return;
    }
    std::vector<std::complex<double>> a(m_), spectrum(m_);
    for (std::size_t k = 0; k < n_; ++k) a[k] = in[k] * chirp_[k];
    fft_.fwd(spectrum.data(), a.data(), static_cast<Eigen::Index>(m_));
    for (std::size_t i = 0; i < m_; ++i) spectrum[i] *= kernel_[i];
    fft_.inv(a.data(), spectrum.data(), static_cast<Eigen::Index>(m_));
    for (std::size_t t = 0; t < n_; ++t) {
      out[t] = a[t] * chirp_[t] / static_cast<double>(n_);
    }
  }

 private:
  std::size_t n_;
  std::size_t m_ = 0;  // 0: direct
  std::vector<std::complex<double>> chirp_, kernel_;
  Eigen::FFT<double> fft_;
};

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

namespace {

// Roots of cos(b) cosh(b) = -1, the clamped-free beam's eigenvalues.
constexpr double kCantileverBeta[] = {1.8751040687, 4.6940911330, 7.8547574382, 10.9955407349,
                                      14.1371683910};

double CantileverShape(int mode, double u) {
  const int i = std::min(mode, 5) - 1;
  const double b = kCantileverBeta[i];
  const double sigma = (std::cosh(b) + std::cos(b)) / (std::sinh(b) + std::sin(b));
  const double bu = b * u;
  return 0.5 * (std::cosh(bu) - std::cos(bu) - sigma * (std::sinh(bu) - std::sin(bu)));
}

}  // namespace

PlateScene::PlateScene(SceneSpec desc) : desc_(std::move(desc)) {
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

  // Excitation: equal magnitude on lines 1 .. (F-1)/2, random phases. One
  // period per capture makes the response periodic, so its spectrum is the
  // transfer function times the force's spectrum with no leakage.
  std::mt19937_64 rng(desc_.seed);
  const std::size_t lines = (frames - 1) / 2;
  std::vector<std::complex<double>> force(frames);
  for (std::size_t j = 1; j <= lines; ++j) {
    const double phase = kPi * Signed(rng());
    force[j] = std::polar(1.0, phase);
    force[frames - j] = std::conj(force[j]);
  }
  InverseDft inverse(frames);
  std::vector<std::complex<double>> wave(frames);
  auto to_time = [&](const std::vector<std::complex<double>>& spectrum) {
    // Too short for any line below Nyquist: nothing moves.
    if (lines == 0) {
      std::fill(wave.begin(), wave.end(), 0.0);
      return 0.0;
    }
    inverse(spectrum.data(), wave.data());
    double sum2 = 0.0;
    for (const auto& v : wave) sum2 += v.real() * v.real();
    return std::sqrt(sum2 / static_cast<double>(frames));
  };
  const double force_rms = to_time(force);
  const double force_scale = force_rms > 0.0 ? 1.0 / force_rms : 0.0;
  excitation_.resize(frames);
  for (std::size_t t = 0; t < frames; ++t) {
    excitation_[t] = static_cast<float>(wave[t].real() * force_scale);
  }
  for (auto& v : force) v *= force_scale;

  gain_.assign(modes, 0.0);
  modal_.assign(frames * modes, 0.0f);
  std::vector<std::complex<double>> response(frames);
  for (std::size_t k = 0; k < modes; ++k) {
    gain_[k] = 1.0;
    for (std::size_t j = 1; j <= lines; ++j) {
      const double hz = static_cast<double>(j) * desc_.fps / static_cast<double>(frames);
      response[j] = ModalFrf(k, hz) * force[j];
      response[frames - j] = std::conj(response[j]);
    }
    const double rms = to_time(response);
    const double scale = rms > 0.0 ? desc_.modes[k].amplitude / rms : 0.0;
    gain_[k] = scale;
    for (std::size_t t = 0; t < frames; ++t) {
      modal_[t * modes + k] = static_cast<float>(wave[t].real() * scale);
    }
  }

  // Texture: a speckled plate under slightly uneven light on a dim
  // background. Speckle makes the brightness follow the motion the way a
  // real surface does, pixel by pixel rather than uniformly.
  const std::uint64_t key = Mix(desc_.seed ^ 0x7E57u);
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
      const double grain = Signed(Mix(key + p));
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

  noise_table_.resize(kNoiseLevels);
  for (std::size_t i = 0; i < kNoiseLevels; ++i) {
    const double p = (static_cast<double>(i) + 0.5) / static_cast<double>(kNoiseLevels);
    noise_table_[i] = static_cast<float>(desc_.noise * NormalQuantile(p));
  }
}

double PlateScene::Shape(std::size_t k, int x, int y) const {
  if (x < plate_.x0 || x >= plate_.x1 || y < plate_.y0 || y >= plate_.y1) return 0.0;
  const PlateMode& m = desc_.modes[k];
  const double u = (x - plate_.x0 + 0.5) / (plate_.x1 - plate_.x0);
  const double v = (y - plate_.y0 + 0.5) / (plate_.y1 - plate_.y0);
  if (desc_.kind == SceneKind::kStrip) return CantileverShape(m.m, u);
  return std::sin(m.m * kPi * u) * std::sin(m.n * kPi * v);
}

std::complex<double> PlateScene::ModalFrf(std::size_t k, double hz) const {
  const PlateMode& m = desc_.modes[k];
  const double wk = 2.0 * kPi * m.frequency_hz;
  const double w = 2.0 * kPi * hz;
  return gain_[k] * wk * wk / std::complex<double>(wk * wk - w * w, 2.0 * m.damping * wk * w);
}

void PlateScene::Frame(std::int32_t f, std::uint16_t* samples) const {
  if (f < 0 || f >= desc_.frames) throw std::out_of_range("frame outside the scene");
  const std::size_t pixels = texture_.size();
  const std::size_t modes = desc_.modes.size();
  const float* q = &modal_[static_cast<std::size_t>(f) * modes];
  const std::uint64_t frame_key = Mix(desc_.seed ^ Mix(static_cast<std::uint64_t>(f) + 1));

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
      std::uint64_t bits = Mix(frame_key + (start + i) / 5);
      const std::size_t end = std::min(count, i + 5);
      for (std::size_t j = i; j < end; ++j, bits >>= kNoiseBits) {
        const float v = acc[j] + noise_table_[bits & (kNoiseLevels - 1)];
        samples[start + j] = static_cast<std::uint16_t>(std::clamp(v, 0.0f, kMaxSample) + 0.5f);
      }
    }
  }
}

}  // namespace frfcam::frfmap
