// Universal file dataset 58: hand-made files in the published field layout,
// line by line, and round trips of what the writer produces.
#include "formats/uff.h"

#include <gtest/gtest.h>

#include <bit>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <limits>
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

// A dataset 58 whose second line is `header`, with `body` after record 11.
std::string Dataset(const std::string& header, const std::string& record7, const std::string& body,
                    const std::string& record6 = kRecord6, const std::string& id = "NONE") {
  return File({"    -1", header, id, "NONE", "NONE", "NONE", "NONE", record6, record7, kAxisX,
               kAxisY, kAxisR, kAxisZ}) +
         body + "    -1\n";
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
    u.x.push_back(even ? 2.0 + 0.5 * k : 1.1 + 0.37 * k * k);
    u.y.emplace_back(std::sin(k + 1.0) * 1e3, u.complex() ? std::cos(k * 0.7) * 1e-4 : 0.0);
  }
  return u;
}

TEST(Uff58Read, AsciiFunctionsOfEveryLayout) {
  const std::string text =
      // Complex single precision, even abscissa from 10 Hz in steps of 2.5;
      // a three-digit exponent leaves no blank between two fields.
      Dataset(
          "    58", "         5         4         1  1.00000E+01  2.50000E+00  0.00000E+00",
          File({"  1.00000E+00  2.00000E+00-3.00000E+100  4.00000E-01  5.00000E+00  6.00000E+00",
                " -7.00000E-02  8.00000E+00"}),
          kRecord6, "H 101+Z / 1+Z") +
      // Real double precision, uneven: 2(E13.5,E20.12) per line.
      Dataset("    58", "         4         3         0  0.00000E+00  0.00000E+00  0.00000E+00",
              File({"  1.00000E+00  1.234567890123E+00  2.00000E+00 -2.000000000000E-01",
                    "  3.50000E+00  3.000000000000E+02"}),
              "    1         1    1         0 NONE               5  -2 NONE               0   0") +
      // Complex double precision, uneven: E13.5,2E20.12, one point per line;
      // with a D exponent.
      Dataset("    58", "         6         2         0  0.00000E+00  0.00000E+00  0.00000E+00",
              File({"  1.00000E+00 -1.000000000000D+00  2.500000000000E-01",
                    "  2.00000E+00  1.000000000000E+00 -2.500000000000E-01"}));
  const std::vector<Uff58> f = Parse(text);
  ASSERT_EQ(f.size(), 3u);

  EXPECT_EQ(std::tie(f[0].idLines[0], f[0].abscissa.units, f[0].numerator.label),
            std::make_tuple("H 101+Z / 1+Z", "Hz", "Acceleration"));
  EXPECT_EQ(std::tie(f[0].functionType, f[0].functionId, f[0].responseNode, f[0].responseDirection,
                     f[0].referenceNode, f[0].referenceDirection, f[0].ordinateType,
                     f[0].evenAbscissa, f[0].abscissa.specificType, f[0].numerator.lengthExponent,
                     f[0].denominator.forceExponent),
            std::make_tuple(kUffFunctionFrf, 7, 101, 3, 1, 3, kUffComplexSingle, true, 18, 1, 1));
  // Eight values: six on the first line, two on the next.
  EXPECT_EQ(f[0].x, (std::vector<double>{10.0, 12.5, 15.0, 17.5}));
  EXPECT_EQ(f[0].y, (std::vector<std::complex<double>>{{1, 2}, {-3e100, 0.4}, {5, 6}, {-0.07, 8}}));

  EXPECT_EQ(std::tie(f[1].ordinateType, f[1].evenAbscissa, f[1].responseNode),
            std::make_tuple(kUffRealDouble, false, 5));
  EXPECT_EQ(UffDirectionName(f[1].responseDirection), "-Y");
  EXPECT_EQ(f[1].x, (std::vector<double>{1.0, 2.0, 3.5}));
  EXPECT_EQ(f[1].y, (std::vector<std::complex<double>>{{1.234567890123, 0}, {-0.2, 0}, {300, 0}}));

  EXPECT_EQ(f[2].ordinateType, kUffComplexDouble);
  EXPECT_EQ(f[2].x, (std::vector<double>{1.0, 2.0}));
  EXPECT_EQ(f[2].y, (std::vector<std::complex<double>>{{-1, 0.25}, {1, -0.25}}));
}

