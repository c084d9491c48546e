// Universal file dataset 58: hand-made files in the published field layout,
// line by line, and round trips of what the writer produces.
#include "formats/uff.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <sstream>
#include <tuple>

namespace frfcam::formats {
namespace {

// Joins lines with LF after checking that each fits the 80-column records.
std::string File(std::initializer_list<std::string> lines) {
  std::string text;
  for (const std::string& line : lines) {
    EXPECT_LE(line.size(), 80u) << line;
    text += line + "\n";
  }
  return text;
}

std::vector<Uff58> Parse(const std::string& text, int* skipped = nullptr) {
  std::vector<Uff58> out;
  std::string error;
  EXPECT_TRUE(ParseUff58(text, "t.uff", &out, &error, skipped)) << error;
  return out;
}

std::string ParseError(const std::string& text) {
  std::vector<Uff58> out;
  std::string error;
  EXPECT_FALSE(ParseUff58(text, "t.uff", &out, &error));
  return error;
}

// Record 6 and records 8-11 of an FRF from node 101 +Z to node 1 +Z.
const std::string kRecord6 =
    "    4         7    1         0 NONE             101   3 NONE               1   3";
const std::string kAxisX = "        18    0    0    0 Frequency            Hz                  ";
const std::string kAxisY = "        12    1    0    0 Acceleration         m/s^2               ";
const std::string kAxisR = "        13    0    1    0 Force                N                   ";
const std::string kAxisZ = "         0    0    0    0 NONE                 NONE                ";

TEST(Uff58Read, AsciiFunctionsOfEveryLayout) {
  const std::string text =
      File({// A dataset of another kind first: skipped whatever it holds.
            "    -1", "   151", "model name", "    -1",
            // Complex single precision, even abscissa from 10 Hz in steps of 2.5;
            // a three-digit exponent leaves no blank between two fields.
            "    -1", "    58", "H 101+Z / 1+Z", "NONE", "22-Nov-26 06:00:00", "NONE", "NONE",
            kRecord6, "         5         4         1  1.00000E+01  2.50000E+00  0.00000E+00",
            kAxisX, kAxisY, kAxisR, kAxisZ,
            "  1.00000E+00  2.00000E+00-3.00000E+100  4.00000E-01  5.00000E+00  6.00000E+00",
            " -7.00000E-02  8.00000E+00", "    -1",
            // Real double precision, uneven: 2(E13.5,E20.12) per line.
            "    -1", "    58", "NONE", "NONE", "NONE", "NONE", "NONE",
            "    1         1    1         0 NONE               5  -2 NONE               0   0",
            "         4         3         0  0.00000E+00  0.00000E+00  0.00000E+00", kAxisX, kAxisY,
            kAxisR, kAxisZ, "  1.00000E+00  1.234567890123E+00  2.00000E+00 -2.000000000000E-01",
            "  3.50000E+00  3.000000000000E+02", "    -1",
            // Complex double precision, uneven: E13.5,2E20.12, one point per line;
            // with a D exponent.
            "    -1", "    58", "NONE", "NONE", "NONE", "NONE", "NONE", kRecord6,
            "         6         2         0  0.00000E+00  0.00000E+00  0.00000E+00", kAxisX, kAxisY,
            kAxisR, kAxisZ, "  1.00000E+00 -1.000000000000D+00  2.500000000000E-01",
            "  2.00000E+00  1.000000000000E+00 -2.500000000000E-01", "    -1"});
  int skipped = -1;
  const std::vector<Uff58> f = Parse(text, &skipped);
  EXPECT_EQ(skipped, 1);
  ASSERT_EQ(f.size(), 3u);

  EXPECT_EQ(f[0].idLines[0], "H 101+Z / 1+Z");
  EXPECT_EQ(f[0].functionType, kUffFunctionFrf);
  EXPECT_EQ(std::tie(f[0].functionId, f[0].responseNode, f[0].responseDirection, f[0].referenceNode,
                     f[0].referenceDirection),
            std::make_tuple(7, 101, 3, 1, 3));
  EXPECT_EQ(f[0].ordinateType, kUffComplexSingle);
  EXPECT_TRUE(f[0].evenAbscissa);
  EXPECT_EQ(f[0].abscissa.specificType, 18);
  EXPECT_EQ(f[0].abscissa.units, "Hz");
  EXPECT_EQ(f[0].numerator.label, "Acceleration");
  EXPECT_EQ(f[0].numerator.lengthExponent, 1);
  EXPECT_EQ(f[0].denominator.forceExponent, 1);
  // Eight values: six on the first line, two on the next.
  EXPECT_EQ(f[0].x, (std::vector<double>{10.0, 12.5, 15.0, 17.5}));
  EXPECT_EQ(f[0].y, (std::vector<std::complex<double>>{{1, 2}, {-3e100, 0.4}, {5, 6}, {-0.07, 8}}));

  EXPECT_EQ(f[1].ordinateType, kUffRealDouble);
  EXPECT_FALSE(f[1].evenAbscissa);
  EXPECT_EQ(std::tie(f[1].responseNode, f[1].responseDirection), std::make_tuple(5, -2));
  EXPECT_EQ(UffDirectionName(f[1].responseDirection), "-Y");
  EXPECT_EQ(f[1].x, (std::vector<double>{1.0, 2.0, 3.5}));
  EXPECT_EQ(f[1].y, (std::vector<std::complex<double>>{{1.234567890123, 0}, {-0.2, 0}, {300, 0}}));

  EXPECT_EQ(f[2].ordinateType, kUffComplexDouble);
  EXPECT_EQ(f[2].x, (std::vector<double>{1.0, 2.0}));
  EXPECT_EQ(f[2].y, (std::vector<std::complex<double>>{{-1, 0.25}, {1, -0.25}}));
}

// A 58b dataset: the binary header line, 11 ASCII lines, then raw values.
template <class T>
std::string Binary(int byteOrder, const std::string& record7, const std::vector<T>& values) {
  std::string data;
  for (T v : values) {
    char b[sizeof v];
    std::memcpy(b, &v, sizeof v);
    if (byteOrder == 2) std::reverse(b, b + sizeof v);
    data.append(b, sizeof v);
  }
  char header[81];
  std::snprintf(header, sizeof header, "%6d%c%6d%6d%12d%12zu%6d%6d%12d%12d", 58, 'b', byteOrder, 2,
                11, data.size(), 0, 0, 0, 0);
  return File({"    -1", header, "NONE", "NONE", "NONE", "NONE", "NONE", kRecord6, record7, kAxisX,
               kAxisY, kAxisR, kAxisZ}) +
         data + "\n    -1\n";
}

TEST(Uff58Read, BinaryInBothByteOrders) {
  const std::string little =
      Binary<double>(1, "         6         2         1  5.00000E+00  5.00000E-01  0.00000E+00",
                     {1.0, -2.0, 0.125, 1e-300});
  const std::string big =
      Binary<float>(2, "         2         2         0  0.00000E+00  0.00000E+00  0.00000E+00",
                    {3.0f, 0.5f, 7.0f, -1.5f});
  const std::vector<Uff58> f = Parse(little + big);
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[0].x, (std::vector<double>{5.0, 5.5}));
  EXPECT_EQ(f[0].y, (std::vector<std::complex<double>>{{1, -2}, {0.125, 1e-300}}));
  EXPECT_EQ(f[1].x, (std::vector<double>{3.0, 7.0}));
  EXPECT_EQ(f[1].y, (std::vector<std::complex<double>>{{0.5, 0}, {-1.5, 0}}));

