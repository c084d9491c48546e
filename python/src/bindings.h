// The parts of the native module, one registration function per area.
#pragma once

#include <pybind11/pybind11.h>

namespace frfcam::python {

void BindCube(pybind11::module_& m);       // Cube, spectrum_of
void BindStability(pybind11::module_& m);  // compute_stability, read_record
void BindFormats(pybind11::module_& m);    // read_uff58, write_uff58, read_reference, delete_cube
void BindModes(pybind11::module_& m);      // compute_modes
void BindImport(pybind11::module_& m);     // import_video, capture_of_source, is_source

}  // namespace frfcam::python
