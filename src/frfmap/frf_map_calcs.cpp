#include "frfmap/frf_map_calcs.h"

#include "frfmap/planner.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

FrfMapCalcs::FrfMapCalcs(std::string name) : name_(std::move(name)) {}

FrfMapCalcs::~FrfMapCalcs() { ReleaseOpening(); }

void FrfMapCalcs::ReleaseOpening() {
  opened_ = false;
  reader_.Close();
  cubes_.Close();
  kernel_.Release();
}

void FrfMapCalcs::ForgetCube() {
  width_ = height_ = bins_ = 0;
  total_pixels_ = block_pixels_ = sub_block_pixels_ = 0;
  read_generation_ = 0;
  record_file_.Close();
  cubes_.Reset(std::string(), CubeLayout{});
}

int FrfMapCalcs::OpenCube(const std::string& header_path) {
  ReleaseOpening();
  ForgetCube();

  // Refuse what cannot be rendered before anything is planned or taken.
  if (!reader_.Open(header_path)) return kOpenBadCapture;
  const CaptureHeader& h = reader_.header();
  const std::int32_t frames = h.frame_count();
  if (!h.Problem().empty()) return kOpenBadCapture;
  const auto bins = static_cast<std::uint32_t>(frames / 2 + 1);
  const CubeLayout layout = CubeLayout::For(h.pixels(), bins);  // within limits: Problem() says so

  // What a render of one row at a time and the transform need must be there
  // now; asking for more would only fail later, or slowly.
  const std::uint64_t available = platform::AvailablePhysicalMemory();
  if (available != 0) {
    if (MinimumRenderBytes(h.width(), frames) > available) return kOpenNoMemory;
    if (SpectrumKernel::WorkingBytes(frames) > available) return kOpenNoTransform;
  }
  if (!kernel_.Prepare(frames)) return kOpenNoTransform;

  width_ = h.width();
  height_ = h.height();
  bins_ = bins;
  total_pixels_ = static_cast<std::uint32_t>(h.pixels());
  header_value_ = static_cast<float>(h.float_field());
  cubes_.Reset(header_path, layout);
  block_pixels_ = PlanBlockPixels(width_, height_, frames, available);
  sub_block_pixels_ = SubBlockPixels(frames, available);
  opened_ = true;
  return kOpenOk;
}

unsigned FrfMapCalcs::GetCubeDims(unsigned* width, unsigned* height, unsigned* bins) const {
  if (width != nullptr) *width = width_;
  if (height != nullptr) *height = height_;
  if (bins != nullptr) *bins = bins_;
  return bins_;
}

}  // namespace frfcam::frfmap
