#include "frfmap/frf_map_calcs.h"

namespace frfcam::frfmap {

FrfMapCalcs::FrfMapCalcs(std::string name) : name_(std::move(name)) {}

FrfMapCalcs::~FrfMapCalcs() = default;

}  // namespace frfcam::frfmap
