#include "formats/uff.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "formats/output_file.h"
#include "formats/uff_text.h"
#include "platform/platform.h"

namespace frfcam::formats {

namespace {

// ---- Reading ------------------------------------------------------------------

std::string_view Trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  const auto last = s.find_last_not_of(" \t\r");
  return s.substr(first, last - first + 1);
}

// Fixed columns [begin, begin + width) of a line, empty past its end.
std::string_view Columns(std::string_view line, std::size_t begin, std::size_t width) {
  if (begin >= line.size()) return {};
  return line.substr(begin, std::min(width, line.size() - begin));
}

// A Fortran real: E or D exponents, or an exponent without its letter
// ("1.5-100"), as written for three-digit exponents.
bool ParseReal(std::string_view field, double* value) {
  std::string text(Trim(field));
  if (text.empty()) return false;
  for (std::size_t i = 1; i < text.size(); ++i) {
    char& c = text[i];
    if (c == 'D' || c == 'd') c = 'E';
    if ((c == '+' || c == '-') && std::isdigit(static_cast<unsigned char>(text[i - 1]))) {
      text.insert(i, 1, 'E');
      ++i;
    }
  }
  char* end = nullptr;
  *value = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size() && std::isfinite(*value);
}

bool ParseInt(std::string_view field, long long* value) {
  const std::string text(Trim(field));
  if (text.empty()) return false;
  char* end = nullptr;
  *value = std::strtoll(text.c_str(), &end, 10);
  return end == text.c_str() + text.size();
}

// A piece of the file quoted in a message: UTF-8, and short.
std::string Quote(std::string_view bytes) {
  constexpr std::size_t kMax = 24;
  std::string text = UffTextToUtf8(bytes.substr(0, kMax));
  if (bytes.size() > kMax) text += "...";
  return "'" + text + "'";
}

class Reader {
 public:
  Reader(const std::string& text, const std::string& name) : text_(text), name_(name) {}

  bool AtEnd() const { return pos_ >= text_.size(); }
  std::size_t pos() const { return pos_; }
  // Skips binary data, counting the line ends in it so that later line
  // numbers are those a text editor shows.
  void Skip(std::size_t bytes) {
    line_ += std::count(text_.begin() + static_cast<std::ptrdiff_t>(pos_),
                        text_.begin() + static_cast<std::ptrdiff_t>(pos_ + bytes), '\n');
    pos_ += bytes;
  }
  std::size_t Remaining() const { return text_.size() - pos_; }
  const char* Here() const { return text_.data() + pos_; }
  long line() const { return line_; }

  // The next line without its end (LF or CR LF).
  std::string_view NextLine() {
    const auto end = text_.find('\n', pos_);
    const std::size_t stop = end == std::string::npos ? text_.size() : end;
    std::string_view line(text_.data() + pos_, stop - pos_);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    pos_ = end == std::string::npos ? text_.size() : end + 1;
    ++line_;
    return line;
  }

  // The next line, which must exist: `what` names what it should hold.
  std::string_view RequiredLine(const std::string& what) {
    if (AtEnd()) Fail("the file ends before " + what);
    return NextLine();
  }

  [[noreturn]] void Fail(const std::string& what) const {
    throw std::runtime_error(name_ + ":" + std::to_string(line_) + ": " + what);
  }

