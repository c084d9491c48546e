// The cube side of the native module: one FrfMapCalcs per Python Cube, the
// render on a worker thread so that Ctrl-C and the progress callable are
// served on the calling thread, and planes and spectra read straight from the
// cube files.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <chrono>
#include <complex>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bindings.h"
#include "cube_state.h"
#include "errors.h"
#include "frfmap/capture_header.h"
#include "frfmap/cube_check.h"
#include "frfmap/fft.h"
#include "frfmap/frf_map_calcs.h"

namespace py = pybind11;

namespace frfcam::python {

namespace {

using Complex64 = std::complex<float>;

// Raised by render after a cancel() from another thread.
PyObject* g_render_cancelled = nullptr;

class NativeCube {
 public:
  NativeCube(const std::string& header_path, const std::string& name)
      : header_path_(header_path), calcs_(name) {
    RequireExists(header_path, "capture header");
    if (!header_.Load(header_path)) {
      throw std::invalid_argument(header_path + ": not a capture header (shorter than " +
                                  std::to_string(frfmap::format::kHeaderSize) + " bytes)");
    }
    Open();
  }

  unsigned width() const { return header_.width(); }
  unsigned height() const { return header_.height(); }
  unsigned bins() const { return bins_; }
  int frames() const { return header_.frame_count(); }
  double header_fps() const { return header_.float_field(); }
  const std::string& header_path() const { return header_path_; }

  // Renders on a worker thread; this thread waits with the GIL released and
  // wakes for each new percentage and every 50 ms to look for Ctrl-C.
  void Render(const py::object& progress) {
    if (!fresh_) Open();  // every render needs an opening of its own
    fresh_ = false;

    struct Shared {
      std::mutex mutex;
      std::condition_variable changed;
      int percent = -1;
      bool done = false;
      int result = frfmap::kRenderNoMemory;
      std::exception_ptr failure;
    } shared;

    std::thread worker([this, &shared] {
      int result = frfmap::kRenderNoMemory;
      std::exception_ptr failure;
      try {
        result = calcs_.RenderCube([&shared](int percent) {
          // 100 waits for the render's return: the library counts a block
          // when transformed, and its last writes can still fail.
          {
            std::lock_guard<std::mutex> lock(shared.mutex);
            shared.percent = std::min(percent, 99);
          }
          shared.changed.notify_one();
        });
      } catch (...) {
        failure = std::current_exception();
      }
      {
        std::lock_guard<std::mutex> lock(shared.mutex);
        shared.result = result;
        shared.failure = failure;
        if (result == frfmap::kRenderOk && !failure) shared.percent = 100;
        shared.done = true;
      }
      shared.changed.notify_one();
    });

    // The first Python error (from the callable or a signal handler) cancels
    // the render and is raised once the worker has stopped.
    std::optional<py::error_already_set> raised;
    int delivered = -1;
    for (;;) {
      int percent = -1;
      bool done = false;
      {
        py::gil_scoped_release release;
        std::unique_lock<std::mutex> lock(shared.mutex);
        shared.changed.wait_for(lock, std::chrono::milliseconds(50),
                                [&] { return shared.done || shared.percent != delivered; });
        percent = shared.percent;
        done = shared.done;
      }
      if (!raised && percent != delivered && !progress.is_none()) {
        try {
          progress(percent);
        } catch (py::error_already_set& e) {
          raised.emplace(std::move(e));
          calcs_.CancelRender();
        }
      }
      delivered = percent;
      if (!raised && PyErr_CheckSignals() != 0) {
        raised.emplace();  // takes the pending KeyboardInterrupt (or other)
        calcs_.CancelRender();
      }
      if (done) break;
    }
    {
      py::gil_scoped_release release;
      worker.join();
    }
    if (raised) throw std::move(*raised);
    if (shared.failure) std::rethrow_exception(shared.failure);
    switch (shared.result) {
      case frfmap::kRenderOk:
        return;
      case frfmap::kRenderCancelled:
        PyErr_SetString(g_render_cancelled, "the render was cancelled; the cube is incomplete");
        throw py::error_already_set();
      case frfmap::kRenderWriteFailed:
        throw std::runtime_error(header_path_ +
                                 ": writing the cube files failed (disk full or file size limit?)");
      default:
        throw std::runtime_error(header_path_ + ": not enough memory to render");
    }
  }

  void Cancel() { calcs_.CancelRender(); }

  void SetReference(py::array_t<float, py::array::c_style | py::array::forcecast> signal) {
    if (signal.ndim() != 1) throw std::invalid_argument("the reference must be a 1-D signal");
    if (signal.size() == 0) throw std::invalid_argument("the reference signal is empty");
    if (signal.size() > INT32_MAX) throw std::invalid_argument("the reference is too long");
    for (py::ssize_t i = 0; i < signal.size(); ++i) {
      if (!std::isfinite(signal.data()[i])) {
        throw std::invalid_argument("the reference holds a value that is not finite (index " +
                                    std::to_string(i) + ")");
      }
    }
    calcs_.SetReference(signal.data(), static_cast<int>(signal.size()));
  }
  void ClearReference() { calcs_.SetReference(nullptr, 0); }
  bool has_reference() const { return !calcs_.reference().empty(); }

  py::array_t<Complex64> ReferenceSpectrum() const {
    const auto& r = calcs_.reference();
    py::array_t<Complex64> out(static_cast<py::ssize_t>(r.size()));
    if (!r.empty()) std::memcpy(out.mutable_data(), r.data(), r.size() * sizeof(Complex64));
    return out;
  }

