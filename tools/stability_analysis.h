// The modal analysis as the command line and the Python package run it: the
// stages of ComputeStability called one by one, so that residues are fitted
// to every channel (the mode shapes), not only to the reference channel, and
// the modes are chosen by the exact stable-pole rule followed by the
// significance filter (stability/significance.h). With the filter off, the
// record it fills is the one ComputeStability writes for the same request.
#pragma once

#include <string>
#include <vector>

#include "stability/estimator.h"
#include "stability/residues.h"
#include "stability/selection.h"
#include "stability/significance.h"
#include "talproto.pb.h"

namespace frfcam {

// Defaults are those of stability::SelectionSettings.
struct AnalysisRequest {
  stability::RealVector omega;    // rad/s, one per line
  stability::ComplexMatrix frfs;  // lines x channels
  int referenceChannel = 0;       // 0-based: its fit goes into the record
  stability::SelectionSettings settings;
  bool significanceFilter = true;  // false: the exact rule alone, as the export
  bool flag1 = false;
  bool flag2 = false;
};

struct Analysis {
  std::vector<std::int32_t> orders;  // minOrder .. maxOrder
  stability::EstimationResult estimation;
  stability::SelectedPoles selection;            // empty when no order had an s pole
  int candidates = 0;                            // poles of the exact rule
  std::vector<stability::PoleVerdict> verdicts;  // the filter's, per candidate
  std::vector<stability::ResidueFit> fits;       // one per channel (empty as above)
  talproto::stabChartData record;
};

// Checks the request as ComputeStability does; "" when it can run, else a
// one-line reason in the words of the options (--orders and so on).
std::string CheckAnalysis(const AnalysisRequest& request);

// The fewest distinct spectral lines with which the estimator determines
// the fit of `order` for `channels` channels: with D real equations per
// channel (2 per line inside the band, 1 at each end, so 2 L - 2 for L
// lines) order n is determined when C (D - n - 1) >= n.
long LinesNeededForOrder(int order, long channels);

// "" when the lines of the request determine its lowest order; otherwise
// a one-line reason with how many lines there are and how many that order
// needs (the estimator would leave every order without poles).
std::string CheckLinesForOrders(const AnalysisRequest& request);

// Runs estimation, selection and the residue fits, and fills the record.
// Throws std::invalid_argument with CheckAnalysis's reason for a request
// that cannot run; std::bad_alloc when memory runs out.
Analysis RunAnalysis(const AnalysisRequest& request);

}  // namespace frfcam
