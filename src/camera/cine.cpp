// CINE recordings: grey images of 8 or 16 bits a sample, or packed 10-bit.
//
// The layout follows the format's published description (file header,
// bitmap header, setup, image-offset table, per-image annotation) and a
// public wiki page's notes on real files; every field is little-endian:
//
//   file header  "CI", header size, compression (0 grey or interpolated,
//                1 JPEG, 2 raw sensor data), version (1: 64-bit image
//                offsets), first image number, image count, and the 32-bit
//                offsets of the bitmap header, the setup and the offset table.
//   bitmap       the 40-byte bitmap header of the images: width, height (a
//                positive height stores rows bottom-up), bit count,
//                compression (0 plain, 256 packed 10-bit), image size.
//   setup        camera settings; the ones used here sit at fixed offsets:
//                the 16-bit frame rate at 0, the "ST" mark and the setup's
//                length at 140, the 32-bit frame rate at 768, the colour
//                filter array code at 808, the real bits a pixel at 896.
//                Older, shorter setups lack the later fields.
//   offset table one 64-bit file offset an image.
//   image        annotation size (32 bits, counting itself), annotation
//                bytes, the image size (the annotation's last 32 bits), then
//                the pixels.
//
// Packed 10-bit pixels are one bit stream, most significant bit first: four
// pixels in five bytes. The description says such codes come companded from
// the camera and names a 10-to-12-bit table, but the table itself was not in
// the text at hand, so the codes are given as stored (bits = 10) and `notes`
// says so.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "camera/video_source.h"
#include "platform/platform.h"

namespace frfcam::camera {
namespace {

// File header.
constexpr std::size_t kFileHeaderSize = 44;
constexpr std::size_t kCompressionAt = 4, kVersionAt = 6, kImageCountAt = 20;
constexpr std::size_t kOffImageHeaderAt = 24, kOffSetupAt = 28, kOffImageOffsetsAt = 32;
enum : std::uint16_t { kGreyOrInterpolated = 0, kJpeg = 1, kRawSensor = 2 };

// Bitmap header.
constexpr std::size_t kBitmapHeaderSize = 40;
constexpr std::uint32_t kPlain = 0, kPacked10 = 256;

// Setup fields and the setup's bytes each needs.
constexpr std::size_t kFrameRate16At = 0, kMarkAt = 140, kLengthAt = 142;
constexpr std::size_t kFrameRateAt = 768, kCfaAt = 808, kRealBppAt = 896;
constexpr std::size_t kSetupBytesUsed = kRealBppAt + 4;

// Per image: the annotation's size and the image size that ends it.
constexpr std::uint32_t kMinAnnotation = 8;

// Sizes past these are not images but damage: no camera comes near.
constexpr std::int64_t kMaxSide = 1 << 16;
constexpr std::int64_t kMaxPixels = std::int64_t{1} << 30;

std::uint16_t Le16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
std::uint32_t Le32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
         std::uint32_t{p[3]} << 24;
}
std::uint64_t Le64(const std::uint8_t* p) { return Le32(p) | std::uint64_t{Le32(p + 4)} << 32; }

enum class Pixels { k8, k16, kPacked10 };

// Bytes of `pixels` samples of a kind, rows of `width` padded to `stride`.
std::uint64_t FrameBytes(Pixels kind, std::uint64_t width, std::uint64_t height,
                         std::uint64_t stride) {
  if (kind == Pixels::kPacked10) return (width * height * 10 + 7) / 8;
  return stride * height;
}

// Samples [first, first + n) of a packed 10-bit stream into out. Whole
// five-byte groups take the fast path; a run may start and end anywhere.
void Unpack10(const std::uint8_t* bytes, std::uint64_t first, std::size_t n, std::uint16_t* out) {
  auto one = [bytes](std::uint64_t p) {
    const std::uint64_t bit = p * 10;
    const std::uint8_t* b = bytes + bit / 8;
    return static_cast<std::uint16_t>(((b[0] << 8 | b[1]) >> (6 - bit % 8)) & 0x3FF);
  };
  std::size_t i = 0;
  for (; i < n && (first + i) % 4 != 0; ++i) out[i] = one(first + i);
  const std::uint8_t* g = bytes + (first + i) / 4 * 5;
  const std::size_t groups = (n - i) / 4;
  std::uint16_t* o = out + i;
  for (std::size_t k = 0; k < groups; ++k, g += 5, o += 4) {
    o[0] = static_cast<std::uint16_t>(g[0] << 2 | g[1] >> 6);
    o[1] = static_cast<std::uint16_t>((g[1] & 0x3F) << 4 | g[2] >> 4);
    o[2] = static_cast<std::uint16_t>((g[2] & 0x0F) << 6 | g[3] >> 2);
    o[3] = static_cast<std::uint16_t>((g[3] & 0x03) << 8 | g[4]);
  }
  for (i += groups * 4; i < n; ++i) out[i] = one(first + i);
}

class CineSource final : public VideoSource {
 public:
  CineSource(std::string path, platform::File file)
      : path_(std::move(path)), file_(std::move(file)) {}

