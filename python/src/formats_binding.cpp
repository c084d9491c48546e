// The file formats of the field in the native module.
#include <pybind11/pybind11.h>

#include "bindings.h"

namespace py = pybind11;

namespace frfcam::python {

void BindFormats(py::module_& m) { (void)m; }

}  // namespace frfcam::python
