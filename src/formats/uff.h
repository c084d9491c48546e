// Universal file format, dataset 58: one function (an FRF, a spectrum, a
// time history) per dataset, as measurement systems export them. Both the
// ASCII form (58) and the binary form (58b) are read and written, with real
// or complex, single or double precision ordinates and even or uneven
// abscissa. Datasets of other numbers in the same file are skipped.
//
// Layout of one ASCII dataset (lines of at most 80 columns):
//   "    -1"                         delimiter (I6)
//   "    58"                         dataset number (I6); 58b: see below
//   records 1-5                      five free ID lines (80A1)
//   record 6  (2(I5,I10),2(1X,10A1,I10,I4))
//             function type, function id, version, load case,
//             response entity, node, direction, reference entity, node,
//             direction
//   record 7  (3I10,3E13.5)
//             ordinate type (2 real single, 4 real double, 5 complex single,
//             6 complex double), points, spacing (0 uneven, 1 even),
//             abscissa minimum, increment, z value
//   records 8-11 (I10,3I5,2(1X,20A1))
//             abscissa, ordinate numerator, ordinate denominator and z axis:
//             specific data type, length, force and temperature unit
//             exponents, label, units label
//   record 12 the values: even abscissa: ordinates only (re, im pairs when
//             complex); uneven: each point's abscissa first. Single
//             precision 6E13.5 per line; double precision 4E20.12 (even),
//             2(E13.5,E20.12) (real uneven) or E13.5,2E20.12 (complex
//             uneven).
//   "    -1"
// 58b: the dataset line is (I6,A1,I6,I6,I12,I12,I6,I6,I12,I12): 58, 'b',
// byte order (1 little, 2 big endian), floating point format (2 IEEE 754),
// ASCII lines that follow (11), bytes of binary data, four zeros; then
// records 1-11 as above, record 12 as raw values in the file's byte order
// and, with no line end between, "    -1". The binary values keep the types
// of the ASCII fields: an uneven abscissa is single precision (E13.5) also
// beside double-precision ordinates. Files that store it in double
// precision instead are read too: the announced byte count tells them apart.
//
// Text fields (records 1-5, the entity names, axis labels and units) are
// bytes in whatever 8-bit encoding the writer used. The reader hands them
// on as UTF-8: kept when a field is valid UTF-8, read as Latin-1 otherwise,
// so no file is refused for its encoding. The writer stores each character
// of U+0000..U+00FF as its one Latin-1 byte (one byte per column, as the
// fixed fields need) and any other character as '?'; text that is not
// valid UTF-8 is written as the bytes it is. (Latin-1 text whose bytes
// happen to form UTF-8, such as "\u00c2\u00b2", reads back as that UTF-8.)
#pragma once

#include <array>
#include <complex>
#include <string>
#include <string_view>
#include <vector>

namespace frfcam::formats {

// Records 8 to 11.
struct UffAxis {
  int specificType = 0;  // 0 unknown, 1 general, 18 frequency, 17 time, ...
  int lengthExponent = 0;
  int forceExponent = 0;
  int temperatureExponent = 0;
  std::string label = "NONE";
  std::string units = "NONE";
};

// Function types of record 6 (1 time history, 2 auto spectrum, 3 cross
// spectrum, 4 FRF, 5 transmissibility, 6 coherence, 9 PSD, ...). The
// stability commands take FRFs unless told otherwise.
inline constexpr int kUffFunctionFrf = 4;

// Ordinate data types of record 7.
enum UffOrdinate : int {
  kUffRealSingle = 2,
  kUffRealDouble = 4,
  kUffComplexSingle = 5,
  kUffComplexDouble = 6,
};

// Text members are UTF-8 (see above).
struct Uff58 {
  std::array<std::string, 5> idLines{"NONE", "NONE", "NONE", "NONE", "NONE"};
  int functionType = kUffFunctionFrf;
  int functionId = 0;
  int version = 0;
  int loadCase = 0;
  std::string responseEntity = "NONE";
  long long responseNode = 0;
  int responseDirection = 0;  // 0 scalar, 1..3 +X..+Z, 4..6 rotations; negative: minus
  std::string referenceEntity = "NONE";
  long long referenceNode = 0;
  int referenceDirection = 0;
  int ordinateType = kUffComplexDouble;
  bool evenAbscissa = true;
  double zValue = 0.0;
  UffAxis abscissa{18, 0, 0, 0, "Frequency", "Hz"};
  UffAxis numerator;
  UffAxis denominator;
  UffAxis zAxis;
  // The abscissa of every point (also for even spacing, where it is
  // minimum + k x increment) and the ordinates (imaginary part 0 when real).
  std::vector<double> x;
  std::vector<std::complex<double>> y;

  bool complex() const {
    return ordinateType == kUffComplexSingle || ordinateType == kUffComplexDouble;
  }
  bool doublePrecision() const {
    return ordinateType == kUffRealDouble || ordinateType == kUffComplexDouble;
  }
};

// "+Z", "-X", "+RY", "scalar" for a direction code.
std::string UffDirectionName(int direction);

// The plain name of a function type: "FRF", "time history", "PSD"; the
// plural when `count` is not 1 ("time histories"); "function of type N"
// for types without a name.
std::string UffFunctionTypeName(int type, long count = 1);

// What a file holds when it has no function of the `wanted` types, for a
// one-line refusal: "holds 4 time histories (function type 1), 1 PSD
// (type 9) and no FRF (type 4)". `present` is the function type of every
// function of the file; the counts are per type, in order of type.
std::string UffNoFunctionOfTypes(const std::vector<int>& present, const std::vector<int>& wanted);

// Bytes of a text field as UTF-8: unchanged when valid UTF-8 (as Python's
// strict decoder judges it), each byte read as Latin-1 otherwise.
std::string UffTextToUtf8(std::string_view bytes);

// Reads every dataset 58 and 58b of a file, in file order. False with a
// one-line reason in *error (the path, the line and what is wrong, UTF-8)
// when the file cannot be read, ends early or a dataset 58 in it is
// malformed; other datasets are skipped whatever their content (a binary
// one by the byte count of its header when it has a readable one, else up
// to the next line that is "-1" in columns 1-6). `skipped` (when given) receives the
// number of datasets of other types.
bool ReadUff58File(const std::string& path, std::vector<Uff58>* out, std::string* error,
                   int* skipped = nullptr);

// The same for the text of a file already in memory; `name` is used in
// messages.
bool ParseUff58(const std::string& text, const std::string& name, std::vector<Uff58>* out,
                std::string* error, int* skipped = nullptr);

// The bytes of `functions` as datasets (binary: 58b, little endian IEEE).
// The spacing of each function follows evenAbscissa; for even spacing the
// first two abscissa values give minimum and increment. Values are rounded
// to the precision of the ordinate type; the minimum and increment of an
// even abscissa (record 7) and every uneven abscissa value, ASCII or
// binary, are single precision (E13.5 or a 4-byte float), as the format
// has them. Text is written as described above. Throws
// std::invalid_argument when x and y differ in length, a function has no
// point, a value is not finite, an ordinate type is not one of the four, a
// number does not fit its field (a node of more than 10 digits), or even
// spacing is claimed for points that are not evenly spaced.
std::string FormatUff58(const std::vector<Uff58>& functions, bool binary);

// Writes FormatUff58's bytes whole (see output_file.h); false with a reason.
bool WriteUff58File(const std::string& path, const std::vector<Uff58>& functions, bool binary,
                    std::string* error);

}  // namespace frfcam::formats
