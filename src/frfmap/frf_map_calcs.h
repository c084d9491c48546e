// FrfMapCalcs: the stateful object behind the FRF-map calls. It owns the
// capture reader, the cube file set, the render plan and buffers, the
// transform plans, the cancel flag and the reference spectrum.
#pragma once

#include <atomic>
#include <complex>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "frfmap/capture_reader.h"
#include "frfmap/cube_files.h"
#include "frfmap/fft.h"
#include "frfmap/spectrum_kernel.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

// Results of OpenCube.
enum OpenResult : int {
  kOpenOk = 0,
  kOpenNoTransform = 1,
  kOpenNoMemory = -1,
  kOpenBadCapture = 2,
};

// Results of RenderCube.
enum RenderResult : int {
  kRenderOk = 0,
  kRenderCancelled = 1,
  kRenderNoMemory = 2,  // also: not opened
  kRenderWriteFailed = 3,
};

// ReadFRFMap's results besides 0 and short byte counts.
inline constexpr int kReadNullMap = -8;
inline constexpr int kReadNoMemory = -9;

using ProgressFn = std::function<void(int percent)>;

class FrfMapCalcs {
 public:
  explicit FrfMapCalcs(std::string name);
  ~FrfMapCalcs();
  FrfMapCalcs(const FrfMapCalcs&) = delete;
  FrfMapCalcs& operator=(const FrfMapCalcs&) = delete;

  const std::string& name() const { return name_; }
  void set_name(std::string name) { name_ = std::move(name); }

  int OpenCube(const std::string& header_path);
  // Writes width, height and bins (any pointer may be null); returns bins.
  unsigned GetCubeDims(unsigned* width, unsigned* height, unsigned* bins) const;
  int RenderCube(const ProgressFn& progress);
  void CancelRender() noexcept { cancel_.store(1, std::memory_order_relaxed); }

  void SetReference(const float* signal, int length);
  int ReadFRFMap(int bin, float gain, unsigned char* map);

  const std::vector<std::complex<float>>& reference() const { return reference_; }

 private:
  void ReleaseOpening();
  // Back to the unopened state: no dimensions, no cube.
  void ForgetCube();

  std::string name_;
  CaptureReader reader_;
  CubeFileSet cubes_;
  SpectrumKernel kernel_;

  // Render plan, set by OpenCube.
  bool opened_ = false;
  std::uint32_t total_pixels_ = 0;
  std::uint32_t block_pixels_ = 0;
  std::uint32_t sub_block_pixels_ = 0;
  float header_value_ = 0.0f;  // carried from the header, not interpreted

  std::atomic<std::uint8_t> cancel_{0};

  std::vector<std::complex<float>> reference_;

  // ReadFRFMap's working memory, kept between calls: the plane as read and,
  // for a file the call opens, the map as it is made.
  FftBuffer<float> read_plane_;
  std::size_t read_plane_size_ = 0;  // in pixels
  // The render whose cube files the read handles belong to (0: unknown).
  std::uint64_t read_generation_ = 0;
  platform::File record_file_;  // the cube's record, kept open where that is cheap
  std::vector<std::uint8_t> staged_map_;

  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::uint32_t bins_ = 0;
};

}  // namespace frfcam::frfmap
