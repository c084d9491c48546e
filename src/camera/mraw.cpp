// MRAW recordings: a headerless run of frames, each width x height pixel
// codes from the top-left pixel row by row, described by a CIH or CIHX file
// of the same name beside it.
//
// What this relies on: the header keys as recordings carry them (Image
// Width, Image Height, Total Frame, Record Rate(fps), Save Step, Color Type,
// Color Bit, File Format, EffectiveBit Depth, EffectiveBit Side) and their
// CIHX elements; Color Bit is the stored bits per pixel (8, 12 or 16 for
// monochrome, 24 and more for colour); EffectiveBit Side says whether the
// camera's bits fill the low or the high end of the stored code. 12-bit
// data is a big-endian bit stream: bytes b0 b1 b2 hold (b0 << 4 | b1 >> 4)
// then ((b1 & 15) << 8 | b2). 16-bit codes are little-endian words, as
// recordings written on PCs carry them; when the camera's bits are fewer
// than 16 and the first frame's words keep the unused bits clear only when
// read big-endian, they are read that way (and the reader says so). Frame 0
// is the first frame saved, whatever the camera numbered it (Start Frame).
// The frames follow each other without padding, so with an odd pixel count
// every other 12-bit frame starts mid-byte; a file whose size matches
// byte-padded frames exactly is read that way instead.
#include <cctype>
#include <charconv>
#include <cmath>
#include <initializer_list>
#include <new>
#include <utility>
#include <vector>

#include "camera/cih.h"
#include "camera/video_source.h"
#include "platform/platform.h"

namespace frfcam::camera {
namespace {

// Larger than any header with its comments and camera notes.
constexpr std::uint64_t kMaxHeaderBytes = 16u << 20;
// Beyond any sensor, and small enough that a frame's bit count fits easily.
constexpr unsigned kMaxSide = 1u << 16;

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool ParseInt(const std::string& s, std::int64_t* v) {
  const char* end = s.data() + s.size();
  const char* begin = s.data() + (!s.empty() && s[0] == '+');
  const auto r = std::from_chars(begin, end, *v);
  return r.ec == std::errc() && r.ptr == end && begin != end;
}

bool ParseDouble(const std::string& s, double* v) {
  const char* end = s.data() + s.size();
  const auto r = std::from_chars(s.data(), end, *v);
  return r.ec == std::errc() && r.ptr == end && !s.empty() && std::isfinite(*v);
}

// The codes of a frame into samples: (code >> shift) & mask, which keeps the
// camera's significant bits wherever they sit.
FRFCAM_VECTOR_CLONES
void Unpack8(const std::uint8_t* src, std::size_t n, int shift, std::uint16_t mask,
             std::uint16_t* dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<std::uint16_t>((src[i] >> shift) & mask);
}

FRFCAM_VECTOR_CLONES
void Unpack16(const std::uint8_t* src, std::size_t n, bool big_endian, int shift,
              std::uint16_t mask, std::uint16_t* dst) {
  const int lo = big_endian ? 1 : 0;
  for (std::size_t i = 0; i < n; ++i) {
    const unsigned v = src[2 * i + lo] | static_cast<unsigned>(src[2 * i + 1 - lo]) << 8;
    dst[i] = static_cast<std::uint16_t>((v >> shift) & mask);
  }
}

// Words of `bytes` whose bits outside `used` are set, read in either order.
void CountStrayBits(const std::uint8_t* bytes, std::size_t words, std::uint16_t used,
                    std::size_t* little, std::size_t* big) {
  *little = *big = 0;
  for (std::size_t i = 0; i < words; ++i) {
    const unsigned a = bytes[2 * i], b = bytes[2 * i + 1];
    *little += ((a | b << 8) & ~unsigned{used} & 0xFFFFu) != 0;
    *big += ((b | a << 8) & ~unsigned{used} & 0xFFFFu) != 0;
  }
}

// `src` starts at a group boundary, or at its middle byte (`mid_byte`) when
// the frame begins with the second code of a group.
FRFCAM_VECTOR_CLONES
void Unpack12(const std::uint8_t* src, std::size_t n, bool mid_byte, int shift, std::uint16_t mask,
              std::uint16_t* dst) {
  if (mid_byte && n > 0) {
    const unsigned v = (src[0] & 15u) << 8 | src[1];
    *dst++ = static_cast<std::uint16_t>((v >> shift) & mask);
    src += 2;
    --n;
  }
  const std::size_t pairs = n / 2;
  for (std::size_t i = 0; i < pairs; ++i) {
    const unsigned b0 = src[3 * i], b1 = src[3 * i + 1], b2 = src[3 * i + 2];
    dst[2 * i] = static_cast<std::uint16_t>(((b0 << 4 | b1 >> 4) >> shift) & mask);
    dst[2 * i + 1] = static_cast<std::uint16_t>((((b1 & 15u) << 8 | b2) >> shift) & mask);
  }
  if (n % 2) {
    const unsigned v = static_cast<unsigned>(src[3 * pairs]) << 4 | src[3 * pairs + 1] >> 4;
    dst[n - 1] = static_cast<std::uint16_t>((v >> shift) & mask);
  }
}

// Stored 12-bit pairs into the capture's packing, in place: b0 b1 b2 hold
// a = b0 b1[7:4] and b = b1[3:0] b2, and the capture keeps a's high byte,
// then a's low nibble over b's, then b's high byte.
FRFCAM_INTEGER_CLONES
void RepackPairs(std::uint8_t* bytes, std::size_t pairs) {
  for (std::size_t i = 0; i < pairs; ++i) {
    const unsigned b1 = bytes[3 * i + 1], b2 = bytes[3 * i + 2];
    bytes[3 * i + 1] = static_cast<std::uint8_t>((b1 & 0xF0u) | (b2 & 0x0Fu));
    bytes[3 * i + 2] = static_cast<std::uint8_t>((b1 << 4) | (b2 >> 4));
  }
}

class MrawSource final : public VideoSource {
 public:
  MrawSource(platform::File file, std::string path)
      : file_(std::move(file)), path_(std::move(path)) {}