 private:
  const std::string& text_;
  const std::string& name_;
  std::size_t pos_ = 0;
  long line_ = 0;
};

// "-1" in columns 1-6 (I6) with nothing after it: a "-1" further right is a
// value of some dataset's record.
bool IsDelimiter(std::string_view line) {
  const std::string_view t = Trim(line);
  return t == "-1" && line.find_last_not_of(" \t\r") < 6;
}

UffAxis ParseAxis(Reader& r, int record) {
  const std::string_view line =
      r.RequiredLine("record " + std::to_string(record) + " of dataset 58");
  UffAxis a;
  long long v[4];
  const std::size_t starts[4] = {0, 10, 15, 20}, widths[4] = {10, 5, 5, 5};
  for (int i = 0; i < 4; ++i) {
    if (!ParseInt(Columns(line, starts[i], widths[i]), &v[i])) {
      r.Fail("record " + std::to_string(record) + ": field " + std::to_string(i + 1) +
             " is not an integer (columns " + std::to_string(starts[i] + 1) + "-" +
             std::to_string(starts[i] + widths[i]) + ")");
    }
  }
  a.specificType = static_cast<int>(v[0]);
  a.lengthExponent = static_cast<int>(v[1]);
  a.forceExponent = static_cast<int>(v[2]);
  a.temperatureExponent = static_cast<int>(v[3]);
  a.label = UffTextToUtf8(Trim(Columns(line, 26, 20)));
  a.units = UffTextToUtf8(Trim(Columns(line, 47, 20)));
  return a;
}

// Record 12 in ASCII: fixed-width fields in the pattern of the type; a line
// that does not split at the fixed columns is read as blank-separated
// numbers (some writers pad differently).
void ParseAsciiValues(Reader& r, const std::vector<std::size_t>& pattern, std::size_t count,
                      std::vector<double>* values) {
  std::size_t field = 0;
  while (values->size() < count) {
    if (r.AtEnd()) {
      r.Fail("record 12 ends after " + std::to_string(values->size()) + " of " +
             std::to_string(count) + " values");
    }
    const std::string_view line = r.NextLine();
    if (IsDelimiter(line)) {
      r.Fail("record 12 ends after " + std::to_string(values->size()) + " of " +
             std::to_string(count) + " values");
    }
    if (Trim(line).empty()) continue;
    std::vector<double> got;
    std::size_t col = 0, f = field;
    bool fixed = true;
    while (col < line.size() && !Trim(line.substr(col)).empty()) {
      const std::size_t w = pattern[f % pattern.size()];
      double v = 0;
      if (!ParseReal(Columns(line, col, w), &v)) {
        fixed = false;
        break;
      }
      got.push_back(v);
      col += w;
      ++f;
    }
    if (!fixed) {
      got.clear();
      std::istringstream in{std::string(line)};
      for (std::string token; in >> token;) {
        double v = 0;
        if (!ParseReal(token, &v)) r.Fail("record 12: " + Quote(token) + " is not a number");
        got.push_back(v);
      }
    }
    for (double v : got) {
      if (values->size() == count)
        r.Fail("record 12 holds more than " + std::to_string(count) + " values");
      values->push_back(v);
    }
    field += got.size();
  }
}

template <class U>
U ByteSwap(U u) {
  U r = 0;
  for (std::size_t i = 0; i < sizeof u; ++i) {
    r = static_cast<U>((r << 8) | (u & 0xff));
    u = static_cast<U>(u >> 8);
  }
  return r;
}

template <class T>
T Load(const char* p, bool bigEndian) {
  using U = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
  U u;
  std::memcpy(&u, p, sizeof u);
  if (bigEndian != (std::endian::native == std::endian::big)) u = ByteSwap(u);
  return std::bit_cast<T>(u);
}

struct BinaryHeader {
  bool binary = false;
  int byteOrder = 1;
  int floatFormat = 2;
  long long asciiLines = 11;
  long long bytes = 0;
};

// The dataset line: "    58" or the 58b form; other dataset numbers too.
// *readable is false for a binary header whose counts are not integers:
// an error for 58b, a dataset to skip by its delimiter otherwise.
long long ParseDatasetLine(Reader& r, std::string_view line, BinaryHeader* b, bool* readable) {
  long long number = 0;
  if (!ParseInt(Columns(line, 0, 6), &number)) {
    r.Fail("expected a dataset number after -1, found " + Quote(Trim(line)));
  }
  b->binary = line.size() > 6 && (line[6] == 'b' || line[6] == 'B');
  *readable = true;
  if (b->binary) {
    long long v[4] = {1, 2, 11, 0};
    const std::size_t starts[4] = {7, 13, 19, 31}, widths[4] = {6, 6, 12, 12};
    for (int i = 0; i < 4; ++i) {
      if (!ParseInt(Columns(line, starts[i], widths[i]), &v[i])) {
        if (number != 58) {
          *readable = false;
          return number;
        }
        r.Fail("binary dataset header: field " + std::to_string(i + 3) + " is not an integer");
      }
    }
    b->byteOrder = static_cast<int>(v[0]);
    b->floatFormat = static_cast<int>(v[1]);
    b->asciiLines = v[2];
    b->bytes = v[3];
  }
  return number;
}

Uff58 ParseDataset58(Reader& r, const BinaryHeader& b) {
  if (b.binary) {
    if (b.asciiLines != 11)
      r.Fail("58b: expected 11 ASCII lines, the header says " + std::to_string(b.asciiLines));
    if (b.floatFormat != 2)
      r.Fail("58b: floating point format " + std::to_string(b.floatFormat) +
             " (only 2, IEEE 754, is read)");
    if (b.byteOrder != 1 && b.byteOrder != 2)
      r.Fail("58b: byte order " + std::to_string(b.byteOrder) + " (1 little, 2 big endian)");
  }
  Uff58 u;
  for (std::size_t i = 0; i < u.idLines.size(); ++i) {
    u.idLines[i] =
        UffTextToUtf8(Trim(r.RequiredLine("record " + std::to_string(i + 1) + " of dataset 58")));
  }

  const std::string_view r6 = r.RequiredLine("record 6 of dataset 58");
  long long v6[8];
  const std::size_t starts6[8] = {0, 5, 15, 20, 41, 51, 66, 76},
                    widths6[8] = {5, 10, 5, 10, 10, 4, 10, 4};
  for (int i = 0; i < 8; ++i) {
    if (!ParseInt(Columns(r6, starts6[i], widths6[i]), &v6[i])) {
      r.Fail("record 6: columns " + std::to_string(starts6[i] + 1) + "-" +
             std::to_string(starts6[i] + widths6[i]) +
             " hold no integer (is the line cut short or shifted?)");
    }
  }
  u.functionType = static_cast<int>(v6[0]);
  u.functionId = static_cast<int>(v6[1]);
  u.version = static_cast<int>(v6[2]);
  u.loadCase = static_cast<int>(v6[3]);
  u.responseEntity = UffTextToUtf8(Trim(Columns(r6, 31, 10)));
  u.responseNode = v6[4];
  u.responseDirection = static_cast<int>(v6[5]);
  u.referenceEntity = UffTextToUtf8(Trim(Columns(r6, 56, 10)));
  u.referenceNode = v6[6];
  u.referenceDirection = static_cast<int>(v6[7]);

  const std::string_view r7 = r.RequiredLine("record 7 of dataset 58");
  long long type = 0, points = 0, spacing = 0;
  double minimum = 0, increment = 0;
  if (!ParseInt(Columns(r7, 0, 10), &type) || !ParseInt(Columns(r7, 10, 10), &points) ||
      !ParseInt(Columns(r7, 20, 10), &spacing)) {
    r.Fail("record 7: columns 1-30 must hold three integers (type, points, spacing)");
  }
  if (!ParseReal(Columns(r7, 30, 13), &minimum) || !ParseReal(Columns(r7, 43, 13), &increment)) {
    r.Fail("record 7: columns 31-56 must hold the abscissa minimum and increment (E13.5)");
  }
  double z = 0;
  if (!Trim(Columns(r7, 56, 13)).empty() && !ParseReal(Columns(r7, 56, 13), &z)) {
    r.Fail("record 7: columns 57-69 hold no number (z value)");
  }
  if (type != kUffRealSingle && type != kUffRealDouble && type != kUffComplexSingle &&
      type != kUffComplexDouble) {
    r.Fail("record 7: ordinate type " + std::to_string(type) +
           " (2, 4 real, 5, 6 complex single and double)");
  }
  if (points < 1 || points > 100000000) r.Fail("record 7: " + std::to_string(points) + " points");
  if (spacing != 0 && spacing != 1)
    r.Fail("record 7: abscissa spacing " + std::to_string(spacing) + " (0 uneven, 1 even)");
  u.ordinateType = static_cast<int>(type);
  u.evenAbscissa = spacing == 1;
  u.zValue = z;
  u.abscissa = ParseAxis(r, 8);
  u.numerator = ParseAxis(r, 9);
  u.denominator = ParseAxis(r, 10);
  u.zAxis = ParseAxis(r, 11);

  const std::size_t n = static_cast<std::size_t>(points);
  const std::size_t perPoint = (u.complex() ? 2 : 1) + (u.evenAbscissa ? 0 : 1);
  std::vector<double> values;
  if (b.binary) {
    const std::size_t width = u.doublePrecision() ? 8 : 4;
    const std::size_t ordinateBytes = n * (perPoint - (u.evenAbscissa ? 0 : 1)) * width;
    // An uneven abscissa takes 4 bytes a point as the format has it, or 8
    // where a writer used the ordinates' double precision for it too.
    std::size_t abscissaWidth = 0;
    if (!u.evenAbscissa) {
      abscissaWidth =
          width == 8 && b.bytes >= 0 && static_cast<std::size_t>(b.bytes) >= ordinateBytes + 8 * n
              ? 8
              : 4;
    }
    const std::size_t need = ordinateBytes + abscissaWidth * n;
    if (b.bytes < 0 || static_cast<std::size_t>(b.bytes) < need) {
      r.Fail("58b: the header announces " + std::to_string(b.bytes) + " bytes, " +
             std::to_string(n) + " points need " + std::to_string(need));
    }
    if (r.Remaining() < static_cast<std::size_t>(b.bytes)) {
      r.Fail("58b: the file ends inside the binary data (" + std::to_string(r.Remaining()) +
             " of " + std::to_string(b.bytes) + " bytes)");
    }
    const bool big = b.byteOrder == 2;
    values.resize(n * perPoint);
    const char* p = r.Here();
    for (std::size_t i = 0; i < values.size(); ++i) {
      const bool abscissa = abscissaWidth > 0 && i % perPoint == 0;
      const std::size_t w = abscissa ? abscissaWidth : width;
      values[i] = w == 8 ? Load<double>(p, big) : Load<float>(p, big);
      p += w;
    }
    r.Skip(static_cast<std::size_t>(b.bytes));
  } else {
    // Every value takes at least one character and a separator; a count
    // beyond that is a truncated file, not a reason to reserve memory.
    if (n * perPoint > r.Remaining()) {
      r.Fail("record 7 announces " + std::to_string(n) + " points; the file ends before them");
    }
    std::vector<std::size_t> pattern;
    if (!u.doublePrecision()) {
      pattern = {13};
    } else if (u.evenAbscissa) {
      pattern = {20};
    } else if (u.complex()) {
      pattern = {13, 20, 20};
    } else {
      pattern = {13, 20};
    }
    ParseAsciiValues(r, pattern, n * perPoint, &values);
  }

  u.x.resize(n);
  u.y.resize(n);
  for (std::size_t k = 0; k < n; ++k) {
    const double* v = &values[k * perPoint];
    std::size_t i = 0;
    u.x[k] = u.evenAbscissa ? minimum + static_cast<double>(k) * increment : v[i++];
    const double re = v[i++];
    const double im = u.complex() ? v[i] : 0.0;
    u.y[k] = {re, im};
  }
  for (;;) {
    if (r.AtEnd()) r.Fail("the dataset does not end with -1");
    const std::string_view line = r.NextLine();
    if (IsDelimiter(line)) break;
    if (!Trim(line).empty()) {
      r.Fail("expected -1 after the " + std::to_string(n) + " points of dataset 58, found " +
             Quote(Trim(line)));
    }
  }
  return u;
}

// ---- Writing ------------------------------------------------------------------

// Appends one record of dataset 58 (see UffAppendRecord).
template <class... Args>
void AppendRecord(std::string* out, std::size_t width, const char* what, const char* format,
                  Args... args) {
  UffAppendRecord(out, width, std::string("UFF 58: a number of ") + what, format, args...);
}

void AppendAxis(std::string* out, const UffAxis& a) {
  AppendRecord(out, 67, "records 8-11 (axes)", "%10d%5d%5d%5d %s %s\n", a.specificType,
               a.lengthExponent, a.forceExponent, a.temperatureExponent,
               UffTextField(a.label, 20).c_str(), UffTextField(a.units, 20).c_str());
}

template <class T>
void Store(std::string* out, T value) {
  using U = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
  U u = std::bit_cast<U>(value);
  if constexpr (std::endian::native == std::endian::big) u = ByteSwap(u);
  char bytes[sizeof u];
  std::memcpy(bytes, &u, sizeof u);
  out->append(bytes, sizeof u);
}

void CheckFunction(const Uff58& u) {
  if (u.x.size() != u.y.size())
    throw std::invalid_argument("UFF 58: abscissa and ordinates differ in length");
  if (u.y.empty()) throw std::invalid_argument("UFF 58: a function without points");
  for (std::size_t k = 0; k < u.y.size(); ++k) {
    if (!std::isfinite(u.x[k]) || !std::isfinite(u.y[k].real()) || !std::isfinite(u.y[k].imag())) {
      throw std::invalid_argument("UFF 58: point " + std::to_string(k) +
                                  " is not finite (the format holds finite numbers only)");
    }
    // Single-precision fields would turn these into infinities.
    constexpr double kFloatMax = std::numeric_limits<float>::max();
    if ((!u.evenAbscissa && std::abs(u.x[k]) > kFloatMax) ||
        (!u.doublePrecision() &&
         (std::abs(u.y[k].real()) > kFloatMax || std::abs(u.y[k].imag()) > kFloatMax))) {
      throw std::invalid_argument("UFF 58: point " + std::to_string(k) +
                                  " does not fit single precision");
    }
  }
  if (u.ordinateType != kUffRealSingle && u.ordinateType != kUffRealDouble &&
      u.ordinateType != kUffComplexSingle && u.ordinateType != kUffComplexDouble) {
    throw std::invalid_argument("UFF 58: ordinate type " + std::to_string(u.ordinateType));
  }
  if (u.evenAbscissa && u.x.size() > 1) {
    const double step = u.x[1] - u.x[0];
    const double range = std::abs(u.x.back() - u.x.front());
    for (std::size_t k = 2; k < u.x.size(); ++k) {
      if (std::abs(u.x[k] - (u.x[0] + static_cast<double>(k) * step)) > 1e-9 * range) {
        throw std::invalid_argument("UFF 58: even spacing claimed for an uneven abscissa");
      }
    }
  }
}

void AppendDataset(std::string* out, const Uff58& u, bool binary) {
  CheckFunction(u);
  const std::size_t n = u.y.size();
  const double minimum = u.evenAbscissa ? u.x[0] : 0.0;
  const double increment = u.evenAbscissa && n > 1 ? u.x[1] - u.x[0] : 0.0;
  const std::size_t width = u.doublePrecision() ? 8 : 4;
  const std::size_t perPoint = (u.complex() ? 2 : 1) + (u.evenAbscissa ? 0 : 1);
  // An uneven abscissa is single precision whatever the ordinates' (E13.5).
  const std::size_t binaryBytes = n * ((u.complex() ? 2 : 1) * width + (u.evenAbscissa ? 0 : 4));

  out->append("    -1\n");
  if (binary) {
    UffAppend(out, "%6d%c%6d%6d%12d%12zu%6d%6d%12d%12d\n", 58, 'b', 1, 2, 11, binaryBytes, 0, 0, 0,
              0);
  } else {
    out->append("    58\n");
  }
  for (const std::string& id : u.idLines) {
    out->append(UffIdLine(id));
    out->push_back('\n');
  }
  AppendRecord(out, 80, "record 6 (function type, ids, nodes, directions)",
               "%5d%10d%5d%10d %s%10lld%4d %s%10lld%4d\n", u.functionType, u.functionId, u.version,
               u.loadCase, UffTextField(u.responseEntity, 10).c_str(), u.responseNode,
               u.responseDirection, UffTextField(u.referenceEntity, 10).c_str(), u.referenceNode,
               u.referenceDirection);
  AppendRecord(out, 69, "record 7 (points, abscissa)", "%10d%10zu%10d%13.5E%13.5E%13.5E\n",
               u.ordinateType, n, u.evenAbscissa ? 1 : 0, minimum, increment, u.zValue);
  AppendAxis(out, u.abscissa);
  AppendAxis(out, u.numerator);
  AppendAxis(out, u.denominator);
  AppendAxis(out, u.zAxis);

  // The values of each point in record order.
  std::vector<double> values;
  values.reserve(n * perPoint);
  for (std::size_t k = 0; k < n; ++k) {
    if (!u.evenAbscissa) values.push_back(u.x[k]);
    values.push_back(u.y[k].real());
    if (u.complex()) values.push_back(u.y[k].imag());
  }
  if (binary) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      const bool abscissa = !u.evenAbscissa && i % perPoint == 0;
      if (width == 8 && !abscissa) {
        Store(out, values[i]);
      } else {
        Store(out, static_cast<float>(values[i]));
      }
    }
  } else if (!u.doublePrecision()) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      UffAppend(out, "%13.5E", values[i]);
      if (i % 6 == 5 || i + 1 == values.size()) out->push_back('\n');
    }
  } else if (u.evenAbscissa) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      UffAppend(out, "%20.12E", values[i]);
      if (i % 4 == 3 || i + 1 == values.size()) out->push_back('\n');
    }
  } else {
    // One point per line (complex) or two (real): abscissa E13.5, ordinates E20.12.
    const std::size_t pointsPerLine = u.complex() ? 1 : 2;
    for (std::size_t k = 0; k < n; ++k) {
      const double* v = &values[k * perPoint];
      UffAppend(out, "%13.5E%20.12E", v[0], v[1]);
      if (u.complex()) UffAppend(out, "%20.12E", v[2]);
      if (k % pointsPerLine == pointsPerLine - 1 || k + 1 == n) out->push_back('\n');
    }
  }
  // 58b: the closing delimiter follows the binary data directly.
  out->append("    -1\n");
}

}  // namespace