// The binary data may hold bytes that look like line ends and delimiters:
// the byte count, not the bytes, ends it.
TEST(Uff58Read, BinaryDataEndsByItsByteCount) {
  Uff58 u = Function(kUffRealDouble, true);
  u.y[0] = std::bit_cast<double>(0x0a312d2020202020ull);
  const std::string tricky = FormatUff58({u}, true);
  const std::vector<Uff58> f = Parse(tricky);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].y, u.y);
  // Line numbers after binary data are those an editor shows, the data's
  // line-end bytes counted.
  const std::string after = tricky + "oops\n";
  EXPECT_EQ(ParseError(after),
            "t.uff:" + std::to_string(std::count(after.begin(), after.end(), '\n')) +
                ": expected -1 (the start of a dataset), found 'oops'");
  EXPECT_NE(ParseError(tricky.substr(0, tricky.size() - 20)).find("ends inside the binary"),
            std::string::npos);
}

// Big-endian values, byte by byte as a big-endian machine stores them: no
// helper of the library or the test computes them. The uneven abscissa is
// a 4-byte float as the format has it, or an 8-byte double where the
// header's byte count says so.
TEST(Uff58Read, BigEndianValuesFromHandWrittenBytes) {
  const std::string b32 =
      "    58b     2     2          11          32     0     0           0           0";
  const std::string one("\x3f\xf0\x00\x00\x00\x00\x00\x00", 8);       // 1.0
  const std::string minus2p5("\xc0\x04\x00\x00\x00\x00\x00\x00", 8);  // -2.5
  const std::string tenth("\x3f\xb9\x99\x99\x99\x99\x99\x9a", 8);     // 0.1
  const std::string x12p5f("\x41\x48\x00\x00", 4);                    // 12.5f
  const std::string x20d("\x40\x34\x00\x00\x00\x00\x00\x00", 8);      // 20.0
  const std::string text =
      // Complex double, even: two points from 5 Hz in steps of 0.5.
      Dataset(b32, "         6         2         1  5.00000E+00  5.00000E-01  0.00000E+00",
              one + minus2p5 + tenth + one) +
      // Complex double, uneven, abscissa as a float: 20 bytes a point.
      Dataset("    58b     2     2          11          20     0     0           0           0",
              "         6         1         0  0.00000E+00  0.00000E+00  0.00000E+00",
              x12p5f + tenth + minus2p5) +
      // Real double, uneven, abscissa as a double: 16 bytes a point.
      Dataset(
          b32, "         4         2         0  0.00000E+00  0.00000E+00  0.00000E+00",
          x20d + minus2p5 + x20d.substr(0, 1) + std::string("\x3e", 1) + x20d.substr(2) + tenth) +
      // Real single, even: 3.0f and -1.5f.
      Dataset("    58b     2     2          11           8     0     0           0           0",
              "         2         2         1  3.00000E+00  4.00000E+00  0.00000E+00",
              std::string("\x40\x40\x00\x00\xbf\xc0\x00\x00", 8));
  const std::vector<Uff58> f = Parse(text);
  ASSERT_EQ(f.size(), 4u);
  EXPECT_EQ(f[0].x, (std::vector<double>{5.0, 5.5}));
  EXPECT_EQ(f[0].y, (std::vector<std::complex<double>>{{1.0, -2.5}, {0.1, 1.0}}));
  EXPECT_EQ(f[1].x, (std::vector<double>{12.5}));
  EXPECT_EQ(f[1].y, (std::vector<std::complex<double>>{{0.1, -2.5}}));
  EXPECT_EQ(f[2].x, (std::vector<double>{20.0, 30.0}));  // 0x403e... is 30.0
  EXPECT_EQ(f[2].y, (std::vector<std::complex<double>>{{-2.5, 0}, {0.1, 0}}));
  EXPECT_EQ(f[3].x, (std::vector<double>{3.0, 7.0}));
  EXPECT_EQ(f[3].y, (std::vector<std::complex<double>>{{3.0, 0}, {-1.5, 0}}));
}