  py::array_t<std::uint8_t> ReadMap(int bin, float gain) {
    RequireBin(bin);
    RequireComplete();
    py::array_t<std::uint8_t> out(
        {static_cast<py::ssize_t>(height()), static_cast<py::ssize_t>(width())});
    int result;
    {
      py::gil_scoped_release release;
      result = calcs_.ReadFRFMap(bin, gain, out.mutable_data());
    }
    if (result == frfmap::kReadNoMemory) throw std::bad_alloc();
    if (result != 0) {
      throw std::runtime_error(header_path_ + ": bin " + std::to_string(bin) +
                               " cannot be read whole from the cube files (" +
                               std::to_string(result) + " bytes); render the capture again");
    }
    return out;
  }

  py::array_t<Complex64> ReadPlane(int bin) {
    RequireBin(bin);
    RequireComplete();
    py::array_t<Complex64> out(
        {static_cast<py::ssize_t>(height()), static_cast<py::ssize_t>(width())});
    std::string error;
    bool ok;
    {
      py::gil_scoped_release release;
      ok = ReadCubePlane(header_path_, header_, static_cast<std::uint32_t>(bin), out.mutable_data(),
                         &error);
    }
    if (!ok) throw std::runtime_error(error);
    return out;
  }

  py::array_t<Complex64> ReadSpectrum(long long x, long long y) {
    if (x < 0 || y < 0 || x >= width() || y >= height()) {
      throw std::invalid_argument("pixel (" + std::to_string(x) + ", " + std::to_string(y) +
                                  ") is outside the " + std::to_string(width()) + " x " +
                                  std::to_string(height()) + " image");
    }
    RequireComplete();
    py::array_t<Complex64> out(static_cast<py::ssize_t>(bins_));
    std::string error;
    bool ok;
    {
      py::gil_scoped_release release;
      ok = ReadCubeSpectrum(header_path_, header_, static_cast<std::uint32_t>(x),
                            static_cast<std::uint32_t>(y), out.mutable_data(), &error);
    }
    if (!ok) throw std::runtime_error(error);
    return out;
  }

  bool rendered() const {
    return frfmap::CheckCube(header_path_, header_) == frfmap::CubeState::kReady;
  }

 private:
  void Open() {
    switch (calcs_.OpenCube(header_path_)) {
      case frfmap::kOpenOk:
        break;
      case frfmap::kOpenNoTransform:
        throw std::runtime_error(header_path_ +
                                 ": the transform for this frame count cannot be prepared");
      case frfmap::kOpenNoMemory:
        throw std::bad_alloc();
      default:
        throw std::invalid_argument(
            header_path_ +
            ": not a capture that can be rendered (zero size or frames, or a cube over 127 files)");
    }
    calcs_.GetCubeDims(nullptr, nullptr, &bins_);
    fresh_ = true;
  }

  void RequireBin(int bin) const {
    if (bin < 0 || static_cast<unsigned>(bin) >= bins_) {
      throw std::invalid_argument("bin " + std::to_string(bin) + " is outside the cube's bins 0.." +
                                  std::to_string(bins_ - 1));
    }
  }

  void RequireComplete() const {
    std::string why;
    if (frfmap::CheckCube(header_path_, header_, &why) != frfmap::CubeState::kReady) {
      throw std::runtime_error(why);
    }
  }

  std::string header_path_;
  frfmap::CaptureHeader header_;
  frfmap::FrfMapCalcs calcs_;
  unsigned bins_ = 0;
  bool fresh_ = false;  // opened and not yet rendered
};

py::array_t<Complex64> SpectrumOf(
    py::array_t<float, py::array::c_style | py::array::forcecast> signal) {
  if (signal.ndim() != 1 || signal.size() < 1 || signal.size() > INT32_MAX) {
    throw std::invalid_argument("spectrum_of needs a non-empty 1-D signal");
  }
  const int n = static_cast<int>(signal.size());
  py::array_t<Complex64> out(n / 2 + 1);
  if (!frfmap::ScaledRealDft(signal.data(), n, out.mutable_data())) {
    throw std::runtime_error("the transform of " + std::to_string(n) +
                             " samples cannot be prepared");
  }
  return out;
}

}  // namespace

void BindCube(py::module_& m) {
  g_render_cancelled = PyErr_NewExceptionWithDoc(
      "frfcam._native.RenderCancelled",
      "The render was cancelled with Cube.cancel(); the cube is incomplete.", PyExc_RuntimeError,
      nullptr);
  m.attr("RenderCancelled") = py::handle(g_render_cancelled);

  py::class_<NativeCube>(m, "Cube")
      .def(py::init<const std::string&, const std::string&>(), py::arg("header"),
           py::arg("name") = "python")
      .def_property_readonly("width", &NativeCube::width)
      .def_property_readonly("height", &NativeCube::height)
      .def_property_readonly("bins", &NativeCube::bins)
      .def_property_readonly("frames", &NativeCube::frames)
      .def_property_readonly("header_fps", &NativeCube::header_fps)
      .def_property_readonly("header_path", &NativeCube::header_path)
      .def_property_readonly("rendered", &NativeCube::rendered)
      .def_property_readonly("has_reference", &NativeCube::has_reference)
      .def("render", &NativeCube::Render, py::arg("progress"))
      .def("cancel", &NativeCube::Cancel)
      .def("set_reference", &NativeCube::SetReference, py::arg("signal"))
      .def("clear_reference", &NativeCube::ClearReference)
      .def("reference_spectrum", &NativeCube::ReferenceSpectrum)
      .def("read_map", &NativeCube::ReadMap, py::arg("bin"), py::arg("gain"))
      .def("read_plane", &NativeCube::ReadPlane, py::arg("bin"))
      .def("read_spectrum", &NativeCube::ReadSpectrum, py::arg("x"), py::arg("y"));

  m.def("spectrum_of", &SpectrumOf, py::arg("signal"));
}

}  // namespace frfcam::python