std::string UffTextToUtf8(std::string_view bytes) {
  if (UffIsUtf8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char ch : bytes) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out.push_back(ch);
    } else {
      out.push_back(static_cast<char>(0xc0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
  }
  return out;
}

namespace {

struct TypeName {
  int type;
  const char* one;
  const char* many;
};

const TypeName* FindTypeName(int type) {
  static const TypeName kNames[] = {
      {0, "function of unknown kind", "functions of unknown kind"},
      {1, "time history", "time histories"},
      {2, "auto spectrum", "auto spectra"},
      {3, "cross spectrum", "cross spectra"},
      {4, "FRF", "FRFs"},
      {5, "transmissibility", "transmissibilities"},
      {6, "coherence", "coherences"},
      {7, "auto-correlation", "auto-correlations"},
      {8, "cross-correlation", "cross-correlations"},
      {9, "PSD", "PSDs"},
      {10, "energy spectral density", "energy spectral densities"},
      {11, "probability density function", "probability density functions"},
      {12, "spectrum", "spectra"},
      {13, "cumulative frequency distribution", "cumulative frequency distributions"},
      {18, "mode indicator function", "mode indicator functions"},
      {21, "partial coherence", "partial coherences"},
      {24, "shock response spectrum", "shock response spectra"},
      {26, "multiple coherence", "multiple coherences"},
      {27, "order function", "order functions"},
  };
  for (const TypeName& n : kNames) {
    if (n.type == type) return &n;
  }
  return nullptr;
}

// "4 time histories (function type 1)"; "1 function of type 40".
std::string CountOfType(int type, long count, bool first) {
  const std::string text = std::to_string(count) + " " + UffFunctionTypeName(type, count);
  if (FindTypeName(type) == nullptr) return text;
  return text + " (" + (first ? "function type " : "type ") + std::to_string(type) + ")";
}

}  // namespace

std::string UffFunctionTypeName(int type, long count) {
  if (const TypeName* n = FindTypeName(type)) return count == 1 ? n->one : n->many;
  return std::string(count == 1 ? "function" : "functions") + " of type " + std::to_string(type);
}

std::string UffNoFunctionOfTypes(const std::vector<int>& present, const std::vector<int>& wanted) {
  std::vector<int> types = present;
  std::sort(types.begin(), types.end());
  std::vector<std::string> items;
  for (auto it = types.begin(); it != types.end();) {
    const auto end = std::upper_bound(it, types.end(), *it);
    const long count = end - it;
    items.push_back(CountOfType(*it, count, items.empty()));
    it = end;
  }
  std::string missing = "no ";
  std::vector<int> sortedWanted = wanted;
  std::sort(sortedWanted.begin(), sortedWanted.end());
  sortedWanted.erase(std::unique(sortedWanted.begin(), sortedWanted.end()), sortedWanted.end());
  for (std::size_t i = 0; i < sortedWanted.size(); ++i) {
    if (i > 0) missing += " or ";
    missing += UffFunctionTypeName(sortedWanted[i]);
    if (FindTypeName(sortedWanted[i]) != nullptr) {
      missing += " (type " + std::to_string(sortedWanted[i]) + ")";
    }
  }
  std::string text = "holds ";
  if (items.empty()) return text + "no function at all";
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) text += ", ";
    text += items[i];
  }
  return text + " and " + missing;
}

