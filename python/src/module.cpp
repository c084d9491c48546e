// The native half of the frfcam Python package. The Python half (frfcam/)
// gives it its public shape; everything here is internal (`frfcam._native`).
#include <pybind11/pybind11.h>

#include "bindings.h"
#include "errors.h"
#include "platform/platform.h"

namespace frfcam::python {

void RegisterErrors(pybind11::module_& m) {
  (void)m;
  pybind11::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const NotFound& e) {
      PyErr_SetString(PyExc_FileNotFoundError, e.what());
    }
  });
}

void RequireExists(const std::string& path, const char* what) {
  std::error_code ec;
  if (!std::filesystem::exists(platform::PathFromUtf8(path), ec)) {
    throw NotFound(std::string(what) + " " + path + ": no such file");
  }
}

}  // namespace frfcam::python

PYBIND11_MODULE(_native, m) {
  m.doc() = "Native part of the frfcam package (use the frfcam module itself).";
  frfcam::python::RegisterErrors(m);
  frfcam::python::BindCube(m);
  frfcam::python::BindStability(m);
  frfcam::python::BindFormats(m);
  frfcam::python::BindModes(m);
  frfcam::python::BindImport(m);
}
