// The modal stability analysis export.
#include "api/guard.h"
#include "frfcam/frfcam.h"
#include "stability/driver.h"

using frfcam::api::Guard;
namespace stability = frfcam::stability;

extern "C" {

FRFCAM_API int ComputeStability(const char* outputPath, const double* frf, const double* frfMatrix,
                                int numChannels, const double* frequencies, int numLines,
                                int minOrder, int maxOrder, double selectionTolerance,
                                int minStableCount, double frequencyTolerance,
                                double dampingTolerance, unsigned char estimatorFlag1,
                                unsigned char estimatorFlag2) {
  stability::StabilityRequest request;
  request.outputPath = outputPath;
  request.frf = frf;
  request.frfMatrix = frfMatrix;
  request.numChannels = numChannels;
  request.frequencies = frequencies;
  request.numLines = numLines;
  request.minOrder = minOrder;
  request.maxOrder = maxOrder;
  request.selectionTolerance = selectionTolerance;
  request.minStableCount = minStableCount;
  request.frequencyTolerance = frequencyTolerance;
  request.dampingTolerance = dampingTolerance;
  request.estimatorFlag1 = estimatorFlag1 != 0;
  request.estimatorFlag2 = estimatorFlag2 != 0;
  return Guard([&] { return stability::ComputeStability(request); },
               static_cast<int>(stability::kStabilityOutOfMemory),
               static_cast<int>(stability::kStabilityFailed));
}

}  // extern "C"
