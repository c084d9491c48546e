#include "frfmap/scene_signals.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

namespace frfcam::frfmap {

namespace {

constexpr double kPi = std::numbers::pi;

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

// The lowest frequency of the sweep: low enough to pass below any
// structure's first mode, but inside the band for slow frame rates.
constexpr double kChirpStartHz = 5.0;
constexpr double kChirpEndOfFps = 0.45;

}  // namespace

std::uint64_t SceneHash(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

double SceneSigned(std::uint64_t h) { return static_cast<double>(h >> 11) * 0x1.0p-52 - 1.0; }

std::vector<float> GaussianQuantiles(double std) {
  std::vector<float> table(kNoiseLevels);
  for (std::size_t i = 0; i < kNoiseLevels; ++i) {
    const double p = (static_cast<double>(i) + 0.5) / static_cast<double>(kNoiseLevels);
    table[i] = static_cast<float>(std * NormalQuantile(p));
  }
  return table;
}

Dft::Dft(std::size_t n) : n_(n) {
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

void Dft::Inverse(const std::complex<double>* in, std::complex<double>* out) {
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

void Dft::ForwardReal(const double* in, std::complex<double>* out) {
  // For a real signal the forward transform is n times the conjugate of the
  // inverse one.
  std::vector<std::complex<double>> x(in, in + n_);
  Inverse(x.data(), out);
  for (std::size_t j = 0; j < n_; ++j) out[j] = std::conj(out[j]) * static_cast<double>(n_);
}

PeriodicForce MakePeriodicForce(Excitation kind, std::size_t frames, double fps, std::uint64_t seed,
                                Dft& dft) {
  PeriodicForce force;
  const std::size_t lines = (frames - 1) / 2;
  force.spectrum.assign(frames, 0.0);
  if (kind == Excitation::kRandom) {
    std::mt19937_64 rng(seed);
    for (std::size_t j = 1; j <= lines; ++j) {
      force.spectrum[j] = std::polar(1.0, kPi * SceneSigned(rng()));
    }
  } else {
    // The sweep jumps back at the end of the period; keeping only the lines
    // of the random force's band makes it a proper periodic signal whose
    // response is known exactly.
    const double f1 = kChirpEndOfFps * fps;
    const double f0 = std::min(kChirpStartHz, 0.1 * f1);
    const double period = static_cast<double>(frames) / fps;
    std::vector<double> sweep(frames);
    for (std::size_t t = 0; t < frames; ++t) {
      const double s = static_cast<double>(t) / fps;
      sweep[t] = std::sin(2.0 * kPi * (f0 * s + 0.5 * (f1 - f0) * s * s / period));
    }
    std::vector<std::complex<double>> all(frames);
    dft.ForwardReal(sweep.data(), all.data());
    for (std::size_t j = 1; j <= lines; ++j) force.spectrum[j] = all[j];
  }
  for (std::size_t j = 1; j <= lines; ++j)
    force.spectrum[frames - j] = std::conj(force.spectrum[j]);

  std::vector<std::complex<double>> wave(frames);
  dft.Inverse(force.spectrum.data(), wave.data());
  double sum2 = 0.0;
  for (const auto& v : wave) sum2 += v.real() * v.real();
  const double rms = lines > 0 ? std::sqrt(sum2 / static_cast<double>(frames)) : 0.0;
  const double scale = rms > 0.0 ? 1.0 / rms : 0.0;
  force.samples.resize(frames);
  for (std::size_t t = 0; t < frames; ++t) {
    force.samples[t] = static_cast<float>(lines > 0 ? wave[t].real() * scale : 0.0);
  }
  for (auto& v : force.spectrum) v *= scale;
  return force;
}

std::vector<double> PeriodicResponse(const PeriodicForce& force, double fps,
                                     const std::function<std::complex<double>(double)>& h,
                                     Dft& dft) {
  const std::size_t frames = force.spectrum.size();
  const std::size_t lines = (frames - 1) / 2;
  std::vector<double> out(frames, 0.0);
  if (lines == 0) return out;
  std::vector<std::complex<double>> response(frames), wave(frames);
  for (std::size_t j = 1; j <= lines; ++j) {
    const double hz = static_cast<double>(j) * fps / static_cast<double>(frames);
    response[j] = h(hz) * force.spectrum[j];
    response[frames - j] = std::conj(response[j]);
  }
  dft.Inverse(response.data(), wave.data());
  for (std::size_t t = 0; t < frames; ++t) out[t] = wave[t].real();
  return out;
}

double Rms(const std::vector<double>& v) {
  if (v.empty()) return 0.0;
  double sum2 = 0.0;
  for (double x : v) sum2 += x * x;
  return std::sqrt(sum2 / static_cast<double>(v.size()));
}

}  // namespace frfcam::frfmap
