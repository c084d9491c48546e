// The C handle: an opaque struct that holds the C++ object.
#pragma once

#include "frfcam/frfcam.h"
#include "frfmap/frf_map_calcs.h"

struct FrfMapCalcs {
  explicit FrfMapCalcs(std::string name) : calcs(std::move(name)) {}
  frfcam::frfmap::FrfMapCalcs calcs;
};
