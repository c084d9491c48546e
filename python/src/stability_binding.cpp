// The stability side of the native module: the analysis of the command line
// with numpy arrays in and out, and the record file read back as arrays.
#include <pybind11/complex.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <complex>
#include <fstream>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

#include "bindings.h"
#include "errors.h"
#include "formats/output_file.h"
#include "platform/platform.h"
#include "stability_analysis.h"

namespace py = pybind11;

namespace frfcam::python {

namespace {

using Complex = std::complex<double>;

template <class T>
py::array_t<T> ToArray(const std::vector<T>& v) {
  py::array_t<T> out(static_cast<py::ssize_t>(v.size()));
  std::copy(v.begin(), v.end(), out.mutable_data());
  return out;
}

template <class Vector>
py::array_t<typename Vector::Scalar> EigenToArray(const Vector& v) {
  py::array_t<typename Vector::Scalar> out(static_cast<py::ssize_t>(v.size()));
  std::copy(v.data(), v.data() + v.size(), out.mutable_data());
  return out;
}

// The chart as four flat columns: one row per pole of the classified orders.
// Class codes 0..3 stand for s, f, d, o. Damping is known only for class s
// poles (the estimator keeps no other); the others carry NaN.
struct FlatChart {
  std::vector<std::int32_t> order;
  std::vector<std::uint8_t> cls;
  std::vector<double> frequency;
  std::vector<double> damping;

