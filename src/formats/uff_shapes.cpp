#include "formats/uff_shapes.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string_view>

#include "formats/uff_text.h"

namespace frfcam::formats {

namespace {

constexpr long long kMaxLabel = 9999999999LL;  // ten digits: I10

void CheckLabel(long long label, const std::string& dataset) {
  if (label < 1 || label > kMaxLabel) {
    throw std::invalid_argument(dataset + ": node label " + std::to_string(label) +
                                " (labels are 1.." + std::to_string(kMaxLabel) + ", I10)");
  }
}

// Appends `v` as a Fortran E or D field (`letter`): printf's %E with the
// letter replaced. A three-digit exponent would leave no blank before a
// negative value, and Fortran drops the letter for it, which not every
// reader takes: such small values become 0, large ones are refused.
void AppendReal(std::string* out, double v, int width, int precision, char letter,
                const std::string& what) {
  if (!std::isfinite(v)) {
    throw std::invalid_argument(what + " is not finite (the format holds finite numbers only)");
  }
  char field[48];
  int n = std::snprintf(field, sizeof field, "%*.*E", width, precision, v);
  std::size_t e = std::string_view(field).rfind('E');
  if (static_cast<std::size_t>(n) - e > 4) {  // 'E', sign, three digits
    if (field[e + 1] == '+') throw std::invalid_argument(what + " does not fit its field");
    n = std::snprintf(field, sizeof field, "%*.*E", width, precision, 0.0);
    e = std::string_view(field).rfind('E');
  }
  field[e] = letter;
  out->append(field, static_cast<std::size_t>(n));
}

void AppendShape(std::string* out, const Uff55& s, std::size_t index) {
  const std::string name = "UFF 55 (shape " + std::to_string(index) + ")";
  if (s.nodes.size() != s.values.size()) {
    throw std::invalid_argument(name + ": " + std::to_string(s.nodes.size()) + " nodes but " +
                                std::to_string(s.values.size()) + " values");
  }
  if (s.nodes.empty()) throw std::invalid_argument(name + ": a shape without nodes");
  // Records 7 and 8 depend on the analysis type; only the complex
  // eigenvalue layout is written.
  if (s.analysisType != 3) {
    throw std::invalid_argument(name + ": analysis type " + std::to_string(s.analysisType) +
                                " (only 3, complex eigenvalue, is written)");
  }
  if (s.dataType != 5 && s.dataType != 6) {
    throw std::invalid_argument(name + ": data type " + std::to_string(s.dataType) +
                                " (5 or 6, complex)");
  }
  if (s.valuesPerNode != 3) {
    throw std::invalid_argument(name + ": " + std::to_string(s.valuesPerNode) +
                                " values per node; x, y and z are 3");
  }

  out->append("    -1\n    55\n");
  for (const std::string& id : s.idLines) {
    out->append(UffIdLine(id));
    out->push_back('\n');
  }
  UffAppendRecord(out, 60, name + ": record 6", "%10d%10d%10d%10d%10d%10d\n", s.modelType,
                  s.analysisType, s.dataCharacteristic, s.specificDataType, s.dataType,
                  s.valuesPerNode);
  UffAppendRecord(out, 40, name + ": load case or mode number", "%10d%10d%10d%10d\n", 2, 6,
                  s.loadCase, s.modeNumber);
  const std::complex<double> record8[3] = {s.eigenvalue, s.modalA, s.modalB};
  for (const std::complex<double>& c : record8) {
    AppendReal(out, c.real(), 13, 5, 'E', name + ": record 8");
    AppendReal(out, c.imag(), 13, 5, 'E', name + ": record 8");
  }
  out->push_back('\n');
  for (std::size_t k = 0; k < s.nodes.size(); ++k) {
    CheckLabel(s.nodes[k], name);
    UffAppend(out, "%10lld\n", s.nodes[k]);
    const std::string what = name + ": a value at node " + std::to_string(s.nodes[k]);
    for (const std::complex<double>& c : s.values[k]) {
      AppendReal(out, c.real(), 13, 5, 'E', what);
      AppendReal(out, c.imag(), 13, 5, 'E', what);
    }
    out->push_back('\n');  // six values: one line of 78 columns
  }
  out->append("    -1\n");
}

}  // namespace

std::string FormatUff2411(const std::vector<UffNode>& nodes) {
  if (nodes.empty()) throw std::invalid_argument("UFF 2411: no nodes");
  std::string out = "    -1\n  2411\n";
  for (const UffNode& n : nodes) {
    CheckLabel(n.label, "UFF 2411");
    UffAppend(&out, "%10lld%10d%10d%10d\n", n.label, 1, 1, 11);
    const std::string what = "UFF 2411: a coordinate of node " + std::to_string(n.label);
    for (const double v : {n.x, n.y, n.z}) AppendReal(&out, v, 25, 16, 'D', what);
    out.push_back('\n');
  }
  out.append("    -1\n");
  return out;
}

std::string FormatUff55(const std::vector<Uff55>& shapes) {
  std::string out;
  for (std::size_t i = 0; i < shapes.size(); ++i) AppendShape(&out, shapes[i], i);
  return out;
}

}  // namespace frfcam::formats
