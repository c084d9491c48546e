// The modes side of the native module: the pipeline of `frfcam modes` on a
// rendered cube, with the modes, shapes and chart as numpy arrays. Rendering
// (and its progress) is the Python half's business, through Cube.render().
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <complex>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "bindings.h"
#include "errors.h"
#include "modes/modes.h"

namespace py = pybind11;

namespace frfcam::python {

namespace {

template <class T>
py::array_t<T> ToArray(const std::vector<T>& v) {
  py::array_t<T> out(static_cast<py::ssize_t>(v.size()));
  std::copy(v.begin(), v.end(), out.mutable_data());
  return out;
}

// `minStable` < 1 keeps the default of pixel FRFs; `stride` 0 picks one.
py::dict ComputeModes(const std::string& headerPath,
                      py::array_t<float, py::array::c_style | py::array::forcecast> reference,
                      double fps, double bandLoHz, double bandHiHz, int minOrder, int maxOrder,
                      int stride, int minStable, const std::string& shapeKind) {
  RequireExists(headerPath, "capture header");
  if (reference.ndim() != 1) throw std::invalid_argument("reference must be 1-D");
  modes::ModesOptions options;
  options.fps = fps;
  options.bandLoHz = bandLoHz;
  options.bandHiHz = bandHiHz;
  options.selection.minOrder = minOrder;
  options.selection.maxOrder = maxOrder;
  if (minStable >= 1) options.selection.minStableCount = minStable;
  options.stride = stride;
  if (shapeKind == "auto") {
    options.shapes = modes::ShapeKind::kAuto;
  } else if (shapeKind == "displacement") {
    options.shapes = modes::ShapeKind::kDisplacement;
  } else if (shapeKind == "brightness") {
    options.shapes = modes::ShapeKind::kBrightness;
  } else {
    throw std::invalid_argument("shapes must be 'auto', 'displacement' or 'brightness', got '" +
                                shapeKind + "'");
  }
  const std::vector<float> signal(reference.data(), reference.data() + reference.size());

  modes::ModesResult r;
  std::string error;
  modes::ModesStatus status;
  {
    py::gil_scoped_release release;
    status = modes::ComputeModes(headerPath, signal, options, &r, &error);
  }
  switch (status) {
    case modes::ModesStatus::kOk:
      break;
    case modes::ModesStatus::kBadCapture:
    case modes::ModesStatus::kBadReference:
    case modes::ModesStatus::kBadOptions:
      throw std::invalid_argument(error);
    default:  // incomplete cube, nothing above the noise, memory
      throw std::runtime_error(error.empty() ? headerPath + ": modes failed" : error);
  }

  const auto count = static_cast<py::ssize_t>(r.modes.size());
  const auto h = static_cast<py::ssize_t>(r.height), w = static_cast<py::ssize_t>(r.width);
  py::array_t<std::complex<float>> shapes({count, h, w});
  std::vector<double> frequency, damping, mpc;
  for (py::ssize_t k = 0; k < count; ++k) {
    const modes::Mode& m = r.modes[static_cast<std::size_t>(k)];
    frequency.push_back(m.frequencyHz);
    damping.push_back(m.damping);
    mpc.push_back(m.mpc);
    if (m.shape.size() != static_cast<std::size_t>(h * w)) {
      throw std::runtime_error(headerPath + ": mode shape of the wrong size");
    }
    std::copy(m.shape.begin(), m.shape.end(), shapes.mutable_data() + k * h * w);
  }
  py::object displacement = py::none();
  if (r.kind == modes::ShapeKind::kDisplacement) {
    py::array_t<std::complex<float>> d({count, py::ssize_t{2}, h, w});
    for (py::ssize_t k = 0; k < count; ++k) {
      const modes::Mode& m = r.modes[static_cast<std::size_t>(k)];
      std::copy(m.dispX.begin(), m.dispX.end(), d.mutable_data() + (2 * k) * h * w);
      std::copy(m.dispY.begin(), m.dispY.end(), d.mutable_data() + (2 * k + 1) * h * w);
    }
    displacement = d;
  }
  py::array_t<float> mean({h, w});
  std::copy(r.meanImage.begin(), r.meanImage.end(), mean.mutable_data());

  // The chart as flat columns, one row per pole; class codes 0..3 = s, f, d, o.
  std::vector<std::int32_t> chartOrder;
  std::vector<std::uint8_t> chartClass;
  std::vector<double> chartFrequency;
  for (const auto& o : r.chart.orders) {
    const std::vector<double>* columns[] = {&o.s, &o.f, &o.d, &o.o};
    for (std::uint8_t c = 0; c < 4; ++c) {
      for (double f : *columns[c]) {
        chartOrder.push_back(o.order);
        chartClass.push_back(c);
        chartFrequency.push_back(f);
      }
    }
  }

  py::dict out;
  out["frequency_hz"] = ToArray(frequency);
  out["damping_ratio"] = ToArray(damping);
  out["mpc"] = ToArray(mpc);
  out["shapes"] = shapes;
  out["kind"] = std::string(modes::ShapeKindName(r.kind));
  out["displacement"] = displacement;
  out["mean_image"] = mean;
  out["motion_share"] = r.motionShare;
  out["components"] = r.components;
  out["chart_order"] = ToArray(chartOrder);
  out["chart_class"] = ToArray(chartClass);
  out["chart_frequency"] = ToArray(chartFrequency);
  out["line_hz"] = ToArray(r.chart.lineHz);
  out["sum_magnitude"] = ToArray(r.chart.sumMagnitude);
  out["stride"] = r.stride;
  out["grid_pixels"] = r.gridPixels;
  out["channels"] = r.channels;
  out["band_bins"] = py::make_tuple(r.bandFirstBin, r.bandLastBin);
  return out;
}

}  // namespace

void BindModes(py::module_& m) {
  m.def("compute_modes", &ComputeModes, py::arg("header_path"), py::arg("reference"),
        py::arg("fps"), py::arg("band_lo_hz"), py::arg("band_hi_hz"), py::arg("min_order"),
        py::arg("max_order"), py::arg("stride"), py::arg("min_stable"), py::arg("shapes") = "auto");
}

}  // namespace frfcam::python