  // Reads and checks the headers, the offset table and the first image's
  // annotation; false with the reason in *error.
  bool Open(std::string* error);

  bool ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) override;

 private:
  bool Fail(const std::string& what, std::string* error) const {
    if (error != nullptr) *error = path_ + ": " + what;
    return false;
  }
  // Brings image f's annotation and pixels into buffer_; *pixels then points
  // at the pixels.
  bool Load(std::int64_t f, const std::uint8_t** pixels, std::string* error);
  void Decode(const std::uint8_t* pixels, std::uint16_t* samples) const;

  std::string path_;
  platform::File file_;
  std::uint64_t file_size_ = 0;
  std::vector<std::uint64_t> offsets_;
  Pixels kind_ = Pixels::k8;
  std::uint64_t stride_ = 0;       // bytes a stored row (8 and 16 bits)
  std::uint64_t frame_bytes_ = 0;  // pixel bytes an image
  bool bottom_up_ = true;
  std::uint32_t annotation_ = kMinAnnotation;  // the last image's, usually every image's
  std::vector<std::uint8_t> buffer_;
};

bool CineSource::Open(std::string* error) {
  if (!file_.Size(&file_size_)) return Fail("cannot get the file size", error);
  std::uint8_t head[kFileHeaderSize];
  if (file_.ReadAt(0, head, sizeof head) != sizeof head || head[0] != 'C' || head[1] != 'I') {
    return Fail("not a CINE file (no \"CI\" header)", error);
  }
  const std::uint16_t compression = Le16(head + kCompressionAt);
  if (compression == kJpeg) return Fail("JPEG-compressed images are not supported", error);
  if (compression != kGreyOrInterpolated && compression != kRawSensor) {
    return Fail("unknown compression " + std::to_string(compression), error);
  }
  if (const std::uint16_t version = Le16(head + kVersionAt); version != 1) {
    return Fail("version " + std::to_string(version) + " is not supported (only 1)", error);
  }
  const std::uint32_t count = Le32(head + kImageCountAt);
  if (count == 0) return Fail("the file holds no images", error);

  // Bitmap header.
  std::uint8_t bmp[kBitmapHeaderSize];
  const std::uint32_t bmp_at = Le32(head + kOffImageHeaderAt);
  if (file_.ReadAt(bmp_at, bmp, sizeof bmp) != sizeof bmp) {
    return Fail("the image header at " + std::to_string(bmp_at) + " lies outside the file", error);
  }
  if (Le32(bmp) < kBitmapHeaderSize) return Fail("the image header is too short", error);
  const std::int64_t width = static_cast<std::int32_t>(Le32(bmp + 4));
  const std::int64_t signed_height = static_cast<std::int32_t>(Le32(bmp + 8));
  const std::int64_t height = signed_height < 0 ? -signed_height : signed_height;
  const std::uint16_t bit_count = Le16(bmp + 14);
  const std::uint32_t bmp_compression = Le32(bmp + 16);
  const std::uint32_t image_size = Le32(bmp + 20);
  if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide ||
      width * height > kMaxPixels) {
    return Fail(
        "image size " + std::to_string(width) + "x" + std::to_string(height) + " is not a camera's",
        error);
  }
  bottom_up_ = signed_height > 0;
  if (bmp_compression == kPacked10 && bit_count == 10) {
    kind_ = Pixels::kPacked10;
  } else if (bmp_compression == kPacked10) {
    return Fail("packed images of " + std::to_string(bit_count) + " bits are not supported", error);
  } else if (bmp_compression != kPlain) {
    return Fail("image compression " + std::to_string(bmp_compression) + " is not supported",
                error);
  } else if (bit_count == 24 || bit_count == 48) {
    return Fail("colour images are not supported (grey only)", error);
  } else if (bit_count == 8 || bit_count == 16) {
    kind_ = bit_count == 8 ? Pixels::k8 : Pixels::k16;
  } else {
    return Fail(std::to_string(bit_count) + "-bit images are not supported", error);
  }
  // Rows are as long as their pixels, or padded to four bytes as in other
  // bitmaps when the image size says so.
  const std::uint64_t row = static_cast<std::uint64_t>(width) * (bit_count / 8);
  const std::uint64_t padded = (row + 3) / 4 * 4;
  stride_ =
      padded != row && image_size == padded * static_cast<std::uint64_t>(height) ? padded : row;
  frame_bytes_ = FrameBytes(kind_, width, height, stride_);
  if (frame_bytes_ + kMinAnnotation > file_size_) {
    return Fail("an image of " + std::to_string(width) + "x" + std::to_string(height) +
                    " is larger than the file",
                error);
  }

  // Setup: frame rate, real bits, colour filter. A setup that ends early (an
  // old file) leaves the later fields at their defaults.
  std::uint8_t setup[kSetupBytesUsed] = {};
  std::size_t setup_len = file_.ReadAt(Le32(head + kOffSetupAt), setup, sizeof setup);
  if (setup_len >= kLengthAt + 2 && setup[kMarkAt] == 'S' && setup[kMarkAt + 1] == 'T') {
    setup_len = std::min<std::size_t>(setup_len, Le16(setup + kLengthAt));
  } else {
    setup_len = std::min<std::size_t>(setup_len, kMarkAt);
  }
  info_.fps = setup_len >= 2 ? Le16(setup + kFrameRate16At) : 0;
  if (setup_len >= kFrameRateAt + 4 && Le32(setup + kFrameRateAt) != 0) {
    info_.fps = Le32(setup + kFrameRateAt);
  }
  // The top byte flags grey heads of a multi-head camera; the rest is the
  // pattern, zero for a grey sensor.
  const std::uint32_t cfa = setup_len >= kCfaAt + 4 ? Le32(setup + kCfaAt) & 0xFFFFFF : 0;
  if (compression == kRawSensor && cfa != 0) {
    return Fail("colour sensor data (filter pattern " + std::to_string(cfa) +
                    ") is not supported (grey only)",
                error);
  }
  const std::uint32_t real_bits = setup_len >= kRealBppAt + 4 ? Le32(setup + kRealBppAt) : 0;

  info_.format = "CINE";
  info_.width = static_cast<unsigned>(width);
  info_.height = static_cast<unsigned>(height);
  info_.frames = count;
  switch (kind_) {
    case Pixels::k8:
      info_.bits = 8;
      break;
    case Pixels::k16:
      info_.bits = real_bits >= 1 && real_bits <= 16 ? static_cast<int>(real_bits) : 16;
      break;
    case Pixels::kPacked10:
      info_.bits = 10;
      info_.notes = "packed 10-bit codes as stored: the camera's 10-to-12-bit table not applied";
      break;
  }

  // Offset table: every image must fit in the file with the least annotation.
  const std::uint64_t table_at = Le32(head + kOffImageOffsetsAt);
  const std::uint64_t table_bytes = std::uint64_t{count} * 8;
  if (table_at + table_bytes > file_size_) {
    return Fail("the header claims " + std::to_string(count) +
                    " images but their offset table runs past the end of the file",
                error);
  }
  std::vector<std::uint8_t> table(table_bytes);
  if (file_.ReadAt(table_at, table.data(), table.size()) != table.size()) {
    return Fail("cannot read the image offset table", error);
  }
  offsets_.resize(count);
  const std::uint64_t last_start = file_size_ - frame_bytes_ - kMinAnnotation;
  for (std::uint32_t i = 0; i < count; ++i) {
    offsets_[i] = Le64(table.data() + 8 * std::size_t{i});
    if (offsets_[i] > last_start) {
      return Fail("image " + std::to_string(i) + " of " + std::to_string(count) +
                      " lies outside the file (offset " + std::to_string(offsets_[i]) + ")",
                  error);
    }
  }

  // The first image's annotation sets the size of the one read an image.
  std::uint8_t ann[4];
  if (file_.ReadAt(offsets_[0], ann, 4) != 4) return Fail("cannot read image 0", error);
  annotation_ = Le32(ann);
  if (annotation_ < kMinAnnotation || annotation_ > file_size_ - frame_bytes_ - offsets_[0]) {
    return Fail(
        "image 0: annotation of " + std::to_string(annotation_) + " bytes does not fit the file",
        error);
  }
  buffer_.resize(annotation_ + frame_bytes_);
  return true;
}

