#include "map_image.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <string>

#include "command_error.h"
#include "cube_state.h"
#include "frfmap/capture_header.h"
#include "frfmap/fft.h"

namespace frfcam::cli {

float AutomaticGain(::FrfMapCalcs* c, int bin, unsigned width, unsigned height) {
  std::vector<unsigned char> probe(static_cast<std::size_t>(width) * height);
  float g = 1.0f;
  for (int round = 0; round < 8; ++round) {
    if (ReadFRFMap(c, bin, g, probe.data()) != 0) {
      throw CommandError("cannot read bin " + std::to_string(bin) + " from the cube files");
    }
    std::vector<unsigned char> sorted(probe);
    const std::size_t at = sorted.size() * 995 / 1000;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(at),
                     sorted.end());
    const int v = sorted[at];
    if (v >= 128 && v < 255) return g * 255.0f / static_cast<float>(v);
    g *= v == 0 ? 256.0f : (v == 255 ? 1.0f / 16.0f : 200.0f / static_cast<float>(v));
    if (!std::isfinite(g) || g == 0.0f) break;
  }
  // An all-zero (or all-saturated) bin keeps the last gain that was tried.
  return std::isfinite(g) && g > 0.0f ? g : 1.0f;
}

MapImage ComputeMap(::FrfMapCalcs* c, int bin, float gain, int gain_from, unsigned width,
                    unsigned height) {
  MapImage image;
  image.gain =
      gain != 0.0f ? gain : AutomaticGain(c, gain_from >= 0 ? gain_from : bin, width, height);
  image.pixels.resize(static_cast<std::size_t>(width) * height);
  if (ReadFRFMap(c, bin, image.gain, image.pixels.data()) != 0) {
    throw CommandError("cannot read bin " + std::to_string(bin) +
                       " from the cube files (render the capture again)");
  }
  return image;
}

std::vector<std::complex<double>> ReferenceSpectrum(const std::vector<float>& reference,
                                                    int frames) {
  const auto n = static_cast<std::size_t>(std::max(frames, 1));
  auto in = frfmap::AllocateFftBuffer<float>(n);
  auto out = frfmap::AllocateFftBuffer<fftwf_complex>(n / 2 + 1);
  if (!in || !out) throw CommandError("out of memory");
  for (std::size_t t = 0; t < n; ++t) in[t] = t < reference.size() ? reference[t] : 0.0f;
  frfmap::FftPlan plan;
  {
    std::lock_guard<std::mutex> lock(frfmap::FftPlannerMutex());
    plan = frfmap::FftPlan(
        fftwf_plan_dft_r2c_1d(static_cast<int>(n), in.get(), out.get(), FFTW_ESTIMATE));
  }
  if (!plan) throw CommandError("cannot prepare the reference's transform");
  fftwf_execute(plan.get());
  std::vector<std::complex<double>> spectrum(n / 2 + 1);
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    spectrum[k] = std::complex<double>(out[k][0], out[k][1]) / static_cast<double>(n);
  }
  return spectrum;
}

int StrongestBin(const std::string& header_path, int first, int last,
                 const std::vector<std::complex<double>>& reference_spectrum) {
  frfmap::CaptureHeader header;
  if (!header.Load(header_path)) throw CommandError("cannot read header " + header_path);
  const int bins = header.frame_count() / 2 + 1;
  std::vector<double> mean(static_cast<std::size_t>(bins));
  unsigned pixels = 0;
  std::string why;
  if (!ReadCubeMeanMagnitude(header_path, header, 0, 0, header.width(), header.height(), 48,
                             reference_spectrum.empty() ? nullptr : reference_spectrum.data(),
                             mean.data(), &pixels, &why)) {
    throw CommandError(why);
  }
  // Where the reference carries (almost) nothing, X/R is noise over a
  // small number; such bins cannot set the scale.
  double strongestReference = 0.0;
  for (std::size_t k = 1; k < reference_spectrum.size(); ++k) {
    strongestReference = std::max(strongestReference, std::abs(reference_spectrum[k]));
  }
  const auto usable = [&](int k) {
    return std::isfinite(mean[k]) &&
           (reference_spectrum.empty() ||
            std::abs(reference_spectrum[static_cast<std::size_t>(k)]) >= 0.01 * strongestReference);
  };
  int best = -1;
  for (int k = std::clamp(first, 0, bins - 1); k <= std::min(last, bins - 1); ++k) {
    if (usable(k) && (best < 0 || mean[k] > mean[best])) best = k;
  }
  return best >= 0 ? best : std::clamp(first, 0, bins - 1);
}

}  // namespace frfcam::cli
