#include "stability/driver.h"

#include <cmath>
#include <fstream>
#include <iostream>

#include "platform/platform.h"
#include "stability/estimator.h"
#include "stability/record.h"
#include "stability/residues.h"
#include "stability/selection.h"
#include "talproto.pb.h"

namespace frfcam::stability {

namespace {

using Clock = std::chrono::steady_clock;

bool AllFinite(const double* values, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i) {
    if (!std::isfinite(values[i])) return false;
  }
  return true;
}

RealVector CopyReal(const double* values, Eigen::Index count) {
  return Eigen::Map<const RealVector>(values, count);
}

ComplexVector CopyComplex(const double* interleaved, Eigen::Index count) {
  return Eigen::Map<const ComplexVector>(reinterpret_cast<const std::complex<double>*>(interleaved),
                                         count);
}

ComplexMatrix CopyComplexMatrix(const double* interleaved, Eigen::Index rows, Eigen::Index cols) {
  return Eigen::Map<const ComplexMatrix>(reinterpret_cast<const std::complex<double>*>(interleaved),
                                         rows, cols);
}

// Writes the record; false when the file could not be opened, written or
// closed (a full disk shows up only when the buffer is flushed).
bool WriteRecord(const talproto::stabChartData& record, const char* path) {
  std::ofstream out(platform::PathFromUtf8(path),
                    std::ios::binary | std::ios::out | std::ios::trunc);
  if (!out.is_open()) return false;
  const bool written = record.SerializeToOstream(&out);
  out.close();
  return written && !out.fail();
}

}  // namespace

StabilityStatus ValidateRequest(const StabilityRequest& r) {
  if (r.outputPath == nullptr) return kStabilityNullArgument;
  if (r.numLines > 0 && (r.frf == nullptr || r.frequencies == nullptr)) {
    return kStabilityNullArgument;
  }
  if (r.numLines > 0 && r.numChannels > 0 && r.frfMatrix == nullptr) return kStabilityNullArgument;
  if (r.numLines < 2) return kStabilityTooFewLines;
  if (r.numChannels < 1) return kStabilityNoChannels;
  if (r.minOrder < 1) return kStabilityBadMinOrder;
  // 64-bit so that orders near INT_MAX cannot wrap.
  const std::int64_t minOrder = r.minOrder;
  const std::int64_t maxOrder = r.maxOrder;
  if (maxOrder < minOrder + 1) return kStabilityBadOrderRange;
  if (static_cast<std::int64_t>(r.numLines) <= maxOrder + 1) return kStabilityOrderTooHigh;

  if (!AllFinite(r.frequencies, r.numLines)) return kStabilityBadFrequencies;
  bool allEqual = true;
  for (int i = 1; i < r.numLines && allEqual; ++i) allEqual = r.frequencies[i] == r.frequencies[0];
  if (allEqual) return kStabilityBadFrequencies;

  const std::int64_t matrixDoubles = 2 * static_cast<std::int64_t>(r.numLines) * r.numChannels;
  if (!AllFinite(r.frf, 2 * static_cast<std::int64_t>(r.numLines)) ||
      !AllFinite(r.frfMatrix, matrixDoubles)) {
    return kStabilityBadFrf;
  }
  return kStabilityOk;
}

std::vector<std::int32_t> OrderList(std::int32_t minOrder, std::int32_t maxOrder) {
  std::vector<std::int32_t> orders;
  for (std::int64_t n = minOrder; n <= maxOrder; ++n)
    orders.push_back(static_cast<std::int32_t>(n));
  return orders;
}

int ComputeStability(const StabilityRequest& request, StageTimes* times) {
  const StabilityStatus status = ValidateRequest(request);
  if (status != kStabilityOk) return status;

  const Eigen::Index lines = request.numLines;
  const RealVector frequencyVector = CopyReal(request.frequencies, lines);
  const ComplexVector frfVector = CopyComplex(request.frf, lines);
  const ComplexMatrix frfMatrixCopy =
      CopyComplexMatrix(request.frfMatrix, lines, request.numChannels);
  const std::vector<std::int32_t> orders = OrderList(request.minOrder, request.maxOrder);

  StageTimes local;
  StageTimes& t = times != nullptr ? *times : local;
  t = StageTimes{};
  const auto start = Clock::now();
  auto mark = start;
  auto lap = [&mark](std::chrono::nanoseconds& into) {
    const auto now = Clock::now();
    into += now - mark;
    mark = now;
  };

  const EstimationResult estimation =
      Estimate(frequencyVector, frfVector, frfMatrixCopy, orders, request.frequencyTolerance,
               request.dampingTolerance, request.estimatorFlag1, request.estimatorFlag2);
  lap(t.estimation);

  talproto::stabChartData record;
  FillChart(orders, estimation, &record);
  lap(t.record);

  if (!estimation.poleFrequencyByOrder.empty()) {
    const SelectedPoles selection =
        SelectStablePoles(estimation.poleFrequencyByOrder, estimation.poleDampingByOrder,
                          request.selectionTolerance, request.minStableCount);
    lap(t.selection);
    const ResidueFit fit =
        FitResidues(frequencyVector, frfVector, selection.frequency, selection.damping);
    lap(t.residues);
    FillModalFit(selection, fit, &record);
    lap(t.record);
  }

  if (!WriteRecord(record, request.outputPath)) {
    std::cerr << "Failed to write address book." << std::endl;
  }
  lap(t.writing);
  t.total = mark - start;

  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.total).count();
  std::cout << "took " << ms << "ms to run.\n" << std::flush;
  return kStabilityOk;
}

}  // namespace frfcam::stability
