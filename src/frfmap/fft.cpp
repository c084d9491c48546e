#include "frfmap/fft.h"

#include <cstring>

namespace frfcam::frfmap {

std::mutex& FftPlannerMutex() {
  static std::mutex m;
  return m;
}

void FftPlan::Reset() {
  if (plan_ != nullptr) {
    std::lock_guard<std::mutex> lock(FftPlannerMutex());
    fftwf_destroy_plan(plan_);
  }
  plan_ = nullptr;
}

bool ScaledRealDft(const float* in, int n, std::complex<float>* out) {
  if (n < 1) return false;
  const std::size_t bins = static_cast<std::size_t>(n) / 2 + 1;
  FftBuffer<float> x = AllocateFftBuffer<float>(static_cast<std::size_t>(n));
  FftBuffer<fftwf_complex> y = AllocateFftBuffer<fftwf_complex>(bins);
  if (!x || !y) return false;
  FftPlan plan;
  {
    std::lock_guard<std::mutex> lock(FftPlannerMutex());
    plan = FftPlan(fftwf_plan_dft_r2c_1d(n, x.get(), y.get(), FFTW_ESTIMATE));
  }
  if (!plan) return false;
  std::memcpy(x.get(), in, static_cast<std::size_t>(n) * sizeof(float));
  fftwf_execute(plan.get());
  // The scale as a double of the count taken through float, like the cube's.
  const float scale = static_cast<float>(1.0 / static_cast<double>(static_cast<float>(n)));
  for (std::size_t k = 0; k < bins; ++k) out[k] = {y[k][0] * scale, y[k][1] * scale};
  return true;
}

}  // namespace frfcam::frfmap
