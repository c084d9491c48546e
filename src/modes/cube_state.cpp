#include "modes/cube_state.h"

#include <algorithm>
#include <cstdint>

#include "frfmap/capture_header.h"
#include "frfmap/cube_files.h"
#include "frfmap/cube_record.h"
#include "frfmap/layout.h"
#include "frfmap/naming.h"
#include "platform/platform.h"

namespace frfcam::modes {

bool CubeIsComplete(const std::string& headerPath, std::string* why) {
  const auto say = [&](const std::string& text) {
    if (why != nullptr) *why = text;
    return false;
  };
  frfmap::CaptureHeader header;
  if (!header.Load(headerPath)) return say(headerPath + ": cannot read the capture header");
  const std::int32_t frames = header.frame_count();
  if (frames < 1 || header.pixels() == 0) return say(headerPath + ": the capture is empty");
  if (!frfmap::CubeIsComplete(headerPath)) {
    frfmap::CubeRecord record;
    switch (frfmap::ReadCubeRecord(headerPath, &record)) {
      case frfmap::RecordState::kAbsent:
        return say("the capture has no cube (or one without a completion record)");
      case frfmap::RecordState::kInvalid:
        return say("the cube's completion record is damaged");
      case frfmap::RecordState::kValid:
        return say(record.complete ? "the cube was rendered for other dimensions"
                                   : "the cube's last render did not finish");
    }
  }
  const auto bins = static_cast<std::uint32_t>(frames / 2 + 1);
  const frfmap::CubeLayout layout = frfmap::CubeLayout::For(header.pixels(), bins);
  const unsigned files = layout.FileCount();
  if (files == 0 || files > frfmap::kMaxFileNumber) {
    return say(headerPath + ": the image is too large for cube files");
  }
  for (unsigned n = 1; n <= files; ++n) {
    const std::uint32_t planes =
        std::min(layout.bins_per_file, bins - (n - 1) * layout.bins_per_file);
    const std::uint64_t need = std::uint64_t{planes} * layout.plane_bytes;
    const std::string path = frfmap::DataFilePath(headerPath, frfmap::DataFile::kCube, n);
    std::uint64_t size = 0;
    if (!platform::FileSize(path, &size)) return say(path + " is missing");
    if (size < need) {
      return say(path + " is too short (" + std::to_string(size) + " of " + std::to_string(need) +
                 " bytes)");
    }
  }
  return true;
}

}  // namespace frfcam::modes
