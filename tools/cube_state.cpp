#include "cube_state.h"

#include <algorithm>

#include "frfmap/cube_record.h"
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

bool CubeComplete(const std::string& header_path, const frfmap::CaptureHeader& header,
                  std::string* why) {
  const frfmap::CubeLayout layout = LayoutOf(header);
  const unsigned files = layout.FileCount();
  if (files == 0 || files > frfmap::kMaxFileNumber) {
    if (why) *why = header_path + ": this capture has no cube (zero size or frames)";
    return false;
  }
  // The completion record says whether the last render finished; the sizes
  // below catch cube files cut short since.
  frfmap::CubeRecord record;
  switch (frfmap::ReadCubeRecord(header_path, &record)) {
    case frfmap::RecordState::kAbsent:
      if (why) *why = header_path + ": the capture has not been rendered; render it first";
      return false;
    case frfmap::RecordState::kInvalid:
      if (why) *why = header_path + ": the cube's completion record is damaged; render it again";
      return false;
    case frfmap::RecordState::kValid:
      break;
  }
  if (record.width != header.width() || record.height != header.height() ||
      record.bins != layout.bins) {
    if (why) {
      *why = header_path + ": the cube was rendered for another capture size; render it again";
    }
    return false;
  }
  if (!record.complete) {
    if (why) {
      *why = header_path + ": the cube is incomplete (" + std::to_string(record.rows) + " of " +
             std::to_string(header.height()) +
             " rows: a render is running, was cancelled or failed); render it again";
    }
    return false;
  }
  for (unsigned n = 1; n <= files; ++n) {
    const std::uint32_t first = (n - 1) * layout.bins_per_file;
    const std::uint32_t planes = std::min<std::uint32_t>(layout.bins_per_file, layout.bins - first);
    const std::uint64_t expected = static_cast<std::uint64_t>(planes) * layout.plane_bytes;
    std::uint64_t size = 0;
    const std::string path = CubePath(header_path, n);
    if (!platform::FileSize(path, &size)) {
      if (why) {
        *why = header_path + ": the capture has not been rendered (" + path +
               " is missing); render it first";
      }
      return false;
    }
    if (size < expected) {
      if (why) {
        *why = header_path + ": the cube is incomplete (" + path + " holds " +
               std::to_string(size) + " of " + std::to_string(expected) +
               " bytes); render the capture again";
      }
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
