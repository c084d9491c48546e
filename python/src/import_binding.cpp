// The import side of the native module: recordings into captures, and the
// capture kept beside a recording for direct use.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <array>
#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "bindings.h"
#include "camera/importer.h"
#include "errors.h"

namespace py = pybind11;

namespace frfcam::python {

namespace {

// Ctrl-C while the work runs without the interpreter: the progress callback
// (on this thread) looks at Python's signals and cancels the import.
struct Interruptible {
  std::atomic<bool> cancel{false};
  bool interrupted = false;
  void Wire(camera::ImportOptions* o) {
    o->cancel = &cancel;
    o->progress = [this](int) {
      py::gil_scoped_acquire gil;
      if (PyErr_CheckSignals() != 0) {
        PyErr_Clear();
        interrupted = true;
        cancel.store(true);
      }
    };
  }
};

void Fail(const Interruptible& guard, const std::string& error) {
  if (guard.interrupted) {
    PyErr_SetNone(PyExc_KeyboardInterrupt);
    throw py::error_already_set();
  }
  // What the caller gave that the source cannot meet is a ValueError; a
  // file that cannot be read is a RuntimeError.
  const bool value = error.find("give --fps") != std::string::npos ||
                     error.find("not within") != std::string::npos ||
                     error.find("--roi") != std::string::npos ||
                     error.find("--frames") != std::string::npos;
  if (value) throw std::invalid_argument(error);
  throw std::runtime_error(error);
}

py::dict ImportVideo(const std::string& source, const std::string& header, std::int64_t first,
                     std::int64_t last, std::optional<std::array<unsigned, 4>> roi, double fps,
                     int bits) {
  RequireExists(source, "recording");
  camera::ImportOptions o;
  o.firstFrame = first;
  o.lastFrame = last;
  if (roi) {
    o.roiX = (*roi)[0];
    o.roiY = (*roi)[1];
    o.roiWidth = (*roi)[2];
    o.roiHeight = (*roi)[3];
    if (o.roiWidth == 0 || o.roiHeight == 0) {
      throw std::invalid_argument("roi: width and height must be positive");
    }
  }
  o.fps = fps;
  o.bits = bits;
  Interruptible guard;
  guard.Wire(&o);
  std::string error;
  camera::ImportResult r;
  bool ok = false;
  {
    py::gil_scoped_release release;
    std::unique_ptr<camera::VideoSource> reader = camera::OpenSource(source, &error);
    ok = reader != nullptr && camera::Import(*reader, source, header, o, &r, &error);
  }
  if (!ok) Fail(guard, error);
  py::dict out;
  out["format"] = r.source.format;
  out["lossy"] = r.source.lossy;
  out["note"] = r.note;
  return out;
}

std::string CaptureOfSource(const std::string& source, const std::string& workDir) {
  RequireExists(source, "recording");
  camera::ImportOptions o;
  Interruptible guard;
  guard.Wire(&o);
  std::string header, error;
  bool imported = false, ok = false;
  {
    py::gil_scoped_release release;
    ok = camera::CaptureOfSource(source, workDir, o, &header, &imported, &error);
  }
  if (!ok) Fail(guard, error);
  return header;
}

}  // namespace

void BindImport(py::module_& m) {
  m.def("import_video", &ImportVideo, py::arg("source"), py::arg("header"), py::arg("first"),
        py::arg("last"), py::arg("roi"), py::arg("fps"), py::arg("bits"));
  m.def("capture_of_source", &CaptureOfSource, py::arg("source"), py::arg("work_dir"));
  m.def("is_source", &camera::IsSource, py::arg("path"));
}

}  // namespace frfcam::python