std::string UffDirectionName(int direction) {
  static const char* const kNames[] = {"scalar", "X", "Y", "Z", "RX", "RY", "RZ"};
  const int a = std::abs(direction);
  if (a > 6) return std::to_string(direction);
  if (a == 0) return kNames[0];
  return std::string(direction < 0 ? "-" : "+") + kNames[a];
}

bool ParseUff58(const std::string& text, const std::string& name, std::vector<Uff58>* out,
                std::string* error, int* skipped) {
  out->clear();
  int others = 0;
  Reader r(text, name);
  try {
    while (!r.AtEnd()) {
      const std::string_view line = r.NextLine();
      if (Trim(line).empty()) continue;
      if (!IsDelimiter(line)) {
        r.Fail("expected -1 (the start of a dataset), found " + Quote(Trim(line)));
      }
      if (r.AtEnd()) break;
      const long begun = r.line();
      BinaryHeader b;
      bool readable = true;
      const long long number = ParseDatasetLine(r, r.NextLine(), &b, &readable);
      if (number == 58) {
        out->push_back(ParseDataset58(r, b));
        continue;
      }
      ++others;
      const std::string unfinished = "the file ends inside dataset " + std::to_string(number) +
                                     " begun at line " + std::to_string(begun);
      if (b.binary && readable) {  // its ASCII lines, then its binary data by the header's counts
        for (long long i = 0; i < b.asciiLines; ++i) {
          if (r.AtEnd()) r.Fail(unfinished);
          r.NextLine();
        }
        const auto bytes = static_cast<std::size_t>(std::max(0LL, b.bytes));
        if (bytes > r.Remaining()) r.Fail(unfinished);
        r.Skip(bytes);
      }
      for (;;) {
        if (r.AtEnd()) r.Fail(unfinished);
        if (IsDelimiter(r.NextLine())) break;
      }
    }
  } catch (const std::runtime_error& e) {
    *error = e.what();
    return false;
  }
  if (skipped != nullptr) *skipped = others;
  if (out->empty()) {
    *error = name + ": no dataset 58 (function) in the file";
    return false;
  }
  return true;
}

bool ReadUff58File(const std::string& path, std::vector<Uff58>* out, std::string* error,
                   int* skipped) {
  std::ifstream in(platform::PathFromUtf8(path), std::ios::binary);
  if (!in) {
    std::error_code ec;
    *error = path + (std::filesystem::exists(platform::PathFromUtf8(path), ec) ? ": cannot be read"
                                                                               : ": no such file");
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    *error = path + ": cannot be read";
    return false;
  }
  return ParseUff58(text.str(), path, out, error, skipped);
}

std::string FormatUff58(const std::vector<Uff58>& functions, bool binary) {
  std::string out;
  for (const Uff58& u : functions) AppendDataset(&out, u, binary);
  return out;
}

bool WriteUff58File(const std::string& path, const std::vector<Uff58>& functions, bool binary,
                    std::string* error) {
  std::string bytes;
  try {
    bytes = FormatUff58(functions, binary);
  } catch (const std::invalid_argument& e) {
    *error = path + ": " + e.what();
    return false;
  }
  return WriteFileWhole(path, bytes, error);
}

}  // namespace frfcam::formats
