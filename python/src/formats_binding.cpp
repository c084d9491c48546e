// The file formats of the field in the native module: UFF dataset 58 as
// dictionaries of plain values and numpy arrays (the Python half turns them
// into UffFunction objects), and cube deletion with the library's rule.
// UFF text reaches Python as str whatever the file's 8-bit encoding (the
// reader decodes it, see formats/uff.h).
#include <pybind11/complex.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <filesystem>

#include "bindings.h"
#include "errors.h"
#include "formats/output_file.h"
#include "formats/uff.h"
#include "frfmap/cube_files.h"
#include "platform/platform.h"
#include "reference_file.h"

namespace py = pybind11;

namespace frfcam::python {

namespace {

py::dict AxisDict(const formats::UffAxis& a) {
  py::dict d;
  d["specific_type"] = a.specificType;
  d["length_exponent"] = a.lengthExponent;
  d["force_exponent"] = a.forceExponent;
  d["temperature_exponent"] = a.temperatureExponent;
  d["label"] = a.label;
  d["units"] = a.units;
  return d;
}

formats::UffAxis AxisFrom(const py::dict& d) {
  formats::UffAxis a;
  a.specificType = d["specific_type"].cast<int>();
  a.lengthExponent = d["length_exponent"].cast<int>();
  a.forceExponent = d["force_exponent"].cast<int>();
  a.temperatureExponent = d["temperature_exponent"].cast<int>();
  a.label = d["label"].cast<std::string>();
  a.units = d["units"].cast<std::string>();
  return a;
}

py::list ReadUff58(const std::string& path) {
  RequireExists(path, "UFF file");
  std::vector<formats::Uff58> functions;
  std::string error;
  int skipped = 0;
  bool ok;
  {
    py::gil_scoped_release release;
    ok = formats::ReadUff58File(path, &functions, &error, &skipped);
  }
  if (!ok) throw std::invalid_argument(error);
  py::list out;
  for (const formats::Uff58& f : functions) {
    py::dict d;
    d["id_lines"] = std::vector<std::string>(f.idLines.begin(), f.idLines.end());
    d["function_type"] = f.functionType;
    d["function_id"] = f.functionId;
    d["version"] = f.version;
    d["load_case"] = f.loadCase;
    d["response_entity"] = f.responseEntity;
    d["response_node"] = f.responseNode;
    d["response_direction"] = f.responseDirection;
    d["reference_entity"] = f.referenceEntity;
    d["reference_node"] = f.referenceNode;
    d["reference_direction"] = f.referenceDirection;
    d["ordinate_type"] = f.ordinateType;
    d["even_abscissa"] = f.evenAbscissa;
    d["z_value"] = f.zValue;
    d["abscissa"] = AxisDict(f.abscissa);
    d["numerator"] = AxisDict(f.numerator);
    d["denominator"] = AxisDict(f.denominator);
    d["z_axis"] = AxisDict(f.zAxis);
    py::array_t<double> x(static_cast<py::ssize_t>(f.x.size()));
    std::copy(f.x.begin(), f.x.end(), x.mutable_data());
    d["x"] = x;
    if (f.complex()) {
      py::array_t<std::complex<double>> y(static_cast<py::ssize_t>(f.y.size()));
      std::copy(f.y.begin(), f.y.end(), y.mutable_data());
      d["y"] = y;
    } else {
      py::array_t<double> y(static_cast<py::ssize_t>(f.y.size()));
      for (std::size_t i = 0; i < f.y.size(); ++i) y.mutable_data()[i] = f.y[i].real();
      d["y"] = y;
    }
    out.append(d);
  }
  return out;
}

void WriteUff58(const std::string& path, const py::list& functions, bool binary) {
  std::vector<formats::Uff58> all;
  for (const py::handle& h : functions) {
    const py::dict d = h.cast<py::dict>();
    formats::Uff58 f;
    const auto ids = d["id_lines"].cast<std::vector<std::string>>();
    for (std::size_t i = 0; i < f.idLines.size(); ++i)
      f.idLines[i] = i < ids.size() ? ids[i] : "NONE";
    f.functionType = d["function_type"].cast<int>();
    f.functionId = d["function_id"].cast<int>();
    f.version = d["version"].cast<int>();
    f.loadCase = d["load_case"].cast<int>();
    f.responseEntity = d["response_entity"].cast<std::string>();
    f.responseNode = d["response_node"].cast<long long>();
    f.responseDirection = d["response_direction"].cast<int>();
    f.referenceEntity = d["reference_entity"].cast<std::string>();
    f.referenceNode = d["reference_node"].cast<long long>();
    f.referenceDirection = d["reference_direction"].cast<int>();
    f.ordinateType = d["ordinate_type"].cast<int>();
    f.evenAbscissa = d["even_abscissa"].cast<bool>();
    f.zValue = d["z_value"].cast<double>();
    f.abscissa = AxisFrom(d["abscissa"].cast<py::dict>());
    f.numerator = AxisFrom(d["numerator"].cast<py::dict>());
    f.denominator = AxisFrom(d["denominator"].cast<py::dict>());
    f.zAxis = AxisFrom(d["z_axis"].cast<py::dict>());
    f.x = d["x"].cast<std::vector<double>>();
    f.y = d["y"].cast<std::vector<std::complex<double>>>();
    all.push_back(std::move(f));
  }
  std::string error;
  std::string bytes;
  try {
    bytes = formats::FormatUff58(all, binary);
  } catch (const std::invalid_argument& e) {
    throw std::invalid_argument(path + ": " + e.what());
  }
  if (!formats::WriteFileWhole(path, bytes, &error)) throw std::runtime_error(error);
}

std::size_t DeleteCube(const std::string& folder) {
  std::error_code ec;
  const auto p = platform::PathFromUtf8(folder);
  if (!std::filesystem::exists(p, ec)) throw NotFound(folder + ": no such folder");
  if (!std::filesystem::is_directory(p, ec)) throw std::invalid_argument(folder + ": not a folder");
  return frfmap::DeleteCubeFiles(folder);
}

// The command line's reader, so that a file reads alike in both: the values
// (float32) and the rate of its times (0 without a time column).
py::tuple ReadReferenceFile(const std::string& path) {
  RequireExists(path, "reference file");
  double fpsFromTimes = 0;
  const std::vector<float> values = cli::ReadReference(path, &fpsFromTimes);
  py::array_t<float> out(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), out.mutable_data());
  return py::make_tuple(out, fpsFromTimes);
}

}  // namespace

void BindFormats(py::module_& m) {
  m.def("read_uff58", &ReadUff58, py::arg("path"));
  m.def("write_uff58", &WriteUff58, py::arg("path"), py::arg("functions"), py::arg("binary"));
  m.def("uff_no_function_of_types", &formats::UffNoFunctionOfTypes, py::arg("present"),
        py::arg("wanted"));
  m.def("delete_cube", &DeleteCube, py::arg("folder"));
  m.def("read_reference", &ReadReferenceFile, py::arg("path"));
}

}  // namespace frfcam::python