TEST(Uff58Read, MalformedFilesNameTheLine) {
  const std::string r7 = "         5         3         1  1.00000E+01  2.50000E+00  0.00000E+00";
  const std::string unended = Dataset("    58", r7, "  1.0 2.0 3.0 4.0 5.0 6.0\n");
  struct Case {
    std::string text, words;
  } cases[] = {
      {Dataset("    58", r7, "  1.00000E+00  2.00000E+00\n"),
       "t.uff:15: record 12 ends after 2 of 6"},
      {Dataset("    58", "         7         3         1  1.00000E+01  2.50000E+00  0.00000E+00",
               ""),
       "t.uff:9: record 7: ordinate type 7"},
      {unended.substr(0, unended.size() - 7), "does not end with -1"},
      {Dataset("    58", r7, "  1.0 2.0 x 4.0 5.0 6.0\n"), "'x' is not a number"},
      {"    -1\n    58\nNONE\nNONE\nNONE\nNONE\nNONE\n    4         7\n", "t.uff:8: record 6"},
      {"    -1\n   151\nname\n    -1\n", "no dataset 58"},
      {"hello\n", "t.uff:1: expected -1"},
  };
  for (const Case& c : cases) {
    const std::string error = ParseError(c.text);
    EXPECT_NE(error.find(c.words), std::string::npos) << error;
  }
}

TEST(Uff58Read, TextInAnyEightBitEncodingBecomesUtf8) {
  // Latin-1 units and id line, next to a UTF-8 label.
  const std::string text =
      File({"    -1", "    58",
            "Beschleunigung \xfc"
            "ber Kraft",
            "NONE", "NONE", "NONE", "NONE", kRecord6,
            "         2         1         1  0.00000E+00  1.00000E+00  0.00000E+00", kAxisX,
            "        12    1    0    0 Acceleration         m/s\xb2                ",
            "         0    0    0    0 Leistungsdichte      g\xb2/Hz              ",
            "         0    0    0    0 Temperatur \xc2\xb0"
            "C       NONE                ",
            "  1.00000E+00", "    -1"});
  const std::vector<Uff58> f = Parse(text);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].idLines[0], "Beschleunigung \u00fcber Kraft");
  EXPECT_EQ(f[0].numerator.units, "m/s\u00b2");
  EXPECT_EQ(f[0].denominator.units, "g\u00b2/Hz");
  EXPECT_EQ(f[0].zAxis.label, "Temperatur \u00b0C");  // valid UTF-8 stays as it is

  // Only what a strict decoder accepts counts as UTF-8: a surrogate's
  // encoding and an overlong '/' are Latin-1 bytes.
  EXPECT_EQ(UffTextToUtf8("\xed\xa0\x80"), "\u00ed\u00a0\u0080");
  EXPECT_EQ(UffTextToUtf8("\xc0\xaf"), "\u00c0\u00af");
  EXPECT_EQ(UffTextToUtf8("\xf0\x9f\x94\x8a"), "\xf0\x9f\x94\x8a");

  // The writer stores one Latin-1 byte per character, so the fields keep
  // their columns; what Latin-1 lacks becomes '?'.
  Uff58 u = f[0];
  u.numerator.units = "m/s\u00b2";
  u.denominator.label = "\u20ac per N";
  const std::string written = FormatUff58({u}, false);
  EXPECT_NE(written.find("Acceleration         m/s\xb2                \n"), std::string::npos);
  EXPECT_NE(written.find("? per N"), std::string::npos);
  EXPECT_NE(written.find("Beschleunigung \xfc"
                         "ber Kraft\n"),
            std::string::npos);
  const std::vector<Uff58> back = Parse(written);
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back[0].numerator.units, "m/s\u00b2");
  EXPECT_EQ(back[0].denominator.units, "g\u00b2/Hz");
}

// A 58b-style binary dataset of another number: its ASCII lines, then raw
// bytes that hold line ends and a delimiter.
std::string OtherBinaryDataset(const std::string& headerTail) {
  const std::string raw("\x01\n    -1\n\x00\xff  58\n\x7f", 17);
  return "    -1\n  2414b" + headerTail + "\nresult set\nNONE\n" + raw + "    -1\n";
}

