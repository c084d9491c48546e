// FrfMapCalcs: the stateful object behind the FRF-map calls. It owns the
// capture reader, the cube file set, the render plan and buffers, the
// transform plans, the cancel flag and the reference spectrum.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace frfcam::frfmap {

class FrfMapCalcs {
 public:
  explicit FrfMapCalcs(std::string name);
  ~FrfMapCalcs();
  FrfMapCalcs(const FrfMapCalcs&) = delete;
  FrfMapCalcs& operator=(const FrfMapCalcs&) = delete;

  const std::string& name() const { return name_; }
  void set_name(std::string name) { name_ = std::move(name); }

 private:
  std::string name_;
};

}  // namespace frfcam::frfmap