bool CineSource::Load(std::int64_t f, const std::uint8_t** pixels, std::string* error) {
  const std::uint64_t at = offsets_[static_cast<std::size_t>(f)];
  const std::string image = "image " + std::to_string(f) + ": ";
  // One read for annotation and pixels, sized by the last annotation seen;
  // a second only when this image's annotation differs in size.
  for (int pass = 0; pass < 2; ++pass) {
    const std::size_t want = annotation_ + frame_bytes_;
    const std::size_t got = file_.ReadAt(at, buffer_.data(), want);
    if (got < kMinAnnotation) return Fail(image + "the file ends before it", error);
    const std::uint32_t size = Le32(buffer_.data());
    if (size < kMinAnnotation || size > file_size_ - frame_bytes_ - at) {
      return Fail(image + "annotation of " + std::to_string(size) + " bytes does not fit the file",
                  error);
    }
    if (size != annotation_) {
      annotation_ = size;
      buffer_.resize(annotation_ + frame_bytes_);
      continue;
    }
    if (got < want) return Fail(image + "the file ends inside its pixels", error);
    if (Le32(buffer_.data() + size - 4) < frame_bytes_) {
      return Fail(image + "its size " + std::to_string(Le32(buffer_.data() + size - 4)) +
                      " is below the " + std::to_string(frame_bytes_) + " bytes of its pixels",
                  error);
    }
    *pixels = buffer_.data() + size;
    return true;
  }
  return Fail(image + "its annotation changed size while it was read", error);
}

