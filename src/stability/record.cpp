#include "stability/record.h"

#include <stdexcept>

namespace frfcam::stability {

namespace {

void Append(const RealVector& values, google::protobuf::RepeatedField<double>* field) {
  field->Reserve(field->size() + static_cast<int>(values.size()));
  for (Eigen::Index i = 0; i < values.size(); ++i) field->Add(values[i]);
}

void Set(std::complex<double> value, talproto::complex* out) {
  out->set_re(value.real());
  out->set_im(value.imag());
}

void Append(const ComplexVector& values,
            google::protobuf::RepeatedPtrField<talproto::complex>* field) {
  field->Reserve(field->size() + static_cast<int>(values.size()));
  for (Eigen::Index i = 0; i < values.size(); ++i) Set(values[i], field->Add());
}

}  // namespace

void FillChart(const std::vector<std::int32_t>& orders, const EstimationResult& estimation,
               talproto::stabChartData* record) {
  if (orders.size() < 2) {
    throw std::invalid_argument("stability record: the order range needs two orders");
  }
  const std::size_t classified = estimation.sByOrder.size();
  if (estimation.fByOrder.size() != classified || estimation.dByOrder.size() != classified ||
      estimation.oByOrder.size() != classified) {
    throw std::invalid_argument("stability record: class lists differ in length");
  }
  record->set_numorders(static_cast<std::uint32_t>(orders.size()));
  Append(estimation.eigenFrequency, record->mutable_eigenfrequency());
  Append(estimation.dampingFactor, record->mutable_dampingfactor());
  Append(estimation.frfNum, record->mutable_frfnum());
  record->mutable_orderinfo()->Reserve(static_cast<int>(classified));
  for (std::size_t k = 0; k < classified; ++k) {
    talproto::order_info* info = record->add_orderinfo();
    Append(estimation.sByOrder[k], info->mutable_s());
    Append(estimation.fByOrder[k], info->mutable_f());
    Append(estimation.dByOrder[k], info->mutable_d());
    Append(estimation.oByOrder[k], info->mutable_o());
    info->set_order_num(static_cast<std::uint32_t>(orders[1]) + static_cast<std::uint32_t>(k));
  }
}

void FillModalFit(const SelectedPoles& selection, const ResidueFit& fit,
                  talproto::stabChartData* record) {
  Append(selection.frequency, record->mutable_selected_poles());
  Append(selection.damping, record->mutable_selected_dampingfactor());
  Append(fit.residues, record->mutable_residues());
  Set(fit.lowerResidual, record->mutable_lower_residual());
  Set(fit.upperResidual, record->mutable_upper_residual());
  Append(fit.synthesised, record->mutable_frfm());
}

}  // namespace frfcam::stability