  void Add(std::int32_t n, std::uint8_t c, double f, double d) {
    order.push_back(n);
    cls.push_back(c);
    frequency.push_back(f);
    damping.push_back(d);
  }
};

FlatChart Flatten(const talproto::stabChartData& record,
                  const std::vector<stability::RealVector>* sDamping) {
  FlatChart chart;
  std::size_t withS = 0;
  const double nan = std::nan("");
  for (int k = 0; k < record.orderinfo_size(); ++k) {
    const talproto::order_info& o = record.orderinfo(k);
    const auto n = static_cast<std::int32_t>(o.order_num());
    const stability::RealVector* damping = nullptr;
    if (sDamping != nullptr && o.s_size() > 0 && withS < sDamping->size()) {
      damping = &(*sDamping)[withS++];
    }
    for (int i = 0; i < o.s_size(); ++i) {
      chart.Add(n, 0, o.s(i), damping != nullptr && i < damping->size() ? (*damping)[i] : nan);
    }
    for (double f : o.f()) chart.Add(n, 1, f, nan);
    for (double f : o.d()) chart.Add(n, 2, f, nan);
    for (double f : o.o()) chart.Add(n, 3, f, nan);
  }
  return chart;
}

void PutChart(py::dict& out, const talproto::stabChartData& record,
              const std::vector<stability::RealVector>* sDamping) {
  const FlatChart chart = Flatten(record, sDamping);
  out["chart_order"] = ToArray(chart.order);
  out["chart_class"] = ToArray(chart.cls);
  out["chart_frequency"] = ToArray(chart.frequency);
  out["chart_damping"] = ToArray(chart.damping);
  std::vector<std::int32_t> orders;
  for (const auto& o : record.orderinfo())
    orders.push_back(static_cast<std::int32_t>(o.order_num()));
  out["orders"] = ToArray(orders);
  out["num_orders"] = record.numorders();
}

py::dict ComputeStability(py::array_t<double, py::array::c_style | py::array::forcecast> freqHz,
                          py::array_t<Complex, py::array::f_style | py::array::forcecast> frfs,
                          int referenceChannel, const py::dict& settings, bool significance,
                          bool flag1, bool flag2, std::optional<std::string> recordPath) {
  if (freqHz.ndim() != 1) throw std::invalid_argument("frequencies_hz must be 1-D");
  if (frfs.ndim() != 2) throw std::invalid_argument("frf_matrix must be 2-D (lines, channels)");
  AnalysisRequest request;
  request.omega = Eigen::Map<const stability::RealVector>(freqHz.data(), freqHz.size()) *
                  (2.0 * std::numbers::pi);
  request.frfs =
      Eigen::Map<const stability::ComplexMatrix>(frfs.data(), frfs.shape(0), frfs.shape(1));
  request.referenceChannel = referenceChannel;
  stability::SelectionSettings& s = request.settings;
  s.minOrder = settings["min_order"].cast<int>();
  s.maxOrder = settings["max_order"].cast<int>();
  s.selectionTolerance = settings["selection_tolerance"].cast<double>();
  s.minStableCount = settings["min_stable"].cast<int>();
  s.frequencyTolerance = settings["frequency_tolerance"].cast<double>();
  s.dampingTolerance = settings["damping_tolerance"].cast<double>();
  s.maxDamping = settings["max_damping"].cast<double>();
  s.minSignificance = settings["min_significance"].cast<double>();
  request.significanceFilter = significance;
  request.flag1 = flag1;
  request.flag2 = flag2;
  std::string problem = CheckAnalysis(request);
  // As on the command line: an order range the lines cannot determine is a
  // mistake, not an empty result.
  if (problem.empty()) problem = CheckLinesForOrders(request);
  if (!problem.empty()) throw std::invalid_argument(problem);
  std::string why;
  if (recordPath && !formats::CanWriteFile(*recordPath, &why)) throw std::runtime_error(why);

  Analysis a;
  {
    py::gil_scoped_release release;
    a = RunAnalysis(request);
  }
  if (recordPath && !formats::WriteFileWhole(*recordPath, a.record.SerializeAsString(), &why)) {
    throw std::runtime_error(why);
  }

  py::dict out;
  PutChart(out, a.record, &a.estimation.poleDampingByOrder);
  out["selected_frequency"] = EigenToArray(a.selection.frequency);
  out["selected_damping"] = EigenToArray(a.selection.damping);
  const auto lines = static_cast<py::ssize_t>(request.frfs.rows());
  const auto channels = static_cast<py::ssize_t>(request.frfs.cols());
  const auto modes = static_cast<py::ssize_t>(a.selection.frequency.size());
  py::array_t<Complex> residues({channels, modes});
  py::array_t<Complex> synthesised({lines, channels});
  py::array_t<Complex> upper(channels), lower(channels);
  auto r = residues.mutable_unchecked<2>();
  auto fitted = synthesised.mutable_unchecked<2>();
  for (py::ssize_t c = 0; c < channels; ++c) {
    if (a.fits.empty()) {
      upper.mutable_data()[c] = lower.mutable_data()[c] = Complex(std::nan(""), std::nan(""));
      for (py::ssize_t i = 0; i < lines; ++i) fitted(i, c) = Complex(std::nan(""), std::nan(""));
      continue;
    }
    const stability::ResidueFit& fit = a.fits[static_cast<std::size_t>(c)];
    for (py::ssize_t j = 0; j < modes; ++j) r(c, j) = fit.residues[j];
    for (py::ssize_t i = 0; i < lines; ++i) fitted(i, c) = fit.synthesised[i];
    upper.mutable_data()[c] = fit.upperResidual;
    lower.mutable_data()[c] = fit.lowerResidual;
  }
  out["residues"] = residues;
  out["upper_residual"] = upper;
  out["lower_residual"] = lower;
  out["synthesised"] = synthesised;
  out["eigen_frequency"] = EigenToArray(a.estimation.eigenFrequency);
  out["eigen_damping"] = EigenToArray(a.estimation.dampingFactor);
  std::vector<double> vf, vd, vs;
  std::vector<std::uint8_t> vk;
  for (const stability::PoleVerdict& v : a.verdicts) {
    vf.push_back(v.frequency);
    vd.push_back(v.damping);
    vs.push_back(v.significance);
    vk.push_back(v.kept ? 1 : 0);
  }
  out["candidate_frequency"] = ToArray(vf);
  out["candidate_damping"] = ToArray(vd);
  out["candidate_significance"] = ToArray(vs);
  out["candidate_kept"] = ToArray(vk);
  return out;
}

py::dict DefaultSettings() {
  const stability::SelectionSettings s;
  py::dict d;
  d["min_order"] = s.minOrder;
  d["max_order"] = s.maxOrder;
  d["selection_tolerance"] = s.selectionTolerance;
  d["min_stable"] = s.minStableCount;
  d["frequency_tolerance"] = s.frequencyTolerance;
  d["damping_tolerance"] = s.dampingTolerance;
  d["max_damping"] = s.maxDamping;
  d["min_significance"] = s.minSignificance;
  return d;
}

// A record file as the same arrays, as far as the record holds them: the
// residues, residual terms and synthesised FRF of the one fitted channel.
py::dict ReadRecord(const std::string& path) {
  RequireExists(path, "record");
  std::ifstream in(platform::PathFromUtf8(path), std::ios::binary);
  talproto::stabChartData record;
  if (!in || !record.ParseFromIstream(&in)) {
    throw std::invalid_argument(path + ": not a stability record (protobuf stabChartData)");
  }
  py::dict out;
  PutChart(out, record, nullptr);
  // Damping of the s poles is not in the record; selected modes carry theirs.
  out["selected_frequency"] =
      ToArray(std::vector<double>(record.selected_poles().begin(), record.selected_poles().end()));
  out["selected_damping"] = ToArray(std::vector<double>(record.selected_dampingfactor().begin(),
                                                        record.selected_dampingfactor().end()));
  const auto modes = static_cast<py::ssize_t>(record.residues_size());
  py::array_t<Complex> residues({py::ssize_t{1}, modes});
  for (py::ssize_t j = 0; j < modes; ++j) {
    residues.mutable_data()[j] = Complex(record.residues(j).re(), record.residues(j).im());
  }
  const auto lines = static_cast<py::ssize_t>(record.frfm_size());
  py::array_t<Complex> synthesised({lines, py::ssize_t{1}});
  for (py::ssize_t i = 0; i < lines; ++i) {
    synthesised.mutable_data()[i] = Complex(record.frfm(i).re(), record.frfm(i).im());
  }
  const double nan = std::nan("");
  py::array_t<Complex> upper(1), lower(1);
  upper.mutable_data()[0] = record.has_upper_residual() ? Complex(record.upper_residual().re(),
                                                                  record.upper_residual().im())
                                                        : Complex(nan, nan);
  lower.mutable_data()[0] = record.has_lower_residual() ? Complex(record.lower_residual().re(),
                                                                  record.lower_residual().im())
                                                        : Complex(nan, nan);
  out["residues"] = residues;
  out["upper_residual"] = upper;
  out["lower_residual"] = lower;
  out["synthesised"] = synthesised;
  out["eigen_frequency"] =
      ToArray(std::vector<double>(record.eigenfrequency().begin(), record.eigenfrequency().end()));
  out["eigen_damping"] =
      ToArray(std::vector<double>(record.dampingfactor().begin(), record.dampingfactor().end()));
  return out;
}

}  // namespace

void BindStability(py::module_& m) {
  m.def("compute_stability", &ComputeStability, py::arg("frequencies_hz"), py::arg("frf_matrix"),
        py::arg("reference_channel"), py::arg("settings"), py::arg("significance"),
        py::arg("flag1"), py::arg("flag2"), py::arg("record_path"));
  m.def("default_settings", &DefaultSettings);
  m.def("read_record", &ReadRecord, py::arg("path"));
}

}  // namespace frfcam::python
