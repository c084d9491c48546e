#include "stability_analysis.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "stability/driver.h"
#include "stability/lscf.h"
#include "stability/record.h"

namespace frfcam {

std::string CheckAnalysis(const AnalysisRequest& r) {
  if (r.frfs.cols() > 0 && (r.referenceChannel < 0 || r.referenceChannel >= r.frfs.cols())) {
    return "reference channel " + std::to_string(r.referenceChannel + 1) + ": there are " +
           std::to_string(r.frfs.cols()) + " channel(s)";
  }
  const stability::ComplexVector reference =
      r.frfs.cols() > 0 ? stability::ComplexVector(r.frfs.col(r.referenceChannel))
                        : stability::ComplexVector(r.frfs.rows());
  const stability::SelectionSettings& s = r.settings;
  if (!(s.selectionTolerance > 0) || !(s.frequencyTolerance >= 0) || !(s.dampingTolerance >= 0)) {
    return "the tolerances must be positive numbers";
  }
  if (s.minStableCount < 1) return "the minimum stable count must be at least 1";
  if (r.significanceFilter && (!(s.maxDamping > 0) || !(s.minSignificance >= 0))) {
    return "the significance filter needs a positive maximum damping and a significance >= 0";
  }
  if (r.omega.size() != r.frfs.rows()) {
    return "the frequencies (" + std::to_string(r.omega.size()) + ") and the FRF lines (" +
           std::to_string(r.frfs.rows()) + ") differ in number";
  }
  stability::StabilityRequest q;
  q.outputPath = "";
  q.frf = reinterpret_cast<const double*>(reference.data());
  q.frfMatrix = reinterpret_cast<const double*>(r.frfs.data());
  q.numChannels = static_cast<int>(r.frfs.cols());
  q.frequencies = r.omega.data();
  q.numLines = r.omega.size() > 0x7fffffff ? 0x7fffffff : static_cast<int>(r.omega.size());
  q.minOrder = s.minOrder;
  q.maxOrder = s.maxOrder;
  const std::string orders = std::to_string(s.minOrder) + ":" + std::to_string(s.maxOrder);
  switch (stability::ValidateRequest(q)) {
    case stability::kStabilityOk:
      return "";
    case stability::kStabilityTooFewLines:
      return "the FRFs need at least 2 lines";
    case stability::kStabilityNoChannels:
      return "there is no FRF channel";
    case stability::kStabilityBadMinOrder:
      return "orders " + orders + ": the lowest order must be at least 1";
    case stability::kStabilityBadOrderRange:
      return "orders " + orders + ": give at least two orders (LOW:HIGH with HIGH > LOW)";
    case stability::kStabilityOrderTooHigh:
      return "orders " + orders +
             ": the highest order needs more lines than order + 1; there are " +
             std::to_string(r.omega.size());
    case stability::kStabilityBadFrequencies:
      return "the frequencies are not finite, or all equal";
    case stability::kStabilityBadFrf:
      return "an FRF value is not finite";
    default:
      return "the request cannot run";
  }
}

long LinesNeededForOrder(int order, long channels) {
  const std::int64_t n = std::max(order, 1), c = std::max(channels, 1L);
  // C (2 L - 2 - n - 1) >= n  <=>  2 L >= 3 + n + ceil(n / C).
  const std::int64_t lines = (3 + n + (n + c - 1) / c + 1) / 2;
  return static_cast<long>(std::max<std::int64_t>(lines, 2));
}

std::string CheckLinesForOrders(const AnalysisRequest& r) {
  const long channels = static_cast<long>(r.frfs.cols()) + (r.flag2 ? 1 : 0);
  const int lowest = r.settings.minOrder;
  const stability::lscf::Band band = stability::lscf::BandOf(r.omega);
  if (stability::lscf::HighestDeterminedOrder(r.omega, band, nullptr, channels) >= lowest) {
    return "";
  }
  std::vector<double> distinct(r.omega.data(), r.omega.data() + r.omega.size());
  std::sort(distinct.begin(), distinct.end());
  distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
  const std::string lines =
      std::to_string(r.omega.size()) + " spectral line(s)" +
      (distinct.size() != static_cast<std::size_t>(r.omega.size())
           ? " at " + std::to_string(distinct.size()) + " distinct frequencies"
           : "");
  return "too few lines for the orders " + std::to_string(lowest) + ":" +
         std::to_string(r.settings.maxOrder) + ": there are " + lines + ", and the lowest order, " +
         std::to_string(lowest) + ", needs at least " +
         std::to_string(LinesNeededForOrder(lowest, channels)) + " with " +
         std::to_string(channels) + " channel(s)";
}

Analysis RunAnalysis(const AnalysisRequest& r) {
  const std::string problem = CheckAnalysis(r);
  if (!problem.empty()) throw std::invalid_argument(problem);
  Analysis a;
  const stability::SelectionSettings& s = r.settings;
  a.orders = stability::OrderList(s.minOrder, s.maxOrder);
  const stability::ComplexVector reference = r.frfs.col(r.referenceChannel);
  a.estimation = stability::Estimate(r.omega, reference, r.frfs, a.orders, s.frequencyTolerance,
                                     s.dampingTolerance, r.flag1, r.flag2);
  stability::FillChart(a.orders, a.estimation, &a.record);
  if (!a.estimation.poleFrequencyByOrder.empty()) {
    const stability::SelectedPoles exact = stability::SelectStablePoles(
        a.estimation.poleFrequencyByOrder, a.estimation.poleDampingByOrder, s.selectionTolerance,
        s.minStableCount);
    a.candidates = static_cast<int>(exact.frequency.size());
    a.selection = r.significanceFilter
                      ? stability::FilterSignificantPoles(exact, r.omega, r.frfs, s, &a.verdicts)
                      : exact;
    a.fits.reserve(static_cast<std::size_t>(r.frfs.cols()));
    for (Eigen::Index c = 0; c < r.frfs.cols(); ++c) {
      a.fits.push_back(stability::FitResidues(r.omega, r.frfs.col(c), a.selection.frequency,
                                              a.selection.damping));
    }
    stability::FillModalFit(a.selection, a.fits[static_cast<std::size_t>(r.referenceChannel)],
                            &a.record);
  }
  return a;
}

}  // namespace frfcam
