#include "frfmap/cube_check.h"

#include <algorithm>
#include <cstdint>

#include "frfmap/cube_files.h"
#include "frfmap/cube_record.h"
#include "frfmap/layout.h"
#include "frfmap/naming.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

CubeState CheckCube(const std::string& header_path, const CaptureHeader& header, std::string* why) {
  const auto say = [&](CubeState state, const std::string& text) {
    if (why != nullptr) *why = header_path + ": " + text;
    return state;
  };
  const std::int32_t frames = header.frame_count();
  if (frames < 1 || header.pixels() == 0) {
    return say(CubeState::kNoCube, "this capture has no cube (no frames or no pixels)");
  }
  const auto bins = static_cast<std::uint32_t>(frames / 2 + 1);
  const CubeLayout layout = CubeLayout::For(header.pixels(), bins);
  const unsigned files = layout.FileCount();
  if (files == 0 || files > kMaxFileNumber) {
    return say(CubeState::kTooLarge, "the image is too large for cube files");
  }
  // The record says whether the last render finished; the sizes below catch
  // cube files cut short since.
  CubeRecord record;
  switch (ReadCubeRecord(header_path, &record)) {
    case RecordState::kAbsent:
      return say(CubeState::kNotRendered, "the capture has not been rendered; render it first");
    case RecordState::kInvalid:
      return say(CubeState::kDamaged, "the cube's completion record is damaged; render it again");
    case RecordState::kValid:
      break;
  }
  if (record.width != header.width() || record.height != header.height() || record.bins != bins) {
    return say(CubeState::kOtherSize,
               "the cube was rendered for another capture size; render it again");
  }
  if (!record.complete) {
    return say(CubeState::kUnfinished,
               "the cube is incomplete (" + std::to_string(record.rows) + " of " +
                   std::to_string(header.height()) +
                   " rows: a render is running, was cancelled or failed); render it again");
  }
  for (unsigned n = 1; n <= files; ++n) {
    const std::uint32_t planes =
        std::min(layout.bins_per_file, bins - (n - 1) * layout.bins_per_file);
    const std::uint64_t need = std::uint64_t{planes} * layout.plane_bytes;
    const std::string path = DataFilePath(header_path, DataFile::kCube, n);
    std::uint64_t size = 0;
    if (!platform::FileSize(path, &size)) {
      return say(CubeState::kNotRendered,
                 "the capture has not been rendered (" + path + " is missing); render it first");
    }
    if (size < need) {
      return say(CubeState::kFileTooShort,
                 "the cube is incomplete (" + path + " is too short: " + std::to_string(size) +
                     " of " + std::to_string(need) + " bytes); render the capture again");
    }
  }
  return CubeState::kReady;
}

bool CubeIsComplete(const std::string& header_path) {
  CaptureHeader header;
  return header.Load(header_path) && CheckCube(header_path, header) == CubeState::kReady;
}

const char* CubeStateName(CubeState state) {
  switch (state) {
    case CubeState::kReady:
      return "complete";
    case CubeState::kNoCube:
      return "no frames or no pixels";
    case CubeState::kNotRendered:
      return "not rendered";
    case CubeState::kDamaged:
      return "its completion record is damaged";
    case CubeState::kOtherSize:
      return "rendered for another size";
    case CubeState::kUnfinished:
      return "its last render did not finish";
    case CubeState::kFileTooShort:
      return "a cube file is too short";
    case CubeState::kTooLarge:
      return "too large for cube files";
  }
  return "unknown";
}

}  // namespace frfcam::frfmap