  // Checks the fields against the data file and sizes the read buffer;
  // false with *error when they do not fit.
  bool Init(const SourceInfo& info, int container, bool high_side, std::uint64_t file_size,
            std::string* error);

  bool ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) override;
  // Codes that fill their container, and 12-bit frames of whole pairs that
  // follow each other without padding, are already the capture's bytes (up
  // to the order of nibbles within a pair).
  bool HasCaptureBytes(int bits) const override {
    return bits == container_ && bits == info_.bits && (bits == 8 || bits == 12) &&
           (bits == 8 || (pixels_ % 2 == 0 && stride_bits_ == pixels_ * 12));
  }
  bool ReadCaptureBytes(std::int64_t f, int bits, unsigned y0, unsigned rows, std::uint8_t* out,
                        std::string* error) override;

 private:
  // Reads `bytes` at `offset` of frame f, or says how short the file is.
  bool ReadBytes(std::int64_t f, std::uint64_t offset, std::size_t bytes, std::uint8_t* out,
                 std::string* error);

  platform::File file_;
  std::string path_;
  int container_ = 8;  // stored bits per pixel
  int shift_ = 0;
  bool big_endian_ = false;  // 16-bit words
  std::uint16_t mask_ = 0xFF;
  std::uint64_t pixels_ = 0;
  std::uint64_t stride_bits_ = 0;  // from one frame's start to the next
  std::vector<std::uint8_t> buffer_;
};

bool MrawSource::Init(const SourceInfo& info, int container, bool high_side,
                      std::uint64_t file_size, std::string* error) {
  info_ = info;
  container_ = container;
  shift_ = high_side ? container - info.bits : 0;
  mask_ = static_cast<std::uint16_t>((1u << info.bits) - 1);
  pixels_ = std::uint64_t{info.width} * info.height;
  const std::uint64_t frame_bits = pixels_ * static_cast<unsigned>(container);
  const std::uint64_t padded_bytes = (frame_bits + 7) / 8;
  stride_bits_ = frame_bits;
  // A file of byte-padded frames has exactly that size; a stream does not
  // when the frames end mid-byte.
  if (frame_bits % 8 != 0 && info.frames > 1 &&
      file_size / padded_bytes == static_cast<std::uint64_t>(info.frames) &&
      file_size % padded_bytes == 0) {
    stride_bits_ = padded_bytes * 8;
  }
  const std::uint64_t held =
      file_size >= padded_bytes ? 1 + (file_size * 8 - frame_bits) / stride_bits_ : 0;
  if (held < static_cast<std::uint64_t>(info.frames)) {
    *error = path_ + ": the header claims " + std::to_string(info.frames) + " frames of " +
             std::to_string(info.width) + "x" + std::to_string(info.height) + " at " +
             std::to_string(container) + " bits, the file holds " + std::to_string(held) + " (" +
             std::to_string(file_size) + " bytes)";
    return false;
  }
  try {
    buffer_.resize(padded_bytes + 1);  // +1: a frame that starts mid-byte
  } catch (const std::bad_alloc&) {
    *error = path_ + ": out of memory for a frame of " + std::to_string(padded_bytes) + " bytes";
    return false;
  }
  if (container == 16 && info.bits < 16) {
    // The bits the camera does not fill are clear in every word read the
    // right way round.
    if (file_.ReadAt(0, buffer_.data(), padded_bytes) != padded_bytes) {
      *error = path_ + ": cannot read the first frame";
      return false;
    }
    const auto used = static_cast<std::uint16_t>(mask_ << shift_);
    std::size_t little = 0, big = 0;
    CountStrayBits(buffer_.data(), static_cast<std::size_t>(pixels_), used, &little, &big);
    if (little > 0 && big == 0) {
      big_endian_ = true;
      info_.notes =
          "16-bit words read big-endian: only so do the first frame's codes stay within " +
          std::to_string(info.bits) + " bits";
    }
  }
  return true;
}

bool MrawSource::ReadBytes(std::int64_t f, std::uint64_t offset, std::size_t bytes,
                           std::uint8_t* out, std::string* error) {
  if (f < 0 || f >= info_.frames) {
    *error = path_ + ": frame " + std::to_string(f) + " is outside 0.." +
             std::to_string(info_.frames - 1);
    return false;
  }
  const std::size_t got = file_.ReadAt(offset, out, bytes);
  if (got != bytes) {
    *error = path_ + ": frame " + std::to_string(f) + ": the file ends " +
             std::to_string(bytes - got) + " bytes short of it";
    return false;
  }
  return true;
}

bool MrawSource::ReadCaptureBytes(std::int64_t f, int bits, unsigned y0, unsigned rows,
                                  std::uint8_t* out, std::string* error) {
  const std::uint64_t first = std::uint64_t{y0} * info_.width;
  const std::uint64_t count = std::uint64_t{rows} * info_.width;
  const unsigned size = bits == 8 ? 1 : 3;  // bytes per group of 1 or 2 pixels
  const unsigned per = bits == 8 ? 1 : 2;
  if (bits != container_ || y0 + std::uint64_t{rows} > info_.height || first % per != 0 ||
      count % per != 0) {
    *error = path_ + ": rows not in the stored form";
    return false;
  }
  const std::uint64_t offset =
      static_cast<std::uint64_t>(f) * (stride_bits_ / 8) + first / per * size;
  if (!ReadBytes(f, offset, static_cast<std::size_t>(count / per * size), out, error)) {
    return false;
  }
  if (bits == 12) RepackPairs(out, static_cast<std::size_t>(count / 2));
  return true;
}

bool MrawSource::ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) {
  const std::uint64_t start_bit = static_cast<std::uint64_t>(f) * stride_bits_;
  const bool mid_byte = start_bit % 8 != 0;
  const std::size_t bytes = static_cast<std::size_t>(
      (start_bit % 8 + pixels_ * static_cast<unsigned>(container_) + 7) / 8);
  if (!ReadBytes(f, start_bit / 8, bytes, buffer_.data(), error)) return false;
  const std::size_t n = static_cast<std::size_t>(pixels_);
  switch (container_) {
    case 8:
      Unpack8(buffer_.data(), n, shift_, mask_, samples);
      break;
    case 12:
      Unpack12(buffer_.data(), n, mid_byte, shift_, mask_, samples);
      break;
    default:
      Unpack16(buffer_.data(), n, big_endian_, shift_, mask_, samples);
      break;
  }
  return true;
}

