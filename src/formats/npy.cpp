#include "formats/npy.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "platform/platform.h"

namespace frfcam::formats {

namespace {

constexpr char kMagic[] = "\x93NUMPY";
constexpr std::size_t kMagicBytes = 6;
constexpr std::size_t kAlignment = 64;

using FilePtr = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

bool ParseDescr(const std::string& d, NpyType* type) {
  // '|' and '=' byte orders only make sense for one-byte types or native
  // order; this host is little-endian, so '=' is accepted as '<'.
  if (d.size() < 3 || (d[0] != '<' && d[0] != '=')) return false;
  const std::string t = d.substr(1);
  if (t == "f4")
    *type = NpyType::kFloat32;
  else if (t == "f8")
    *type = NpyType::kFloat64;
  else if (t == "c8")
    *type = NpyType::kComplex64;
  else if (t == "c16")
    *type = NpyType::kComplex128;
  else
    return false;
  return true;
}

// A tiny scanner of the header dictionary: {'descr': '<c8',
// 'fortran_order': False, 'shape': (3, 4), }. Keys may come in any order.
class DictScanner {
 public:
  explicit DictScanner(const std::string& s) : s_(s) {}
  void Skip() {
    while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
  }
  bool Eat(char c) {
    Skip();
    if (i_ < s_.size() && s_[i_] == c) {
      ++i_;
      return true;
    }
    return false;
  }
  bool Peek(char c) {
    Skip();
    return i_ < s_.size() && s_[i_] == c;
  }
  bool String(std::string* out) {
    Skip();
    if (i_ >= s_.size() || (s_[i_] != '\'' && s_[i_] != '"')) return false;
    const char quote = s_[i_++];
    const std::size_t end = s_.find(quote, i_);
    if (end == std::string::npos) return false;
    *out = s_.substr(i_, end - i_);
    i_ = end + 1;
    return true;
  }
  bool Word(std::string* out) {
    Skip();
    const std::size_t start = i_;
    while (i_ < s_.size() && std::isalpha(static_cast<unsigned char>(s_[i_]))) ++i_;
    *out = s_.substr(start, i_ - start);
    return !out->empty();
  }
  bool Number(std::uint64_t* out) {
    Skip();
    if (i_ >= s_.size() || !std::isdigit(static_cast<unsigned char>(s_[i_]))) return false;
    std::uint64_t v = 0;
    while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) {
      const unsigned digit = static_cast<unsigned>(s_[i_++] - '0');
      if (v > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return false;
      v = v * 10 + digit;
    }
    // Python 2 era files may write long integers as 3L.
    if (i_ < s_.size() && s_[i_] == 'L') ++i_;
    *out = v;
    return true;
  }

