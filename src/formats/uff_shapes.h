// Universal file datasets for mode shapes measured over a whole field:
// node geometry (2411) and complex mode shapes at those nodes (55). Written
// only: with the functions of uff.h (dataset 58) they make the one file that
// modal tools take, FormatUff2411 + FormatUff55 + FormatUff58 concatenated
// and written whole (WriteFileWhole in output_file.h). The dataset 58
// reader skips both.
//
// Layout of dataset 2411, nodes in double precision (lines of at most 80
// columns):
//   "    -1"        delimiter (I6)
//   "  2411"        dataset number (I6)
//   per node:
//   record 1 (4I10)      node label, export coordinate system (1),
//                        displacement coordinate system (1), colour (11)
//   record 2 (1P3D25.16) x, y, z: "   1.0000000000000000D+00", 17
//                        significant digits, so doubles read back exactly
//   "    -1"
//
// Layout of dataset 55, data at nodes, as written here for complex
// eigenvalue (first order) analyses:
//   "    -1", "    55"
//   records 1-5 (80A1)  ID lines; "NONE" when blank (they may not be empty)
//   record 6 (6I10)     model type (1 structural), analysis type (3 complex
//                       eigenvalue, first order), data characteristic (2:
//                       3 DOF global translation vector), specific data
//                       type (8 displacement, 11 velocity, 12 acceleration,
//                       ...), data type (5 complex single, 6 complex
//                       double), values per node (3)
//   record 7 (8I10)     2 integer values, 6 real values, load case, mode
//                       number
//   record 8 (6E13.5)   eigenvalue, modal A, modal B, each as its real
//                       then its imaginary value
//   per node:
//   record 9 (I10)      node label
//   record 10 (6E13.5)  x, y, z, each as its real then its imaginary value
//   "    -1"
// Record 10 is E13.5 (six significant digits, "  1.23450E+02") whatever
// the data type field says.
//
// Reals that would need a three-digit exponent cannot stay apart from the
// field before them in fixed columns: magnitudes below 1E-99 are written as
// 0, larger ones than the field holds are refused.
#pragma once

#include <array>
#include <complex>
#include <string>
#include <vector>

namespace frfcam::formats {

// A point of the measured geometry. Labels are positive and at most ten
// digits (I10); readers with 32-bit labels take up to 2^31 - 1.
struct UffNode {
  long long label = 0;
  double x = 0.0, y = 0.0, z = 0.0;
};

// Dataset 2411 for `nodes`, in their order, with coordinate systems 1
// (global) and colour 11. Throws std::invalid_argument when there is no
// node, a label is not in 1..9999999999, or a coordinate is not finite or
// does not fit D25.16.
std::string FormatUff2411(const std::vector<UffNode>& nodes);

// One complex mode shape (records 1 to 10 of dataset 55). Text is UTF-8,
// written as Latin-1 as uff.h describes.
struct Uff55 {
  std::array<std::string, 5> idLines{"NONE", "NONE", "NONE", "NONE", "NONE"};
  int modelType = 1;           // structural
  int analysisType = 3;        // complex eigenvalue, first order (the only one written)
  int dataCharacteristic = 2;  // 3 DOF global translation vector
  int specificDataType = 8;    // displacement
  int dataType = 5;            // complex single; 6 complex double
  int valuesPerNode = 3;       // x, y, z
  int loadCase = 1;
  int modeNumber = 1;
  // The pole, lambda = -zeta w + i w sqrt(1 - zeta^2), in rad/s.
  std::complex<double> eigenvalue;
  // Modal A and B (scaling of the residues); 0 when not known.
  std::complex<double> modalA, modalB;
  std::vector<long long> nodes;                             // labels, as in dataset 2411
  std::vector<std::array<std::complex<double>, 3>> values;  // per node: x, y, z
};

// Dataset 55 for each shape, in order (an empty string for none). Throws
// std::invalid_argument when a shape has no node or `nodes` and `values`
// differ in length, the analysis type is not 3, the data type is not 5 or
// 6, values per node is not 3, a node label is not in 1..9999999999, an
// integer does not fit I10, or a value (eigenvalue and modal A and B
// included) is not finite or too large for E13.5.
std::string FormatUff55(const std::vector<Uff55>& shapes);

}  // namespace frfcam::formats
