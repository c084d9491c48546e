#include "cube_state.h"

#include <algorithm>
#include <cmath>
#include <vector>

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

bool ReadCubeMeanMagnitude(const std::string& header_path, const frfmap::CaptureHeader& header,
                           std::uint32_t x0, std::uint32_t y0, std::uint32_t x1, std::uint32_t y1,
                           unsigned side, const std::complex<double>* divide_by, double* out,
                           unsigned* pixels, std::string* error) {
  if (x0 >= x1 || y0 >= y1 || x1 > header.width() || y1 > header.height() || side == 0) {
    *error = "the rectangle is empty or not within the image";
    return false;
  }
  const frfmap::CubeLayout layout = LayoutOf(header);
  // Evenly spread samples; a row's span is read in one go, which costs less
  // than a read per sample even when most of it is skipped.
  const std::uint32_t sx = (x1 - x0 + side - 1) / side, sy = (y1 - y0 + side - 1) / side;
  std::vector<std::uint32_t> rows;
  for (std::uint32_t y = y0 + (y1 - y0 - 1) % sy / 2; y < y1; y += sy) rows.push_back(y);
  const std::uint32_t first = x0 + (x1 - x0 - 1) % sx / 2;
  const std::uint32_t columns = (x1 - first + sx - 1) / sx;
  const std::uint32_t span = (columns - 1) * sx + 1;
  std::vector<std::complex<float>> row(span);
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
    double sum = 0.0;
    for (const std::uint32_t y : rows) {
      const std::uint64_t offset =
          at.offset +
          (static_cast<std::uint64_t>(y) * header.width() + first) * frfmap::kSpectrumValueBytes;
      const std::size_t bytes = span * sizeof(row[0]);
      if (f.ReadAt(offset, row.data(), bytes) != bytes) {
        *error = path + ": bin " + std::to_string(bin) + " is cut short; render the capture again";
        return false;
      }
      for (std::uint32_t i = 0; i < span; i += sx) sum += std::abs(row[i]);
    }
    double mean = sum / (static_cast<double>(rows.size()) * columns);
    if (divide_by != nullptr) mean /= std::abs(divide_by[bin]);
    out[bin] = mean;
  }
  *pixels = static_cast<unsigned>(rows.size() * columns);
  return true;
}

}  // namespace frfcam