 private:
  const std::string& s_;
  std::size_t i_ = 0;
};

bool ElementCount(const std::vector<std::uint64_t>& shape, std::uint64_t* count) {
  std::uint64_t n = 1;
  for (std::uint64_t d : shape) {
    if (d != 0 && n > std::numeric_limits<std::uint64_t>::max() / d) return false;
    n *= d;
  }
  *count = n;
  return true;
}

template <typename T>
std::vector<T> Load(const std::vector<std::uint8_t>& bytes) {
  std::vector<T> v(bytes.size() / sizeof(T));
  if (!v.empty()) std::memcpy(v.data(), bytes.data(), v.size() * sizeof(T));
  return v;
}

}  // namespace

std::size_t NpyElementBytes(NpyType type) {
  switch (type) {
    case NpyType::kFloat32:
      return 4;
    case NpyType::kFloat64:
    case NpyType::kComplex64:
      return 8;
    case NpyType::kComplex128:
      return 16;
  }
  return 0;
}

const char* NpyDescr(NpyType type) {
  switch (type) {
    case NpyType::kFloat32:
      return "<f4";
    case NpyType::kFloat64:
      return "<f8";
    case NpyType::kComplex64:
      return "<c8";
    case NpyType::kComplex128:
      return "<c16";
  }
  return "";
}

const char* NpyStatusText(NpyStatus status) {
  switch (status) {
    case NpyStatus::kOk:
      return "ok";
    case NpyStatus::kCannotOpen:
      return "cannot open the file";
    case NpyStatus::kWriteFailed:
      return "writing failed (disk full?)";
    case NpyStatus::kNotNpy:
      return "not a .npy file (no NumPy magic, or an unknown format version)";
    case NpyStatus::kBadHeader:
      return "the .npy header cannot be parsed";
    case NpyStatus::kUnsupported:
      return "unsupported .npy array (only little-endian C-order float32, float64, complex64 "
             "and complex128 are read)";
    case NpyStatus::kTruncated:
      return "the .npy file holds fewer values than its shape says";
    case NpyStatus::kTooLarge:
      return "the .npy array is too large";
  }
  return "unknown";
}

std::string NpyHeader(NpyType type, const std::vector<std::uint64_t>& shape) {
  std::string dict =
      "{'descr': '" + std::string(NpyDescr(type)) + "', 'fortran_order': False, 'shape': (";
  for (std::size_t i = 0; i < shape.size(); ++i) {
    dict += std::to_string(shape[i]);
    if (shape.size() == 1 || i + 1 < shape.size()) dict += ",";
    if (i + 1 < shape.size()) dict += " ";
  }
  dict += "), }";
  // Magic (6) + version (2) + length (2) + dict + padding + '\n' is a
  // multiple of 64.
  const std::size_t unpadded = kMagicBytes + 2 + 2 + dict.size() + 1;
  const std::size_t total = (unpadded + kAlignment - 1) / kAlignment * kAlignment;
  dict.append(total - unpadded, ' ');
  dict += '\n';
  std::string header(kMagic, kMagicBytes);
  header += '\x01';
  header += '\x00';
  const std::size_t len = dict.size();  // < 65536 for any sane rank
  header += static_cast<char>(len & 0xff);
  header += static_cast<char>((len >> 8) & 0xff);
  return header + dict;
}

NpyStatus WriteNpy(const std::string& path, NpyType type, const std::vector<std::uint64_t>& shape,
                   const void* data) {
  std::uint64_t count = 0;
  if (!ElementCount(shape, &count) ||
      count > std::numeric_limits<std::uint64_t>::max() / NpyElementBytes(type)) {
    return NpyStatus::kTooLarge;
  }
  const std::string header = NpyHeader(type, shape);
  const std::string temp = path + ".partial";
  FilePtr file(platform::OpenFile(temp, "wb"), &std::fclose);
  if (!file) return NpyStatus::kCannotOpen;
  const std::uint64_t bytes = count * NpyElementBytes(type);
  bool ok = std::fwrite(header.data(), 1, header.size(), file.get()) == header.size();
  if (ok && bytes > 0) ok = std::fwrite(data, 1, bytes, file.get()) == bytes;
  ok = std::fflush(file.get()) == 0 && ok;
  ok = std::fclose(file.release()) == 0 && ok;
  std::error_code ec;
  if (ok) {
    std::filesystem::rename(platform::PathFromUtf8(temp), platform::PathFromUtf8(path), ec);
    if (!ec) return NpyStatus::kOk;
  }
  std::filesystem::remove(platform::PathFromUtf8(temp), ec);
  return NpyStatus::kWriteFailed;
}

NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const std::complex<float>* data) {
  return WriteNpy(path, NpyType::kComplex64, shape, data);
}
NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const std::complex<double>* data) {
  return WriteNpy(path, NpyType::kComplex128, shape, data);
}
NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const float* data) {
  return WriteNpy(path, NpyType::kFloat32, shape, data);
}
NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const double* data) {
  return WriteNpy(path, NpyType::kFloat64, shape, data);
}

NpyStatus ParseNpyHeader(const std::string& dict, NpyType* type,
                         std::vector<std::uint64_t>* shape) {
  DictScanner s(dict);
  if (!s.Eat('{')) return NpyStatus::kBadHeader;
  bool have_descr = false, have_order = false, have_shape = false;
  bool supported = true;
  while (!s.Peek('}')) {
    std::string key;
    if (!s.String(&key) || !s.Eat(':')) return NpyStatus::kBadHeader;
    if (key == "descr") {
      std::string descr;
      if (!s.String(&descr)) return NpyStatus::kUnsupported;  // structured dtypes
      if (!ParseDescr(descr, type)) supported = false;
      have_descr = true;
    } else if (key == "fortran_order") {
      std::string word;
      if (!s.Word(&word) || (word != "True" && word != "False")) return NpyStatus::kBadHeader;
      if (word == "True") supported = false;
      have_order = true;
    } else if (key == "shape") {
      if (!s.Eat('(')) return NpyStatus::kBadHeader;
      shape->clear();
      while (!s.Peek(')')) {
        std::uint64_t d = 0;
        if (!s.Number(&d)) return NpyStatus::kBadHeader;
        shape->push_back(d);
        if (!s.Eat(',')) break;
      }
      if (!s.Eat(')')) return NpyStatus::kBadHeader;
      have_shape = true;
    } else {
      return NpyStatus::kBadHeader;
    }
    if (!s.Eat(',')) break;
  }
  if (!s.Eat('}')) return NpyStatus::kBadHeader;
  if (!have_descr || !have_order || !have_shape) return NpyStatus::kBadHeader;
  return supported ? NpyStatus::kOk : NpyStatus::kUnsupported;
}

