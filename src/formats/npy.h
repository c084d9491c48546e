// NumPy's .npy array files, version 1.0: a magic string, a version, a little
// endian header length and a Python-literal header dictionary padded so that
// the data starts on a 64-byte boundary, then the raw little-endian values.
// Only C-order (row-major) arrays of four element types are written and read:
// the ones frfcam exchanges (complex shapes and FRFs, real axes and maps).
#pragma once

#include <complex>
#include <cstdint>
#include <string>
#include <vector>

namespace frfcam::formats {

enum class NpyType {
  kFloat32,     // '<f4'
  kFloat64,     // '<f8'
  kComplex64,   // '<c8': two float32, real first
  kComplex128,  // '<c16': two float64, real first
};

// Bytes of one element of `type`.
std::size_t NpyElementBytes(NpyType type);
// The dtype string of `type` as the header spells it ("<c8" ...).
const char* NpyDescr(NpyType type);

// Result codes of the writer and the reader.
enum class NpyStatus {
  kOk = 0,
  kCannotOpen,   // the file cannot be created / opened
  kWriteFailed,  // a short write (disk full); the partial file is removed
  kNotNpy,       // no NumPy magic, or a version other than 1.0 / 2.0
  kBadHeader,    // the dictionary cannot be parsed
  kUnsupported,  // Fortran order, big-endian, or a dtype not listed above
  kTruncated,    // fewer data bytes than the shape needs
  kTooLarge,     // the shape's element count overflows or exceeds memory limits
};

// A human-readable line for a status ("not a .npy file" ...).
const char* NpyStatusText(NpyStatus status);

// The encoded header (magic through padding) of an array of `shape`; the data
// follows it directly. Exposed so that streaming writers can put the values
// in place themselves.
std::string NpyHeader(NpyType type, const std::vector<std::uint64_t>& shape);

// Writes `data` (product(shape) elements of `type`, raw bytes in host order,
// which must be little-endian) to `path`, replacing the file. The file is
// written under a temporary name and renamed, so a failed or interrupted write
// never leaves something that reads as a complete array.
NpyStatus WriteNpy(const std::string& path, NpyType type, const std::vector<std::uint64_t>& shape,
                   const void* data);

// Typed conveniences of WriteNpy.
NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const std::complex<float>* data);
NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const std::complex<double>* data);
NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const float* data);
NpyStatus WriteNpy(const std::string& path, const std::vector<std::uint64_t>& shape,
                   const double* data);

// An array read from a file: its element type, shape (empty for a scalar)
// and raw little-endian bytes (product(shape) * element bytes).
struct NpyArray {
  NpyType type = NpyType::kFloat64;
  std::vector<std::uint64_t> shape;
  std::vector<std::uint8_t> bytes;

  std::uint64_t size() const;  // element count
  // The values converted to complex<double> / double. AsReal of a complex
  // array throws std::invalid_argument (it would drop the imaginary parts).
  std::vector<std::complex<double>> AsComplex() const;
  std::vector<double> AsReal() const;
};

// Reads a .npy file (format 1.0 or 2.0) into `out`. `max_bytes` bounds the
// data that is accepted (kTooLarge beyond it), so a hostile header cannot ask
// for unbounded memory. `out` is only written on kOk.
NpyStatus ReadNpy(const std::string& path, NpyArray* out,
                  std::uint64_t max_bytes = std::uint64_t{1} << 34);

// The header parser on its own, for tests: `dict` is the header text after
// the length field.
NpyStatus ParseNpyHeader(const std::string& dict, NpyType* type, std::vector<std::uint64_t>* shape);

}  // namespace frfcam::formats