TEST(Uff58Read, WholeFilesSkipEveryOtherDataset) {
  const std::string frf =
      Dataset("    58", "         2         2         1  0.00000E+00  1.00000E+00  0.00000E+00",
              "  1.00000E+00  2.00000E+00\n");
  const std::string text =
      File({"    -1", "   151", "model", "NONE", "exported", "    -1"}) +
      File({"    -1", "   164", "         1SI - mks (Newton)  2",
            "   1.00000000000000000D+00   1.00000000000000000D+00   1.00000000000000000D+00",
            "    2.73149999999999977D+02", "    -1"}) +
      File({"    -1", "    15", "         1         0         0        11  0.00000E+00",
            "        -1", "    -1"}) +
      frf +
      File({"    -1", "  2411", "         1         1         1        11",
            "   0.0000000000000000D+00   0.0000000000000000D+00   0.0000000000000000D+00",
            "        -1", "    -1"}) +
      // Its counts say 2 ASCII lines and 17 bytes: skipped by them.
      OtherBinaryDataset(
          "     1     2           2          17     0     0           0           0") +
      // Counts that are not numbers: skipped up to its delimiter. Its raw
      // bytes put "    -1" on a line of its own, so the walk resumes there
      // and finds "  58" where a dataset number belongs: the one case the
      // format itself leaves ambiguous, so here the bytes hold none.
      "    -1\n  2414b  binary of another writer\nNONE\n\x01\x02\x03\n    -1\n" + frf +
      File({"    -1", "    55", "NONE", "    -1"});
  int skipped = 0;
  const std::vector<Uff58> f = Parse(text, &skipped);
  EXPECT_EQ(f.size(), 2u);
  EXPECT_EQ(skipped, 7);
  for (const Uff58& u : f) EXPECT_EQ(u.y, (std::vector<std::complex<double>>{{1, 0}, {2, 0}}));
}

// A file cut short anywhere is refused in one line that names the line
// where it ends, or read up to its last whole dataset when the cut falls
// between datasets; never a crash or a hang.
TEST(Uff58Read, TruncationIsReportedWithTheLine) {
  const std::string ascii = FormatUff58({Function(kUffComplexSingle, false)}, false);
  const std::string binary = FormatUff58({Function(kUffRealDouble, false)}, true);
  const std::string text = File({"    -1", "   151", "model", "    -1"}) + ascii + binary;
  for (std::size_t cut = 1; cut < text.size(); ++cut) {
    std::vector<Uff58> out;
    std::string error;
    if (ParseUff58(text.substr(0, cut), "t.uff", &out, &error)) {
      for (const Uff58& u : out) EXPECT_EQ(u.y.size(), 7u) << cut;  // only whole datasets
      continue;
    }
    const bool located = error.rfind("t.uff:", 0) == 0 && std::isdigit(error[6]);
    EXPECT_TRUE(located || error == "t.uff: no dataset 58 (function) in the file")
        << cut << ": " << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
  const auto lines = [&](std::size_t n) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < n; ++i) at = text.find('\n', at) + 1;
    return text.substr(0, at);
  };
  EXPECT_EQ(ParseError(lines(3)), "t.uff:3: the file ends inside dataset 151 begun at line 1");
  EXPECT_EQ(ParseError(lines(14)), "t.uff:14: the file ends before record 9 of dataset 58");
}

// A value as a field of `format` ("%13.5E", "%20.12E") reads it back.
double AsField(double v, const char* format) {
  char text[40];
  std::snprintf(text, sizeof text, format, v);
  return std::strtod(text, nullptr);
}

