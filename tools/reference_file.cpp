#include "reference_file.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "command_error.h"
#include "text_table.h"

namespace frfcam::cli {

std::vector<float> ReadReference(const std::string& path, double* fpsFromTimes) {
  std::unique_ptr<TextTableReader> reader;
  try {
    reader = std::make_unique<TextTableReader>(path);
  } catch (const TextTableError&) {
    throw TextTableError("cannot read reference file " + path);
  }
  std::vector<float> values;
  std::vector<double> row;
  double firstTime = 0, lastTime = 0;
  bool times = false;
  while (reader->Next(&row)) {
    if (values.empty()) {
      if (row.size() > 2) {
        throw TextTableError(reader->Where() + std::to_string(row.size()) +
                             " values; expected one value a line, or a time and a value");
      }
      times = row.size() == 2;
      firstTime = row[0];
    } else if (times && !(row[0] > lastTime)) {
      char text[80];
      std::snprintf(text, sizeof text, "the time does not increase (%.9g after %.9g)", row[0],
                    lastTime);
      // Whole-number "times" that fall back are most likely the integer parts
      // of one column written with decimal commas, 0,25 read as 0 and 25.
      const bool wholeNumbers = row[0] == std::floor(row[0]) && lastTime == std::floor(lastTime);
      throw TextTableError(
          reader->Where() + text +
          (wholeNumbers ? "; one value a line with decimal commas? Write points" : ""));
    }
    lastTime = row[0];
    const float value = static_cast<float>(row.back());
    if (!std::isfinite(value)) {
      throw TextTableError(reader->Where() + "the value is too large for a float");
    }
    values.push_back(value);
  }
  if (values.empty()) throw TextTableError(path + ": no values");
  if (fpsFromTimes != nullptr) {
    *fpsFromTimes = times && values.size() > 1
                        ? static_cast<double>(values.size() - 1) / (lastTime - firstTime)
                        : 0.0;
  }
  return values;
}

void WarnIfReferenceRateDiffers(const std::string& path, double fpsFromTimes, double fps,
                                const char* source) {
  if (!(fpsFromTimes > 0) || !(fps > 0)) return;
  if (std::abs(fpsFromTimes - fps) <= 1e-3 * fps) return;
  std::fprintf(stderr,
               "frfcam: warning: the times of %s give %.6g samples/s, %s %.6g frames/s; "
               "the reference is taken one value per frame\n",
               path.c_str(), fpsFromTimes, source, fps);
}

std::vector<float> ReadCaptureReference(const std::string& path, std::int64_t frames, double fps,
                                        const char* source) {
  double fpsFromTimes = 0;
  std::vector<float> reference = ReadReference(path, &fpsFromTimes);
  WarnIfReferenceRateDiffers(path, fpsFromTimes, fps, source);
  if (static_cast<std::int64_t>(reference.size()) != frames) {
    throw CommandError(path + ": " + std::to_string(reference.size()) +
                       " samples, but the capture has " + std::to_string(frames) +
                       " frames (one per frame is needed)");
  }
  if (std::all_of(reference.begin(), reference.end(), [](float v) { return v == 0.0f; })) {
    throw CommandError(path + ": every sample is zero; a reference divides the spectra");
  }
  return reference;
}

}  // namespace frfcam::cli