  // The binary data may hold bytes that look like line ends and delimiters.
  const std::string tricky =
      Binary<double>(1, "         4         2         1  0.00000E+00  1.00000E+00  0.00000E+00",
                     {std::bit_cast<double>(0x0a312d2020202020ull), 2.0});
  ASSERT_EQ(Parse(tricky).size(), 1u);

  EXPECT_NE(ParseError(little.substr(0, little.size() - 20)).find("ends inside the binary"),
            std::string::npos);
}

TEST(Uff58Read, MalformedFilesNameTheLine) {
  const std::string head = "    -1\n    58\nNONE\nNONE\nNONE\nNONE\nNONE\n" + kRecord6 + "\n";
  const std::string axes = kAxisX + "\n" + kAxisY + "\n" + kAxisR + "\n" + kAxisZ + "\n";
  const std::string r7 = "         5         3         1  1.00000E+01  2.50000E+00  0.00000E+00\n";
  struct Case {
    std::string text, words;
  } cases[] = {
      {head + r7 + axes + "  1.00000E+00  2.00000E+00\n    -1\n",
       "t.uff:15: record 12 ends after 2 of 6"},
      {head + "         7         3         1  1.00000E+01  2.50000E+00  0.00000E+00\n" + axes,
       "t.uff:9: record 7: ordinate type 7"},
      {head + r7 + axes + "  1.0 2.0 3.0 4.0 5.0 6.0\n", "does not end with -1"},
      {head + r7 + axes + "  1.0 2.0 x 4.0 5.0 6.0\n    -1\n", "'x' is not a number"},
      {"    -1\n    58\nNONE\nNONE\nNONE\nNONE\nNONE\n    4         7\n", "t.uff:8: record 6"},
      {"    -1\n   151\nname\n    -1\n", "no dataset 58"},
      {"hello\n", "t.uff:1: expected -1"},
  };
  for (const Case& c : cases) {
    const std::string error = ParseError(c.text);
    EXPECT_NE(error.find(c.words), std::string::npos) << error;
  }
}

Uff58 Function(int type, bool even) {
  Uff58 u;
  u.ordinateType = type;
  u.evenAbscissa = even;
  u.responseNode = 123456;
  u.responseDirection = -3;
  u.referenceNode = 2;
  u.referenceDirection = 1;
  u.idLines[0] = std::string(100, 'a');  // cut to 80 columns
  for (int k = 0; k < 7; ++k) {
    u.x.push_back(even ? 2.0 + 0.5 * k : 1.0 + k * k);
    u.y.emplace_back(std::sin(k + 1.0) * 1e3, u.complex() ? std::cos(k * 0.7) * 1e-4 : 0.0);
  }
  return u;
}

TEST(Uff58Write, RoundTripsEveryLayoutInAsciiAndBinary) {
  for (const bool binary : {false, true}) {
    std::vector<Uff58> in;
    for (int type : {kUffRealSingle, kUffRealDouble, kUffComplexSingle, kUffComplexDouble}) {
      for (bool even : {true, false}) in.push_back(Function(type, even));
    }
    const std::string text = FormatUff58(in, binary);
    if (!binary) {  // every line of an ASCII file fits the 80-column records
      std::istringstream lines(text);
      for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
    }
    const std::vector<Uff58> out = Parse(text);
    ASSERT_EQ(out.size(), in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
      SCOPED_TRACE(::testing::Message() << "binary " << binary << " function " << i);
      EXPECT_EQ(out[i].ordinateType, in[i].ordinateType);
      EXPECT_EQ(out[i].evenAbscissa, in[i].evenAbscissa);
      EXPECT_EQ(out[i].responseNode, 123456);
      EXPECT_EQ(out[i].responseDirection, -3);
      EXPECT_EQ(out[i].referenceDirection, 1);
      EXPECT_EQ(out[i].idLines[0], std::string(80, 'a'));
      const double tolerance = in[i].doublePrecision() ? 1e-12 : 1e-5;
      // ASCII writes uneven abscissa as E13.5 whatever the ordinate precision.
      const double xTolerance = binary && in[i].doublePrecision() ? 0 : 1e-5;
      ASSERT_EQ(out[i].y.size(), in[i].y.size());
      for (std::size_t k = 0; k < in[i].y.size(); ++k) {
        EXPECT_NEAR(out[i].x[k], in[i].x[k], xTolerance * std::abs(in[i].x[k]) + 1e-12);
        EXPECT_NEAR(std::abs(out[i].y[k] - in[i].y[k]), 0.0, tolerance * std::abs(in[i].y[k]));
      }
    }
  }
}

TEST(Uff58Write, RefusesWhatTheFormatCannotHold) {
  Uff58 u = Function(kUffComplexDouble, true);
  u.x[3] += 0.1;  // not evenly spaced
  EXPECT_THROW(FormatUff58({u}, false), std::invalid_argument);
  u = Function(kUffComplexDouble, false);
  u.y.pop_back();
  EXPECT_THROW(FormatUff58({u}, true), std::invalid_argument);
  u = Function(3, false);
  EXPECT_THROW(FormatUff58({u}, false), std::invalid_argument);
}

}  // namespace
}  // namespace frfcam::formats
