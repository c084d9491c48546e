#include "formats/npz.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "platform/platform.h"

namespace frfcam::formats {

namespace {

// Zip record signatures and the zip64 extra field.
constexpr std::uint32_t kLocalHeader = 0x04034b50;
constexpr std::uint32_t kCentralHeader = 0x02014b50;
constexpr std::uint32_t kEndOfDirectory = 0x06054b50;
constexpr std::uint16_t kZip64Extra = 0x0001;
constexpr std::uint32_t kZip64Marker = 0xffffffffu;
// Deflate never expands more than about 1032-fold (258 bytes from a
// two-bit code), so a larger claim is a damaged or hostile entry.
constexpr std::uint64_t kMaxDeflateRatio = 1032;

struct Failure {
  std::string what;
};

class Bytes {
 public:
  explicit Bytes(const std::string& data) : data_(data) {}
  std::size_t size() const { return data_.size(); }
  std::uint64_t U(std::size_t at, int bytes) const {
    if (at > data_.size() || data_.size() - at < static_cast<std::size_t>(bytes)) {
      throw Failure{"cut short"};
    }
    std::uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(data_[at + i]);
    return v;
  }
  std::string Text(std::size_t at, std::size_t n) const {
    if (at > data_.size() || data_.size() - at < n) throw Failure{"cut short"};
    return data_.substr(at, n);
  }
  const char* At(std::size_t at) const { return data_.data() + at; }

 private:
  const std::string& data_;
};

struct Entry {
  std::string name;
  int method = 0;
  std::uint32_t crc = 0;
  std::uint64_t compressed = 0;
  std::uint64_t size = 0;
  std::uint64_t localOffset = 0;
};

std::vector<Entry> CentralDirectory(const Bytes& b) {
  // The end record sits in the last 22 bytes plus a comment of at most 64 KiB.
  if (b.size() < 22) throw Failure{"not a zip archive (too short)"};
  std::size_t end = std::string::npos;
  const std::size_t lowest = b.size() > 22 + 65535 ? b.size() - 22 - 65535 : 0;
  for (std::size_t at = b.size() - 22;; --at) {
    if (b.U(at, 4) == kEndOfDirectory) {
      end = at;
      break;
    }
    if (at == lowest) break;
  }
  if (end == std::string::npos) throw Failure{"not a zip archive (no end of central directory)"};
  const std::uint64_t count = b.U(end + 10, 2);
  std::uint64_t at = b.U(end + 16, 4);
  std::vector<Entry> entries;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (b.U(at, 4) != kCentralHeader) throw Failure{"broken central directory"};
    Entry e;
    e.method = static_cast<int>(b.U(at + 10, 2));
    e.crc = static_cast<std::uint32_t>(b.U(at + 16, 4));
    e.compressed = b.U(at + 20, 4);
    e.size = b.U(at + 24, 4);
    const std::size_t nameLength = b.U(at + 28, 2);
    const std::size_t extraLength = b.U(at + 30, 2);
    const std::size_t commentLength = b.U(at + 32, 2);
    e.localOffset = b.U(at + 42, 4);
    e.name = b.Text(at + 46, nameLength);
    // Zip64: the fields that overflowed follow in the extra field, in order.
    std::size_t x = at + 46 + nameLength;
    const std::size_t xEnd = x + extraLength;
    while (x + 4 <= xEnd) {
      const std::uint64_t id = b.U(x, 2), length = b.U(x + 2, 2);
      if (id == kZip64Extra) {
        std::size_t f = x + 4;
        if (e.size == kZip64Marker) e.size = b.U(f, 8), f += 8;
        if (e.compressed == kZip64Marker) e.compressed = b.U(f, 8), f += 8;
        if (e.localOffset == kZip64Marker) e.localOffset = b.U(f, 8);
      }
      x += 4 + length;
    }
    entries.push_back(e);
    at += 46 + nameLength + extraLength + commentLength;
  }
  return entries;
}

std::string Member(const std::string& data, const Bytes& b, const Entry& e, std::uint64_t* budget) {
  const std::uint64_t at = e.localOffset;
  if (b.U(at, 4) != kLocalHeader) throw Failure{"broken local header"};
  const std::uint64_t start = at + 30 + b.U(at + 26, 2) + b.U(at + 28, 2);
  if (start > data.size() || data.size() - start < e.compressed) throw Failure{"cut short"};
  if (e.size > *budget) throw Failure{"larger than the memory allowed for arrays"};
  *budget -= e.size;
  std::string out;
  if (e.method == 0) {
    if (e.compressed != e.size) throw Failure{"stored sizes differ"};
    out.assign(b.At(start), e.size);
  } else if (e.method == 8) {
    // Checked before the output is allocated: a few bytes must not claim gigabytes.
    if (e.size / kMaxDeflateRatio > e.compressed) throw Failure{"corrupt compressed data"};
    out.resize(e.size);
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) throw Failure{"cannot start decompression"};
    // zlib counts in 32 bits; feed and drain in chunks.
    std::uint64_t in = 0, produced = 0;
    int status = Z_OK;
    while (status == Z_OK) {
      const auto inChunk = static_cast<uInt>(std::min<std::uint64_t>(e.compressed - in, 1u << 30));
      const auto outChunk = static_cast<uInt>(std::min<std::uint64_t>(e.size - produced, 1u << 30));
      z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(b.At(start + in)));
      z.avail_in = inChunk;
      z.next_out = reinterpret_cast<Bytef*>(out.data() + produced);
      z.avail_out = outChunk;
      status = inflate(&z, Z_NO_FLUSH);
      in += inChunk - z.avail_in;
      produced += outChunk - z.avail_out;
      if (status == Z_OK && inChunk == z.avail_in && outChunk == z.avail_out) status = Z_BUF_ERROR;
    }
    inflateEnd(&z);
    if (status != Z_STREAM_END || produced != e.size) throw Failure{"corrupt compressed data"};
  } else {
    throw Failure{"compression method " + std::to_string(e.method) +
                  " (only stored and deflate are read)"};
  }
  uLong crc = crc32(0L, Z_NULL, 0);
  for (std::uint64_t done = 0; done < out.size();) {
    const auto n = static_cast<uInt>(std::min<std::uint64_t>(out.size() - done, 1u << 30));
    crc = crc32(crc, reinterpret_cast<const Bytef*>(out.data() + done), n);
    done += n;
  }
  if (crc != e.crc) throw Failure{"checksum mismatch"};
  return out;
}

