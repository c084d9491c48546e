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

// Reads of a cube's values bin by bin, opening each cube file as the bins
// reach it.
class BinReader {
 public:
  BinReader(const std::string& header_path, const frfmap::CubeLayout& layout)
      : header_path_(header_path), layout_(layout) {}

  // `size` bytes at byte `offset` of bin `bin`'s plane; false with a reason
  // in *error when the file cannot be opened or is cut short.
  bool Read(std::uint32_t bin, std::uint64_t offset, void* data, std::size_t size,
            std::string* error) {
    const frfmap::FileOffset at = layout_.Locate(bin);
    if (at.file != open_file_) {
      if (!f_.Open(CubePath(header_path_, at.file), platform::File::Mode::kRead)) {
        *error = CubePath(header_path_, at.file) + ": cannot be opened";
        return false;
      }
      open_file_ = at.file;
    }
    if (f_.ReadAt(at.offset + offset, data, size) != size) {
      *error = CubePath(header_path_, at.file) + ": bin " + std::to_string(bin) +
               " is cut short; render the capture again";
      return false;
    }
    return true;
  }

 private:
  const std::string& header_path_;
  const frfmap::CubeLayout& layout_;
  platform::File f_;
  unsigned open_file_ = 0;
};

}  // namespace

bool FrameDataPresent(const std::string& header_path, const frfmap::CaptureHeader& header,
                      std::string* missing) {
  std::vector<std::string> paths;
  if (header.single_file()) {
    paths.push_back(frfmap::DataFilePath(header_path, frfmap::DataFile::kSingle, 0));
  } else if (header.frames_per_division() > 0 && header.frame_count() > 0) {
    const std::uint64_t files =
        (static_cast<std::uint64_t>(header.frame_count()) + header.frames_per_division() - 1) /
        header.frames_per_division();
    for (std::uint64_t d = 1; d <= std::min<std::uint64_t>(files, frfmap::kMaxFileNumber); ++d) {
      paths.push_back(
          frfmap::DataFilePath(header_path, frfmap::DataFile::kDivision, static_cast<unsigned>(d)));
    }
  }
  for (const std::string& path : paths) {
    if (!platform::IsRegularFile(path)) {
      *missing = path;
      return false;
    }
  }
  return true;
}

bool ReadCubePlane(const std::string& header_path, const frfmap::CaptureHeader& header,
                   std::uint32_t bin, std::complex<float>* out, std::string* error) {
  const frfmap::CubeLayout layout = LayoutOf(header);
  if (layout.bins_per_file == 0 || bin >= layout.bins) {
    *error = "bin " + std::to_string(bin) + " is not in the cube";
    return false;
  }
  return BinReader(header_path, layout).Read(bin, 0, out, layout.plane_bytes, error);
}

bool ReadCubeSpectrum(const std::string& header_path, const frfmap::CaptureHeader& header,
                      std::uint32_t x, std::uint32_t y, std::complex<float>* out,
                      std::string* error) {
  const frfmap::CubeLayout layout = LayoutOf(header);
  const std::uint64_t pixel =
      (static_cast<std::uint64_t>(y) * header.width() + x) * frfmap::kSpectrumValueBytes;
  BinReader reader(header_path, layout);
  for (std::uint32_t bin = 0; bin < layout.bins; ++bin) {
    if (!reader.Read(bin, pixel, &out[bin], sizeof(out[bin]), error)) return false;
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
  BinReader reader(header_path, layout);
  for (std::uint32_t bin = 0; bin < layout.bins; ++bin) {
    double sum = 0.0;
    for (const std::uint32_t y : rows) {
      const std::uint64_t offset =
          (static_cast<std::uint64_t>(y) * header.width() + first) * frfmap::kSpectrumValueBytes;
      if (!reader.Read(bin, offset, row.data(), span * sizeof(row[0]), error)) return false;
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
