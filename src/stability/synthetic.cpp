#include "stability/synthetic.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string>

#include "stability/portable_math.h"

namespace frfcam::stability {

namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

// A small self-contained generator so that a seed gives the same noise with
// every standard library and C runtime (std::normal_distribution is not
// portable, nor are the runtimes' logarithms and sines).
class NoiseSource {
 public:
  explicit NoiseSource(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}

  // A complex Gaussian value with E|x|^2 = 1.
  std::complex<double> Next() {
    // Box-Muller; u1 lies in (0, 1] so the logarithm is finite.
    const double u1 = (static_cast<double>(Bits() >> 11) + 1.0) * 0x1.0p-53;
    const double u2 = static_cast<double>(Bits() >> 11) * 0x1.0p-53;
    const double radius = std::sqrt(-portable::Log(u1));  // sqrt(-2 ln u1) / sqrt(2)
    return portable::Polar(radius, kTwoPi * u2);
  }

 private:
  std::uint64_t Bits() {  // splitmix64
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  std::uint64_t state_;
};

// A mode-shape-like value of mode r at channel c: a sine pattern over the
// channels whose magnitude is kept above 0.35 so that no mode vanishes from
// any channel.
double ShapeValue(int r, int c, int numChannels) {
  double s, unused;
  portable::SinCos(std::numbers::pi * (r + 1) * (c + 0.5) / numChannels + 0.3, &s, &unused);
  return std::copysign(0.35 + 0.65 * std::abs(s), s);
}

void Check(bool ok, const std::string& what) {
  if (!ok) throw std::invalid_argument("synthetic FRFs: " + what);
}

}  // namespace

std::complex<double> ModePole(const SyntheticMode& mode) {
  const double w = kTwoPi * mode.frequencyHz;
  return {-mode.damping * w, w * std::sqrt(std::max(0.0, 1.0 - mode.damping * mode.damping))};
}

SyntheticFrfs SynthesizeFrfs(const SyntheticSystem& system) {
  Check(system.numLines >= 0, "negative number of lines");
  Check(system.numChannels >= 0, "negative number of channels");
  Check(std::isfinite(system.fMinHz) && std::isfinite(system.fMaxHz) &&
            system.fMinHz <= system.fMaxHz,
        "band must be finite with fMinHz <= fMaxHz");
  Check(std::isfinite(system.noise) && system.noise >= 0.0, "noise must be finite and >= 0");
  for (const SyntheticMode& m : system.modes) {
    Check(std::isfinite(m.frequencyHz) && m.frequencyHz > 0.0, "mode frequency must be > 0");
    Check(std::isfinite(m.damping) && m.damping >= 0.0, "mode damping must be >= 0");
  }

  const int lines = system.numLines;
  const int channels = system.numChannels;
  const int modes = static_cast<int>(system.modes.size());

  SyntheticFrfs out;
  out.omega.resize(lines);
  const double step = lines > 1 ? (system.fMaxHz - system.fMinHz) / (lines - 1) : 0.0;
  for (int k = 0; k < lines; ++k) {
    // The last line is set exactly so that the band edge is not off by rounding.
    const double f = (k == lines - 1 && lines > 1) ? system.fMaxHz : system.fMinHz + k * step;
    out.omega[k] = kTwoPi * f;
  }

  out.residues.assign(channels, std::vector<std::complex<double>>(modes));
  for (int c = 0; c < channels; ++c) {
    for (int r = 0; r < modes; ++r) {
      const double w = kTwoPi * system.modes[r].frequencyHz;
      // A small per-mode phase, as with mildly non-proportional damping.
      double s, unused;
      portable::SinCos(1.7 * (r + 1), &s, &unused);
      const std::complex<double> phase = portable::Polar(1.0, 0.1 * s);
      out.residues[c][r] = w * w * ShapeValue(r, c, channels) * phase;
    }
  }
  if (channels > 0) {
    out.upperResidual = system.upperResidual;
    out.lowerResidual = system.lowerResidual;
  }

  out.matrix.resize(lines, channels);
  NoiseSource noise(system.seed);
  for (int c = 0; c < channels; ++c) {
    double energy = 0.0;
    for (int k = 0; k < lines; ++k) {
      const double w = out.omega[k];
      const std::complex<double> iw(0.0, w);
      std::complex<double> h = 0.0;
      for (int r = 0; r < modes; ++r) {
        const double wr = kTwoPi * system.modes[r].frequencyHz;
        const double zeta = system.modes[r].damping;
        h += out.residues[c][r] / (iw * iw + 2.0 * zeta * wr * iw + wr * wr);
      }
      if (c == 0) {
        h += out.upperResidual;
        // Only a non-zero term is added, so that a 0 Hz line stays finite.
        if (out.lowerResidual != 0.0) h += out.lowerResidual / (iw * iw);
      }
      out.matrix(k, c) = h;
      energy += std::norm(h);
    }
    if (system.noise > 0.0 && lines > 0) {
      const double sigma = system.noise * std::sqrt(energy / lines);
      for (int k = 0; k < lines; ++k) out.matrix(k, c) += sigma * noise.Next();
    }
  }
  out.frf = channels > 0 ? ComplexVector(out.matrix.col(0)) : ComplexVector::Zero(lines);
  return out;
}

SyntheticSystem DefaultFiveModeSystem(int numLines, int numChannels, double noise) {
  SyntheticSystem s;
  s.modes = {{48.0, 0.020}, {121.5, 0.015}, {203.0, 0.010}, {287.5, 0.025}, {412.0, 0.012}};
  s.fMinHz = 10.0;
  s.fMaxHz = 500.0;
  s.numLines = numLines;
  s.numChannels = numChannels;
  s.noise = noise;
  return s;
}

}  // namespace frfcam::stability