// A .npy held in memory; the header is parsed by the .npy reader.
NpyArray ParseNpy(const std::string& npy) {
  const Bytes b(npy);
  if (npy.size() < 10 || npy.compare(0, 6, "\x93NUMPY") != 0) throw Failure{"not a .npy array"};
  const unsigned major = static_cast<unsigned char>(npy[6]);
  if (major != 1 && major != 2) throw Failure{"not a .npy array of version 1 or 2"};
  const std::size_t lengthBytes = major == 1 ? 2 : 4;
  const std::uint64_t headerLength = b.U(8, static_cast<int>(lengthBytes));
  const std::string dict = b.Text(8 + lengthBytes, headerLength);
  NpyArray a;
  const NpyStatus status = ParseNpyHeader(dict, &a.type, &a.shape);
  if (status != NpyStatus::kOk) throw Failure{NpyStatusText(status)};
  const std::uint64_t start = 8 + lengthBytes + headerLength;
  const std::uint64_t element = NpyElementBytes(a.type);
  std::uint64_t count = 1;
  for (std::uint64_t d : a.shape) {
    if (d != 0 && count > std::numeric_limits<std::uint64_t>::max() / d) {
      throw Failure{"shape too large"};
    }
    count *= d;
  }
  // Bytes and shape must agree exactly, also where count x element would wrap.
  if (count > std::numeric_limits<std::uint64_t>::max() / element) {
    throw Failure{"shape too large"};
  }
  if (npy.size() - start != count * element) throw Failure{"data size does not match its shape"};
  a.bytes.assign(npy.begin() + static_cast<std::ptrdiff_t>(start), npy.end());
  return a;
}

// A member name as messages show it: control characters (a newline in a
// name would break the one-line message) as '?'.
std::string Shown(const std::string& name) {
  std::string s = name;
  for (char& c : s) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return s;
}

bool IsComplex(const NpyArray& a) {
  return a.type == NpyType::kComplex64 || a.type == NpyType::kComplex128;
}

std::string ShapeText(const std::vector<std::uint64_t>& shape) {
  std::string s = "(";
  for (std::size_t i = 0; i < shape.size(); ++i) {
    s += (i ? ", " : "") + std::to_string(shape[i]);
  }
  return s + (shape.size() == 1 ? ",)" : ")");
}