// Every layout written as ASCII and as 58b reads back as the fields hold
// it: E13.5 or E20.12 in ASCII, float or double in binary, an uneven
// abscissa single precision in both; so the two agree to single precision.
TEST(Uff58Write, RoundTripsEveryLayoutInAsciiAndBinary) {
  std::vector<Uff58> in;
  for (int type : {kUffRealSingle, kUffRealDouble, kUffComplexSingle, kUffComplexDouble}) {
    for (bool even : {true, false}) in.push_back(Function(type, even));
  }
  const std::string ascii = FormatUff58(in, false);
  std::istringstream lines(ascii);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
  const std::string binary = FormatUff58(in, true);
  const std::vector<Uff58> fromAscii = Parse(ascii), fromBinary = Parse(binary);
  ASSERT_EQ(fromAscii.size(), in.size());
  ASSERT_EQ(fromBinary.size(), in.size());
  for (std::size_t i = 0; i < in.size(); ++i) {
    for (const bool isBinary : {false, true}) {
      const Uff58& out = isBinary ? fromBinary[i] : fromAscii[i];
      SCOPED_TRACE(::testing::Message() << "binary " << isBinary << " function " << i);
      EXPECT_EQ(std::tie(out.ordinateType, out.evenAbscissa, out.responseNode,
                         out.responseDirection, out.referenceDirection),
                std::make_tuple(in[i].ordinateType, in[i].evenAbscissa, 123456L, -3, 1));
      EXPECT_EQ(out.idLines[0], std::string(80, 'a'));
      const bool single = !in[i].doublePrecision();
      const auto ordinate = [&](double v) {
        if (isBinary) return single ? double(static_cast<float>(v)) : v;
        return AsField(v, single ? "%13.5E" : "%20.12E");
      };
      const auto abscissa = [&](double v) {
        return isBinary ? double(static_cast<float>(v)) : AsField(v, "%13.5E");
      };
      ASSERT_EQ(out.y.size(), in[i].y.size());
      for (std::size_t k = 0; k < in[i].y.size(); ++k) {
        if (!in[i].evenAbscissa) {
          EXPECT_EQ(out.x[k], abscissa(in[i].x[k])) << k;
        }
        EXPECT_EQ(out.y[k].real(), ordinate(in[i].y[k].real())) << k;
        EXPECT_EQ(out.y[k].imag(), in[i].complex() ? ordinate(in[i].y[k].imag()) : 0.0) << k;
      }
    }
    for (std::size_t k = 0; k < in[i].y.size(); ++k) {
      EXPECT_NEAR(fromAscii[i].x[k], fromBinary[i].x[k], 1e-5 * std::abs(in[i].x[k]));
      EXPECT_LE(std::abs(fromAscii[i].y[k] - fromBinary[i].y[k]), 1e-5 * std::abs(in[i].y[k]));
    }
  }

  // 58b: the header counts the bytes (4 per uneven abscissa value), and the
  // delimiter follows the data with no line end between.
  std::size_t at = 0;
  for (const Uff58& u : in) {
    at = binary.find("    58b", at);
    ASSERT_NE(at, std::string::npos);
    const long bytes = std::stol(binary.substr(at + 31, 12));
    const long ordinates = 7L * (u.complex() ? 2 : 1) * (u.doublePrecision() ? 8 : 4);
    EXPECT_EQ(bytes, ordinates + (u.evenAbscissa ? 0 : 7 * 4));
    for (int line = 0; line < 12; ++line) at = binary.find('\n', at) + 1;
    EXPECT_EQ(binary.substr(at + static_cast<std::size_t>(bytes), 7), "    -1\n");
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
  u = Function(kUffRealDouble, false);
  u.y[2] = std::numeric_limits<double>::quiet_NaN();  // "NAN" would not read back
  EXPECT_THROW(FormatUff58({u}, true), std::invalid_argument);
  u = Function(kUffRealSingle, true);
  u.y[1] = 1e39;  // beyond a float
  EXPECT_THROW(FormatUff58({u}, true), std::invalid_argument);
  u = Function(kUffComplexDouble, true);
  u.responseNode = 12345678901;  // eleven digits shift every later field of record 6
  EXPECT_THROW(FormatUff58({u}, false), std::invalid_argument);
}

TEST(Uff58Names, RefusalsCountTheFunctionsByType) {
  EXPECT_EQ(UffNoFunctionOfTypes({1, 1, 1, 1}, {kUffFunctionFrf}),
            "holds 4 time histories (function type 1) and no FRF (type 4)");
  EXPECT_EQ(UffNoFunctionOfTypes({9, 1, 9, 2, 40}, {77, 5, 5}),
            "holds 1 time history (function type 1), 1 auto spectrum (type 2), 2 PSDs (type 9), "
            "1 function of type 40 and no transmissibility (type 5) or function of type 77");
}

}  // namespace
}  // namespace frfcam::formats