// The first of `exts` that names a regular file beside `parts`' stem.
std::string FindBeside(const platform::PathParts& parts, std::initializer_list<const char*> exts) {
  for (const char* ext : exts) {
    const std::string p = parts.drive + parts.dir + parts.fname + ext;
    if (platform::IsRegularFile(p)) return p;
  }
  return {};
}

// The whole header file, or false with *error.
bool ReadHeader(const std::string& path, std::string* text, std::string* error) {
  platform::File file;
  std::uint64_t size = 0;
  if (!file.Open(path, platform::File::Mode::kRead) || !file.Size(&size)) {
    *error = path + ": cannot open the header";
    return false;
  }
  if (size > kMaxHeaderBytes) {
    *error = path + ": " + std::to_string(size) + " bytes is too large for a header";
    return false;
  }
  text->resize(static_cast<std::size_t>(size));
  if (file.ReadAt(0, text->data(), text->size()) != text->size()) {
    *error = path + ": cannot read the header";
    return false;
  }
  return true;
}

// The header's facts as SourceInfo plus the stored bits per pixel and the
// side the significant bits sit on; false with one line (without the file
// name) in *error.
bool Interpret(const CihFields& fields, SourceInfo* info, int* container, bool* high_side,
               std::string* error) {
  const auto get = [&](const char* key) -> const std::string* {
    const auto it = fields.find(key);
    return it == fields.end() ? nullptr : &it->second;
  };
  const auto integer = [&](const char* key, std::int64_t lo, std::int64_t hi, std::int64_t* v,
                           bool required) {
    const std::string* s = get(key);
    if (!s) {
      if (required) *error = std::string("no \"") + key + "\" field";
      return !required;
    }
    if (!ParseInt(*s, v) || *v < lo || *v > hi) {
      *error = std::string("\"") + key + "\" is " + *s + ", not a whole number in " +
               std::to_string(lo) + ".." + std::to_string(hi);
      return false;
    }
    return true;
  };
  if (const std::string* format = get("file format"); format && Lower(*format) != "mraw") {
    *error = "the header describes " + *format + " files, not MRAW";
    return false;
  }
  std::int64_t color_bit = 0;
  if (!integer("color bit", 1, 1 << 20, &color_bit, true)) return false;
  const std::string* type = get("color type");
  if ((type && Lower(*type) != "mono") || color_bit > 16) {
    *error = "a colour recording (Color Type " + (type ? *type : std::string("?")) +
             ", Color Bit " + std::to_string(color_bit) + "): only monochrome is read";
    return false;
  }
  if (color_bit != 8 && color_bit != 12 && color_bit != 16) {
    *error = "Color Bit " + std::to_string(color_bit) + " is not a stored depth (8, 12 or 16)";
    return false;
  }
  *container = static_cast<int>(color_bit);
  std::int64_t width = 0, height = 0, frames = 0, effective = color_bit, step = 1;
  if (!integer("image width", 0, kMaxSide, &width, true) ||
      !integer("image height", 0, kMaxSide, &height, true) ||
      !integer("total frame", 0, INT64_MAX, &frames, true) ||
      !integer("effectivebit depth", 1, color_bit, &effective, false) ||
      !integer("save step", 1, INT32_MAX, &step, false)) {
    return false;
  }
  if (width == 0 || height == 0) {
    *error = "the image is " + std::to_string(width) + "x" + std::to_string(height);
    return false;
  }
  if (frames == 0) {
    *error = "the recording has no frames";
    return false;
  }
  *high_side = false;
  if (const std::string* side = get("effectivebit side")) {
    const std::string s = Lower(*side);
    if (s != "lower" && s != "higher") {
      *error = "EffectiveBit Side is " + *side + ", not Lower or Higher";
      return false;
    }
    *high_side = s == "higher";
  }
  double fps = 0.0;
  if (const std::string* rate = get("record rate(fps)");
      rate && (!ParseDouble(*rate, &fps) || fps < 0)) {
    *error = "Record Rate(fps) is " + *rate + ", not a frame rate";
    return false;
  }
  info->format = "MRAW";
  info->width = static_cast<unsigned>(width);
  info->height = static_cast<unsigned>(height);
  info->frames = frames;
  // Saving every step-th frame of the recording slows the saved sequence.
  info->fps = fps / static_cast<double>(step);
  info->bits = static_cast<int>(effective);
  return true;
}

}  // namespace

