// Filling the stabChartData record from the stages of one computation.
#pragma once

#include <cstdint>
#include <vector>

#include "stability/estimator.h"
#include "stability/residues.h"
#include "stability/selection.h"
#include "talproto.pb.h"

namespace frfcam::stability {

// numOrders, eigenFrequency, dampingFactor, frfnum and one orderInfo entry per
// classified order. The lowest order only seeds the classification, so entry
// k carries order_num orders[1] + k; `orders` needs at least two entries
// (std::invalid_argument otherwise).
void FillChart(const std::vector<std::int32_t>& orders, const EstimationResult& estimation,
               talproto::stabChartData* record);

// selected_poles, selected_dampingfactor, residues, both residual terms and
// frfm.
void FillModalFit(const SelectedPoles& selection, const ResidueFit& fit,
                  talproto::stabChartData* record);

}  // namespace frfcam::stability
