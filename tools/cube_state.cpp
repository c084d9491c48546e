#include "cube_state.h"

#include <algorithm>

#include "frfmap/layout.h"
#include "frfmap/naming.h"
#include "platform/platform.h"

namespace frfcam {

namespace {

frfmap::CubeLayout LayoutOf(const frfmap::CaptureHeader& header) {
  const std::int32_t frames = header.frame_count();
  const auto bins = frames > 0 ? static_cast<std::uint32_t>(frames / 2 + 1) : 0u;
  return frfmap::CubeLayout::For(header.pixels(), bins);
}

std::string CubePath(const std::string& header_path, unsigned file) {
  return frfmap::DataFilePath(header_path, frfmap::DataFile::kCube, file);
}

}  // namespace

bool ReadCubePlane(const std::string& header_path, const frfmap::CaptureHeader& header,
                   std::uint32_t bin, std::complex<float>* out, std::string* error) {
  const frfmap::CubeLayout layout = LayoutOf(header);
  if (layout.bins_per_file == 0 || bin >= layout.bins) {
    *error = "bin " + std::to_string(bin) + " is not in the cube";
    return false;
  }
  const frfmap::FileOffset at = layout.Locate(bin);
  platform::File f;
  const std::string path = CubePath(header_path, at.file);
  if (!f.Open(path, platform::File::Mode::kRead)) {
    *error = path + ": cannot be opened";
    return false;
  }
  if (f.ReadAt(at.offset, out, layout.plane_bytes) != layout.plane_bytes) {
    *error = path + ": bin " + std::to_string(bin) + " is cut short; render the capture again";
    return false;
  }
  return true;
}

bool ReadCubeSpectrum(const std::string& header_path, const frfmap::CaptureHeader& header,
                      std::uint32_t x, std::uint32_t y, std::complex<float>* out,
                      std::string* error) {
  const frfmap::CubeLayout layout = LayoutOf(header);
  const std::uint64_t pixel =
      (static_cast<std::uint64_t>(y) * header.width() + x) * frfmap::kSpectrumValueBytes;
  platform::File f;
  unsigned open_file = 0;
  for (std::uint32_t bin = 0; bin < layout.bins; ++bin) {
    const frfmap::FileOffset at = layout.Locate(bin);
    const std::string path = CubePath(header_path, at.file);
    if (at.file != open_file) {
      if (!f.Open(path, platform::File::Mode::kRead)) {
        *error = path + ": cannot be opened";
        return false;
      }
      open_file = at.file;
    }
    if (f.ReadAt(at.offset + pixel, &out[bin], sizeof(out[bin])) != sizeof(out[bin])) {
      *error = path + ": bin " + std::to_string(bin) + " is cut short; render the capture again";
      return false;
    }
  }
  return true;
}

}  // namespace frfcam
