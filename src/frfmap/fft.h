// Thin ownership wrappers over the single-precision FFT library. Plans are
// created under one process-wide lock (the planner is not thread-safe);
// executing a plan on new arrays is.
#pragma once

#include <fftw3.h>

#include <complex>
#include <cstddef>
#include <memory>
#include <mutex>

namespace frfcam::frfmap {

// The lock every plan creation and destruction in the library takes.
std::mutex& FftPlannerMutex();

struct FftwFree {
  void operator()(void* p) const { fftwf_free(p); }
};
// Memory with the alignment the FFT library's SIMD code expects; null when
// the allocation fails (never throws).
template <class T>
using FftBuffer = std::unique_ptr<T[], FftwFree>;
template <class T>
FftBuffer<T> AllocateFftBuffer(std::size_t count) {
  if (count > SIZE_MAX / sizeof(T)) return FftBuffer<T>();
  return FftBuffer<T>(static_cast<T*>(fftwf_malloc(count * sizeof(T) + (count == 0))));
}

class FftPlan {
 public:
  FftPlan() = default;
  explicit FftPlan(fftwf_plan plan) : plan_(plan) {}
  ~FftPlan() { Reset(); }
  FftPlan(FftPlan&& o) noexcept : plan_(o.plan_) { o.plan_ = nullptr; }
  FftPlan& operator=(FftPlan&& o) noexcept {
    if (this != &o) {
      Reset();
      plan_ = o.plan_;
      o.plan_ = nullptr;
    }
    return *this;
  }
  fftwf_plan get() const { return plan_; }
  explicit operator bool() const { return plan_ != nullptr; }
  void Reset();

 private:
  fftwf_plan plan_ = nullptr;
};

// Forward real DFT of `n` samples scaled by 1/n: out[k] for k = 0 .. n/2.
// Used for single signals (the reference); false when n < 1 or planning fails.
bool ScaledRealDft(const float* in, int n, std::complex<float>* out);

}  // namespace frfcam::frfmap