NpyStatus ReadNpy(const std::string& path, NpyArray* out, std::uint64_t max_bytes) {
  FilePtr file(platform::OpenFile(path, "rb"), &std::fclose);
  if (!file) return NpyStatus::kCannotOpen;
  unsigned char pre[kMagicBytes + 2];
  if (std::fread(pre, 1, sizeof pre, file.get()) != sizeof pre ||
      std::memcmp(pre, kMagic, kMagicBytes) != 0) {
    return NpyStatus::kNotNpy;
  }
  const unsigned major = pre[kMagicBytes];
  std::uint64_t header_len = 0;
  if (major == 1) {
    unsigned char l[2];
    if (std::fread(l, 1, 2, file.get()) != 2) return NpyStatus::kNotNpy;
    header_len = l[0] | (unsigned{l[1]} << 8);
  } else if (major == 2) {
    unsigned char l[4];
    if (std::fread(l, 1, 4, file.get()) != 4) return NpyStatus::kNotNpy;
    header_len = l[0] | (std::uint64_t{l[1]} << 8) | (std::uint64_t{l[2]} << 16) |
                 (std::uint64_t{l[3]} << 24);
    if (header_len > (1u << 20)) return NpyStatus::kBadHeader;
  } else {
    return NpyStatus::kNotNpy;
  }
  std::string dict(header_len, '\0');
  if (std::fread(dict.data(), 1, header_len, file.get()) != header_len) {
    return NpyStatus::kBadHeader;
  }
  NpyArray a;
  const NpyStatus parsed = ParseNpyHeader(dict, &a.type, &a.shape);
  if (parsed != NpyStatus::kOk) return parsed;
  std::uint64_t count = 0;
  const std::size_t element = NpyElementBytes(a.type);
  if (!ElementCount(a.shape, &count) || count > max_bytes / element) return NpyStatus::kTooLarge;
  // A short file is refused before its shape's bytes are allocated: a header
  // of a hundred bytes may claim gigabytes. (A size that cannot be told, as
  // of a pipe, leaves it to the read.)
  std::error_code ec;
  const std::uint64_t file_size = std::filesystem::file_size(platform::PathFromUtf8(path), ec);
  const long at = std::ftell(file.get());
  if (!ec && at >= 0 && file_size - static_cast<std::uint64_t>(at) < count * element) {
    return NpyStatus::kTruncated;
  }
  try {
    a.bytes.resize(count * element);
  } catch (const std::bad_alloc&) {
    return NpyStatus::kTooLarge;
  }
  if (!a.bytes.empty() &&
      std::fread(a.bytes.data(), 1, a.bytes.size(), file.get()) != a.bytes.size()) {
    return NpyStatus::kTruncated;
  }
  *out = std::move(a);
  return NpyStatus::kOk;
}

std::uint64_t NpyArray::size() const {
  std::uint64_t n = 0;
  return ElementCount(shape, &n) ? n : 0;
}

std::vector<std::complex<double>> NpyArray::AsComplex() const {
  std::vector<std::complex<double>> v;
  switch (type) {
    case NpyType::kFloat32:
      for (float x : Load<float>(bytes)) v.emplace_back(x, 0.0);
      break;
    case NpyType::kFloat64:
      for (double x : Load<double>(bytes)) v.emplace_back(x, 0.0);
      break;
    case NpyType::kComplex64:
      for (const auto& x : Load<std::complex<float>>(bytes)) v.emplace_back(x);
      break;
    case NpyType::kComplex128:
      v = Load<std::complex<double>>(bytes);
      break;
  }
  return v;
}

std::vector<double> NpyArray::AsReal() const {
  switch (type) {
    case NpyType::kFloat32: {
      const auto f = Load<float>(bytes);
      return std::vector<double>(f.begin(), f.end());
    }
    case NpyType::kFloat64:
      return Load<double>(bytes);
    default:
      throw std::invalid_argument("a complex array read as real values");
  }
}

}  // namespace frfcam::formats