const NpzMember* Named(const std::vector<NpzMember>& members,
                       std::initializer_list<const char*> names) {
  for (const char* n : names) {
    for (const NpzMember& m : members) {
      if (m.name == n) return &m;
    }
  }
  return nullptr;
}

}  // namespace

bool ReadNpz(const std::string& path, std::vector<NpzMember>* out, std::string* error,
             std::uint64_t maxBytes) {
  std::error_code ec;
  const std::filesystem::path p = platform::PathFromUtf8(path);
  if (!std::filesystem::exists(p, ec)) {
    *error = path + ": no such file";
    return false;
  }
  std::ifstream in(p, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  if (!in || in.bad()) {
    *error = path + ": cannot be read";
    return false;
  }
  const std::string data = all.str();
  const Bytes b(data);
  std::string member;
  try {
    std::vector<NpzMember> members;
    std::uint64_t budget = maxBytes;
    for (const Entry& e : CentralDirectory(b)) {
      member = e.name;
      NpzMember m;
      m.name = e.name.size() > 4 && e.name.ends_with(".npy") ? e.name.substr(0, e.name.size() - 4)
                                                             : e.name;
      m.array = ParseNpy(Member(data, b, e, &budget));
      members.push_back(std::move(m));
    }
    *out = std::move(members);
    return true;
  } catch (const Failure& f) {
    *error = path + (member.empty() ? "" : " (member " + Shown(member) + ")") + ": " + f.what;
  } catch (const std::bad_alloc&) {
    *error = path + ": out of memory";
  }
  return false;
}

bool FrfFromArrays(const std::vector<NpzMember>& members, const std::string& name, FrfArrays* out,
                   std::string* error) {
  const NpzMember* freq =
      Named(members, {"frequencies_hz", "frequencies", "frequency", "freq", "f"});
  const NpzMember* frf = Named(members, {"frf_matrix", "frf", "H", "h"});
  if ((freq == nullptr || frf == nullptr) && members.size() == 2) {
    const NpzMember& a = members[0];
    const NpzMember& b = members[1];
    if (!IsComplex(a.array) && a.array.shape.size() == 1 && IsComplex(b.array)) {
      freq = &a, frf = &b;
    } else if (!IsComplex(b.array) && b.array.shape.size() == 1 && IsComplex(a.array)) {
      freq = &b, frf = &a;
    }
  }
  std::string names;
  for (const NpzMember& m : members) {
    names += (names.empty() ? "" : ", ") + Shown(m.name) + " " + ShapeText(m.array.shape);
  }
  if (freq == nullptr || frf == nullptr) {
    *error = name +
             ": expected a frequency vector (frequencies_hz, freq, ...) and a complex FRF "
             "matrix (frf_matrix, frf, H, ...); found " +
             (names.empty() ? "nothing" : names);
    return false;
  }
  if (freq->array.shape.size() != 1 || IsComplex(freq->array)) {
    *error = name + ": " + Shown(freq->name) + " " + ShapeText(freq->array.shape) +
             " is not a real 1-D frequency vector";
    return false;
  }
  const std::uint64_t lines = freq->array.shape[0];
  const std::vector<std::uint64_t>& s = frf->array.shape;
  std::uint64_t channels = 0;
  bool transposed = false;
  if (s.size() == 1 && s[0] == lines) {
    channels = 1;
  } else if (s.size() == 2 && s[0] == lines) {
    channels = s[1];
  } else if (s.size() == 2 && s[1] == lines) {
    channels = s[0];
    transposed = true;
  } else {
    *error = name + ": " + Shown(frf->name) + " " + ShapeText(s) + " does not have " +
             std::to_string(lines) + " lines like " + Shown(freq->name);
    return false;
  }
  out->frequencyHz = freq->array.AsReal();
  const std::vector<std::complex<double>> values = frf->array.AsComplex();
  out->channels = static_cast<std::size_t>(channels);
  out->frf.resize(values.size());
  // C order: (lines, channels) has line i of channel c at i * channels + c.
  for (std::uint64_t c = 0; c < channels; ++c) {
    for (std::uint64_t i = 0; i < lines; ++i) {
      out->frf[c * lines + i] = transposed ? values[c * lines + i] : values[i * channels + c];
    }
  }
  out->note = "frequencies from " + freq->name + ", FRFs from " + frf->name + " " + ShapeText(s) +
              (transposed ? " (channels by lines)" : "");
  return true;
}

}  // namespace frfcam::formats
