#include "modes_uff.h"

#include <cmath>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "command_error.h"
#include "formats/output_file.h"
#include "formats/uff.h"
#include "formats/uff_shapes.h"

namespace frfcam::cli {

namespace {

std::complex<double> Finite(std::complex<float> v) {
  return std::isfinite(v.real()) && std::isfinite(v.imag()) ? std::complex<double>(v) : 0.0;
}

}  // namespace

void WriteModesUff(const std::string& path, const modes::ModesResult& r, double mmPerPx,
                   const std::string& captureName) {
  if (r.windowFrfs.empty()) throw CommandError(path + ": no displacement FRF to write");
  const bool mm = mmPerPx > 0.0;
  const double unit = mm ? mmPerPx : 1.0;
  const std::string units = mm ? "mm" : "px";

  // One node per window centre, labelled in the order met.
  std::map<std::pair<unsigned, unsigned>, long long> labels;
  std::vector<formats::UffNode> nodes;
  for (const auto& f : r.windowFrfs) {
    const auto key = std::make_pair(f.y, f.x);
    if (labels.count(key) != 0) continue;
    const long long label = static_cast<long long>(nodes.size()) + 1;
    labels[key] = label;
    nodes.push_back({label, f.x * unit, f.y * unit, 0.0});
  }

  std::vector<formats::Uff55> shapes;
  for (std::size_t k = 0; k < r.modes.size(); ++k) {
    const modes::Mode& m = r.modes[k];
    if (m.dispX.empty()) continue;
    formats::Uff55 s;
    s.idLines[0] = "frfcam modes: displacement mode shape";
    s.idLines[1] = captureName;
    char line[80];
    std::snprintf(line, sizeof line, "mode %zu: %.4f Hz, damping %.4f %%", k + 1, m.frequencyHz,
                  100.0 * m.damping);
    s.idLines[2] = line;
    s.idLines[3] = units + " per reference unit at the natural frequency";
    s.modeNumber = static_cast<int>(k + 1);
    const double w = 2.0 * 3.14159265358979323846 * m.frequencyHz;
    s.eigenvalue = {-m.damping * w, w * std::sqrt(std::max(0.0, 1.0 - m.damping * m.damping))};
    for (const auto& [at, label] : labels) {
      const std::size_t p = std::size_t{at.first} * r.width + at.second;
      s.nodes.push_back(label);
      s.values.push_back({Finite(m.dispX[p]) * unit, Finite(m.dispY[p]) * unit, 0.0});
    }
    shapes.push_back(std::move(s));
  }

  std::vector<formats::Uff58> frfs;
  bool even = r.chart.lineHz.size() >= 2;
  for (std::size_t i = 2; i < r.chart.lineHz.size() && even; ++i) {
    const double step = r.chart.lineHz[1] - r.chart.lineHz[0];
    even = std::abs(r.chart.lineHz[i] - r.chart.lineHz[i - 1] - step) <= 1e-9 * step;
  }
  for (const auto& f : r.windowFrfs) {
    formats::Uff58 d;
    d.idLines[0] = "frfcam modes: displacement FRF of a window";
    d.idLines[1] = captureName;
    d.responseEntity = "window";
    d.responseNode = labels[{f.y, f.x}];
    d.responseDirection = f.component == 0 ? 1 : 2;
    d.referenceEntity = "reference";
    d.referenceNode = 0;
    d.referenceDirection = 0;
    d.ordinateType = formats::kUffComplexSingle;
    d.evenAbscissa = even;
    d.numerator = {8, 1, 0, 0, "Displacement", units};
    d.denominator = {0, 0, 0, 0, "Reference", "reference unit"};
    d.x = r.chart.lineHz;
    d.y.reserve(f.frf.size());
    for (const auto& v : f.frf) d.y.push_back(std::complex<double>(v) * unit);
    frfs.push_back(std::move(d));
  }

  std::string bytes;
  try {
    bytes = formats::FormatUff2411(nodes) + formats::FormatUff55(shapes) +
            formats::FormatUff58(frfs, false);
  } catch (const std::invalid_argument& e) {
    throw CommandError(path + ": " + e.what());
  }
  std::string why;
  if (!formats::WriteFileWhole(path, bytes, &why)) throw CommandError(path + ": " + why);
}

}  // namespace frfcam::cli
