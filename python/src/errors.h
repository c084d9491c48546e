// How the native module reports failures to Python: every failure is a C++
// exception that pybind11 turns into the matching Python exception.
//   NotFound              -> FileNotFoundError
//   std::invalid_argument -> ValueError  (pybind11's own translation)
//   std::runtime_error    -> RuntimeError
#pragma once

#include <pybind11/pybind11.h>

#include <stdexcept>
#include <string>

namespace frfcam::python {

// A file the call needs does not exist.
struct NotFound : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Installs the translation of NotFound; called once when the module loads.
void RegisterErrors(pybind11::module_& m);

// Raises NotFound for `path` when nothing exists there, naming `what` it was
// meant to be.
void RequireExists(const std::string& path, const char* what);

}  // namespace frfcam::python
