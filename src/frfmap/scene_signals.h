// Building blocks of the synthetic scenes: the periodic force that excites
// them, their steady-state responses to it, and cheap reproducible noise.
// Every signal spans the capture as exactly one period, so the spectrum of a
// response is its transfer function times the force's spectrum at every line,
// with no leakage.
#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <unsupported/Eigen/FFT>
#include <vector>

namespace frfcam::frfmap {

// The force's waveform: periodic random (every line from the first to below
// Nyquist, equal magnitude, random phase) or one linear sweep over the capture
// from a few Hz to 0.45 of the frame rate.
enum class Excitation { kRandom, kChirp };

// A 64-bit mixing hash (splitmix64's finaliser). The standard random
// distributions are not reproducible across library implementations; the
// hash is.
std::uint64_t SceneHash(std::uint64_t x);

// Uniform in [-1, 1) from a hash value.
double SceneSigned(std::uint64_t h);

// Noise samples are drawn from 2^kNoiseBits equally likely Gaussian
// quantiles, five per 64-bit hash: cheap enough for every pixel of long
// captures.
inline constexpr int kNoiseBits = 12;
inline constexpr std::size_t kNoiseLevels = std::size_t{1} << kNoiseBits;

// The kNoiseLevels quantiles of a Gaussian with standard deviation `std`,
// at probabilities (i + 0.5) / kNoiseLevels.
std::vector<float> GaussianQuantiles(double std);

// Discrete Fourier transforms of one length. The FFT's generic radix costs
// p^2 for a prime factor p, which makes long captures of awkward lengths
// crawl; those go through Bluestein's chirp convolution on a power-of-two
// length instead.
class Dft {
 public:
  explicit Dft(std::size_t n);

  std::size_t size() const { return n_; }
  // out[t] = 1/n sum_j in[j] exp(2 pi i j t / n).
  void Inverse(const std::complex<double>* in, std::complex<double>* out);
  // out[j] = sum_t in[t] exp(-2 pi i j t / n) for a real signal.
  void ForwardReal(const double* in, std::complex<double>* out);

 private:
  std::size_t n_;
  std::size_t m_ = 0;  // 0: direct
  std::vector<std::complex<double>> chirp_, kernel_;
  Eigen::FFT<double> fft_;
};

// A force of unit RMS spanning `frames` samples as one period, with its DFT
// (all n lines; DC and Nyquist are zero).
struct PeriodicForce {
  std::vector<std::complex<double>> spectrum;
  std::vector<float> samples;
};

// kRandom draws the phases from std::mt19937_64(seed); kChirp ignores the
// seed and keeps only the sweep's lines from the first to below Nyquist.
// Fewer than three frames leave no such line: the force is all zero.
PeriodicForce MakePeriodicForce(Excitation kind, std::size_t frames, double fps, std::uint64_t seed,
                                Dft& dft);

// The steady-state response to `force` of the transfer function h (of the
// frequency in Hz), one sample per frame.
std::vector<double> PeriodicResponse(const PeriodicForce& force, double fps,
                                     const std::function<std::complex<double>(double)>& h,
                                     Dft& dft);

// Root mean square of a signal; 0 for an empty one.
double Rms(const std::vector<double>& v);

}  // namespace frfcam::frfmap
