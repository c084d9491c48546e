// ComputeStability: the whole modal stability analysis of one call, from
// the caller's arrays to the record file.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace frfcam::stability {

// The arguments of the export, as the caller passed them. Complex arrays are
// interleaved (re, im); `frfMatrix` is column-major, line i of channel j at
// complex index i + j * numLines. `frequencies` are angular (rad/s).
struct StabilityRequest {
  const char* outputPath = nullptr;
  const double* frf = nullptr;
  const double* frfMatrix = nullptr;
  int numChannels = 0;
  const double* frequencies = nullptr;
  int numLines = 0;
  int minOrder = 0;
  int maxOrder = 0;
  double selectionTolerance = 0.0;
  int minStableCount = 0;
  double frequencyTolerance = 0.0;
  double dampingTolerance = 0.0;
  bool estimatorFlag1 = false;
  bool estimatorFlag2 = false;
};

// Result codes; the public header documents them as FRFCAM_STABILITY_*.
enum StabilityStatus : int {
  kStabilityOk = 0,
  kStabilityNullArgument = -1,
  kStabilityTooFewLines = -2,
  kStabilityNoChannels = -3,
  kStabilityBadMinOrder = -4,
  kStabilityBadOrderRange = -5,
  kStabilityOrderTooHigh = -6,  // no longer returned; the code stays reserved
  kStabilityBadFrequencies = -7,
  kStabilityBadFrf = -8,
  kStabilityOutOfMemory = -9,
  kStabilityFailed = -10,
};

// Where the time of one call went (the span of the timing line, split).
struct StageTimes {
  std::chrono::nanoseconds estimation{0};
  std::chrono::nanoseconds selection{0};
  std::chrono::nanoseconds residues{0};
  std::chrono::nanoseconds record{0};
  std::chrono::nanoseconds writing{0};
  std::chrono::nanoseconds total{0};
};

// The checks made before any work; kStabilityOk when the request can run.
StabilityStatus ValidateRequest(const StabilityRequest& request);

// minOrder, minOrder + 1, ..., maxOrder (empty when maxOrder < minOrder).
std::vector<std::int32_t> OrderList(std::int32_t minOrder, std::int32_t maxOrder);

// Validates, estimates every order, fills the record, selects the stable
// poles and fits their residues (when some order had a stable pole), writes
// the record to `outputPath` (replacing the file) and prints the timing line.
// An unwritable path (one that is not, or cannot become, a regular file)
// gives "Failed to write address book." on stderr and still kStabilityOk.
// Non-finite values of `frf` are accepted (those lines take no part in the
// fits of `frf`); orders the lines cannot determine get no poles. Invalid requests return their
// code having written and printed nothing. Exceptions propagate; the export maps them.
int ComputeStability(const StabilityRequest& request, StageTimes* times = nullptr);

}  // namespace frfcam::stability
