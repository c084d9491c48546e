// Universal file datasets 2411 and 55: a small geometry and mode shape
// compared with text laid out by hand from the public dataset descriptions
// (2411: 4I10 then 1P3D25.16 per node; 55: 80A1 ID lines, 6I10, 8I10,
// 6E13.5, then I10 and 6E13.5 per node), and a whole export file as the
// dataset 58 reader sees it.
#include "formats/uff_shapes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "formats/uff.h"

namespace frfcam::formats {
namespace {

Uff55 Shape() {
  Uff55 s;
  s.idLines[0] = "Mode 1 at 12.5 Hz";
  s.idLines[1] = "";  // blank ID lines are not allowed: NONE
  s.eigenvalue = {-1.5, 78.5};
  s.modalA = {0.0, 0.25};
  s.nodes = {1, 12345};
  // -1e-120 needs a three-digit exponent: written as 0.
  s.values = {{{{1.0, 0.0}, {-0.5, 0.125}, {-1e-120, 123456.7}}},
              {{{0.0, 0.0}, {2.5e-3, -1e-5}, {-1.0, 0.333333}}}};
  return s;
}

TEST(UffShapes, GeometryAndShapeInTheirFixedColumns) {
  const std::vector<UffNode> nodes = {{1, 0.0, -2.5, 1000.0}, {12345, 0.1, 1e-3, -123.456}};
  const std::string expected2411 =
      "    -1\n"
      "  2411\n"
      "         1         1         1        11\n"
      "   0.0000000000000000D+00  -2.5000000000000000D+00   1.0000000000000000D+03\n"
      "     12345         1         1        11\n"
      // 0.1 is 0.1000000000000000055...: 17 digits keep the double exact.
      "   1.0000000000000001D-01   1.0000000000000000D-03  -1.2345600000000000D+02\n"
      "    -1\n";
  EXPECT_EQ(FormatUff2411(nodes), expected2411);

  const std::string expected55 =
      "    -1\n"
      "    55\n"
      "Mode 1 at 12.5 Hz\n"
      "NONE\n"
      "NONE\n"
      "NONE\n"
      "NONE\n"
      "         1         3         2         8         5         3\n"
      "         2         6         1         1\n"
      " -1.50000E+00  7.85000E+01  0.00000E+00  2.50000E-01  0.00000E+00  0.00000E+00\n"
      "         1\n"
      "  1.00000E+00  0.00000E+00 -5.00000E-01  1.25000E-01  0.00000E+00  1.23457E+05\n"
      "     12345\n"
      "  0.00000E+00  0.00000E+00  2.50000E-03 -1.00000E-05 -1.00000E+00  3.33333E-01\n"
      "    -1\n";
  EXPECT_EQ(FormatUff55({Shape()}), expected55);
}

TEST(UffShapes, RefusesWhatTheFieldsCannotHold) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const UffNode& n : std::vector<UffNode>{{10000000000LL, 0, 0, 0},  // eleven digits
                                               {0, 0, 0, 0},
                                               {1, 0, nan, 0},
                                               {1, 1e100, 0, 0}}) {
    EXPECT_THROW(FormatUff2411({{2, 0, 0, 0}, n}), std::invalid_argument) << n.label;
  }
  EXPECT_THROW(FormatUff2411({}), std::invalid_argument);

  std::vector<Uff55> bad(7, Shape());
  bad[0].nodes[1] = 10000000000LL;
  bad[1].values[0][2] = {0.0, nan};
  bad[2].eigenvalue = {-std::numeric_limits<double>::infinity(), 1.0};
  bad[3].values[1][0] = 1e100;  // E13.5 holds two exponent digits
  bad[4].values.pop_back();
  bad[5].analysisType = 2;                              // normal modes have other records 7 and 8
  bad[6].modeNumber = std::numeric_limits<int>::min();  // eleven columns
  for (std::size_t i = 0; i < bad.size(); ++i) {
    EXPECT_THROW(FormatUff55({Shape(), bad[i]}), std::invalid_argument) << i;
  }
}

// The file an export writes: geometry, shapes and FRFs in one. The FRF
// reader returns the FRFs and counts the other two as skipped (the values'
// round trip is the dataset 58 tests' concern).
TEST(UffShapes, ExportFileReadsBackItsFrfs) {
  Uff58 frf;
  for (int k = 0; k < 5; ++k) {
    frf.x.push_back(10.0 + k);
    frf.y.emplace_back(std::cos(k), -std::sin(k));
  }
  for (const bool binary : {false, true}) {
    const std::string file = FormatUff2411({{1, 0, 0, 0}, {12345, 1, 0, 0}}) +
                             FormatUff55({Shape()}) + FormatUff58({frf, frf}, binary);
    std::vector<Uff58> out;
    std::string error;
    int skipped = -1;
    ASSERT_TRUE(ParseUff58(file, "modes.uff", &out, &error, &skipped)) << error;
    EXPECT_EQ(skipped, 2);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].x, frf.x);
  }
}

}  // namespace
}  // namespace frfcam::formats