void CineSource::Decode(const std::uint8_t* pixels, std::uint16_t* samples) const {
  const std::size_t w = info_.width, h = info_.height;
  for (std::size_t r = 0; r < h; ++r) {
    const std::size_t stored = bottom_up_ ? h - 1 - r : r;
    std::uint16_t* out = samples + r * w;
    const std::uint8_t* in = pixels + stored * stride_;
    switch (kind_) {
      case Pixels::k8:
        for (std::size_t x = 0; x < w; ++x) out[x] = in[x];
        break;
      case Pixels::k16:
        if constexpr (std::endian::native == std::endian::little) {
          std::memcpy(out, in, w * 2);
        } else {
          for (std::size_t x = 0; x < w; ++x) out[x] = Le16(in + 2 * x);
        }
        break;
      case Pixels::kPacked10:
        Unpack10(pixels, std::uint64_t{stored} * w, w, out);
        break;
    }
  }
}

bool CineSource::ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) {
  if (f < 0 || f >= info_.frames) {
    return Fail("image " + std::to_string(f) + " is not among the " + std::to_string(info_.frames),
                error);
  }
  const std::uint8_t* pixels = nullptr;
  if (!Load(f, &pixels, error)) return false;
  Decode(pixels, samples);
  if (kind_ == Pixels::k16 && info_.bits < 16) {
    // A sample above the real bits means the setup misstates them; passing
    // it on would break the promise of bits.
    const std::size_t n = std::size_t{info_.width} * info_.height;
    std::uint16_t any = 0;
    for (std::size_t i = 0; i < n; ++i) any |= samples[i];
    if (any >> info_.bits != 0) {
      return Fail("image " + std::to_string(f) + ": samples exceed the " +
                      std::to_string(info_.bits) + " bits the setup gives",
                  error);
    }
  }
  return true;
}

}  // namespace

std::unique_ptr<VideoSource> OpenCine(const std::string& path, std::string* error) {
  platform::File file;
  if (!file.Open(path, platform::File::Mode::kRead)) {
    if (error != nullptr) *error = path + ": cannot open the file";
    return nullptr;
  }
  auto source = std::make_unique<CineSource>(path, std::move(file));
  if (!source->Open(error)) return nullptr;
  return source;
}

}  // namespace frfcam::camera