std::unique_ptr<VideoSource> OpenMraw(const std::string& path, std::string* error) {
  const platform::PathParts parts = platform::SplitPath(path);
  const std::string ext = Lower(parts.ext);
  std::string header_path, data_path;
  if (ext == ".cih" || ext == ".cihx") {
    header_path = path;
    data_path = FindBeside(parts, {".mraw", ".MRAW"});
    if (data_path.empty()) {
      *error = path + ": its MRAW file (" + parts.fname + ".mraw) is missing";
      return nullptr;
    }
  } else if (ext == ".mraw") {
    data_path = path;
    header_path = FindBeside(parts, {".cihx", ".CIHX", ".cih", ".CIH"});
    if (header_path.empty()) {
      *error = path + ": no " + parts.fname + ".cih or .cihx header beside it";
      return nullptr;
    }
  } else {
    *error = path + ": not a .cih, .cihx or .mraw file";
    return nullptr;
  }

  std::string text;
  if (!ReadHeader(header_path, &text, error)) return nullptr;
  CihFields fields;
  if (Lower(platform::SplitPath(header_path).ext) == ".cihx") {
    std::string why;
    if (!ParseCihx(text, &fields, &why)) {
      *error = header_path + ": " + why;
      return nullptr;
    }
  } else {
    fields = ParseCih(text);
  }
  SourceInfo info;
  int container = 8;
  bool high_side = false;
  std::string why;
  if (!Interpret(fields, &info, &container, &high_side, &why)) {
    *error = header_path + ": " + why;
    return nullptr;
  }

  platform::File data;
  std::uint64_t size = 0;
  if (!data.Open(data_path, platform::File::Mode::kRead) || !data.Size(&size)) {
    *error = data_path + ": cannot open the MRAW file";
    return nullptr;
  }
  auto source = std::make_unique<MrawSource>(std::move(data), data_path);
  if (!source->Init(info, container, high_side, size, error)) return nullptr;
  return source;
}

}  // namespace frfcam::camera
