#include "frfmap/capture_writer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "frfmap/capture_format.h"
#include "frfmap/layout.h"
#include "frfmap/naming.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

namespace {

namespace fs = std::filesystem;

constexpr std::uint16_t kMaxSample = 4095;
// The reader seeks division files with 32-bit offsets.
constexpr std::uint64_t kMaxDivisionFileBytes = 2147483647ull;

bool Fail(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
}

std::string ErrnoText() { return std::strerror(errno); }

void StoreBE32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
}

struct FrameStamp {
  std::uint32_t index;  // 1-based, never zero
  std::uint32_t time_us;
  std::uint32_t counter;
};

FrameStamp StampOf(std::int32_t f, double fps) {
  // The time stamp wraps like a free-running 32-bit microsecond clock would.
  const double us = std::nearbyint(static_cast<double>(f) * 1e6 / fps);
  const auto wrapped = static_cast<std::uint64_t>(std::fmod(us, 4294967296.0));
  return {static_cast<std::uint32_t>(f) + 1, static_cast<std::uint32_t>(wrapped),
          static_cast<std::uint32_t>(f) & 0xFFFFFFu};
}

// Closes on scope exit unless released; a failed close of a written file is
// reported by Finish().
class OutFile {
 public:
  OutFile() = default;
  OutFile(const OutFile&) = delete;
  OutFile& operator=(const OutFile&) = delete;
  ~OutFile() {
    if (file_ != nullptr) std::fclose(file_);
  }

  bool Open(const std::string& path, std::string* error) {
    path_ = path;
    file_ = platform::OpenFile(path, "wb");
    if (file_ == nullptr) return Fail(error, "cannot create " + path + ": " + ErrnoText());
    return true;
  }
  bool Write(const void* data, std::size_t bytes, std::string* error) {
    if (std::fwrite(data, 1, bytes, file_) != bytes) {
      return Fail(error, "cannot write " + path_ + ": " + ErrnoText());
    }
    return true;
  }
  bool Seek(std::uint64_t offset, std::string* error) {
    if (!platform::SeekTo(file_, offset)) {
      return Fail(error, "cannot seek in " + path_ + ": " + ErrnoText());
    }
    return true;
  }
  bool Finish(std::string* error) {
    std::FILE* f = file_;
    file_ = nullptr;
    if (std::fclose(f) != 0) return Fail(error, "cannot write " + path_ + ": " + ErrnoText());
    return true;
  }

 private:
  std::FILE* file_ = nullptr;
  std::string path_;
};

std::string Validate(const CaptureDesc& desc) {
  if (desc.width == 0 || desc.height == 0) return "width and height must be at least 1";
  if (desc.frames < 1) return "frame count must be at least 1";
  if (!(desc.fps > 0.0) || !std::isfinite(desc.fps)) return "frame rate must be positive";
  if (desc.pixel_format != format::kPixelFormat12BitPacked &&
      desc.pixel_format != format::kPixelFormat8Bit) {
    return "pixel format must be 12-bit packed (1) or 8-bit (0)";
  }
  if (desc.frames_per_file < 1) return "frames per division file must be at least 1";
  const auto frames = static_cast<std::uint64_t>(desc.frames);
  if (desc.single_file) {
    const std::uint64_t slots = desc.ring_slots == 0 ? frames : desc.ring_slots;
    if (slots < frames) {
      return "the ring has " + std::to_string(slots) + " slots, fewer than the " +
             std::to_string(frames) + " frames";
    }
    if (slots > UINT32_MAX) return "too many frames for the ring's 32-bit slot count";
    if (desc.first_slot >= slots) return "the first slot lies outside the ring";
    const std::uint64_t slot = static_cast<std::uint64_t>(desc.height) *
                                   format::CapRowBytes(format::kCapPacking5In8, desc.width) +
                               format::kCapTrailerSize;
    if (slot > UINT32_MAX) return "a frame slot would exceed the 32-bit slot size";
    return {};
  }
  const std::uint64_t files = (frames + desc.frames_per_file - 1) / desc.frames_per_file;
  if (files > kMaxFileNumber) {
    return std::to_string(files) + " division files needed, at most " +
           std::to_string(kMaxFileNumber) + " can be read (raise the frames per file)";
  }
  const std::uint64_t records = std::min<std::uint64_t>(frames, desc.frames_per_file);
  const std::uint64_t bytes = records * (DivisionFrameBytes(desc) + format::kFrameRecordSize);
  if (bytes > kMaxDivisionFileBytes) {
    return "a division file would exceed 2 GiB (lower the frames per file)";
  }
  return {};
}

// True for NAME_<4 or more digits><suffix>.
bool IsNumberedFile(const std::string& file, const std::string& stem, const std::string& suffix) {
  const std::size_t head = stem.size() + 1;
  if (file.size() < head + 4 + suffix.size()) return false;
  if (file.compare(0, stem.size(), stem) != 0 || file[stem.size()] != '_') return false;
  if (file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) return false;
  for (std::size_t i = head; i < file.size() - suffix.size(); ++i) {
    if (file[i] < '0' || file[i] > '9') return false;
  }
  return true;
}

// Old data of the same capture name would otherwise survive beside the new
// data: extra division files, a single file the header no longer points to,
// and a cube computed from the old frames.
bool RemoveStaleData(const std::string& folder, const std::string& stem, std::string* error) {
  std::error_code ec;
  std::vector<fs::path> stale;
  for (fs::directory_iterator it(platform::PathFromUtf8(folder), ec), end; !ec && it != end;
       it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    const std::string name = it->path().filename().string();
    if (name == stem + ".cap" || IsNumberedFile(name, stem, ".div") ||
        IsNumberedFile(name, stem, ".fft")) {
      stale.push_back(it->path());
    }
  }
  if (ec) return Fail(error, "cannot list " + folder + ": " + ec.message());
  for (const fs::path& p : stale) {
    if (!fs::remove(p, ec) && ec) {
      return Fail(error, "cannot remove " + p.string() + ": " + ec.message());
    }
  }
  return true;
}

void FillHeader(const CaptureDesc& desc, std::uint8_t* h) {
  format::StoreU16(h + format::kWidthOffset, desc.width);
  format::StoreU16(h + format::kHeightOffset, desc.height);
  format::StoreU32(h + format::kPixelFormatOffset, desc.pixel_format);
  static_assert(sizeof(double) == 8);
  std::uint64_t bits;
  std::memcpy(&bits, &desc.fps, sizeof bits);
  for (int i = 0; i < 8; ++i) {
    h[format::kFloatFieldOffset + i] = static_cast<std::uint8_t>(bits >> (8 * i));
  }
  format::StoreU32(h + format::kFramesPerDivisionOffset, desc.frames_per_file);
  format::StoreU32(h + format::kFrameCountOffset, static_cast<std::uint32_t>(desc.frames));
  h[format::kSingleFileFlagOffset] = desc.single_file ? 1 : 0;
}

void ClampSamples(std::uint16_t* samples, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) samples[i] = std::min(samples[i], kMaxSample);
}

bool WriteDivisions(const std::string& header_path, const CaptureDesc& desc,
                    const FrameBytesSource& source, std::string* error) {
  const auto frame_bytes = static_cast<std::size_t>(DivisionFrameBytes(desc));
  std::vector<std::uint8_t> scratch(frame_bytes);
  std::array<std::uint8_t, format::kFrameRecordSize> stamp_bytes;

  OutFile out;
  for (std::int32_t f = 0; f < desc.frames; ++f) {
    const auto k = static_cast<std::uint32_t>(f);
    if (k % desc.frames_per_file == 0) {
      if (f > 0 && !out.Finish(error)) return false;
      const unsigned number = k / desc.frames_per_file + 1;
      if (!out.Open(DataFilePath(header_path, DataFile::kDivision, number), error)) return false;
    }
    const std::uint8_t* pixel_bytes = source(f, scratch.data(), error);
    if (pixel_bytes == nullptr) return false;
    const FrameStamp stamp = StampOf(f, desc.fps);
    format::StoreU32(&stamp_bytes[0], stamp.index);
    format::StoreU32(&stamp_bytes[4], stamp.time_us);
    format::StoreU32(&stamp_bytes[8], stamp.counter);
    format::StoreU32(&stamp_bytes[12], 0);
    // The record's 16 bytes join the stream's buffer; the pixels then go
    // out from where they are, without another copy.
    if (!out.Write(stamp_bytes.data(), stamp_bytes.size(), error) ||
        !out.Write(pixel_bytes, frame_bytes, error)) {
      return false;
    }
  }
  return out.Finish(error);
}

bool WriteSingleFile(const std::string& header_path, const CaptureDesc& desc,
                     const CheckedFrameSource& source, std::string* error) {
  const std::uint32_t width = desc.width;
  const std::uint32_t rows = desc.height;
  const std::uint32_t row_bytes = format::CapRowBytes(format::kCapPacking5In8, width);
  const std::uint32_t pixel_bytes = rows * row_bytes;
  const std::uint32_t slot_size = pixel_bytes + static_cast<std::uint32_t>(format::kCapTrailerSize);
  const auto frames = static_cast<std::uint32_t>(desc.frames);
  const std::uint32_t slots = desc.ring_slots == 0 ? frames : desc.ring_slots;
  // Slot 0 follows the file header directly; nothing is subtracted after the
  // wrap, so frame f sits in slot (first + f) mod slots.
  const std::uint32_t slot0 = static_cast<std::uint32_t>(format::kCapHeaderSize);

  std::array<std::uint8_t, format::kCapHeaderSize> head{};
  head[format::kCapPackingOffset] = format::kCapPacking5In8;
  format::StoreU16(&head[format::kCapRowWidthOffset], desc.width);
  format::StoreU16(&head[format::kCapRowCountOffset], desc.height);
  format::StoreU32(&head[format::kCapSlotCountOffset], slots);
  format::StoreU32(&head[format::kCapSlotSizeOffset], slot_size);
  format::StoreU32(&head[format::kCapFirstSlotOffset], desc.first_slot);
  format::StoreU32(&head[format::kCapSlot0Offset], slot0);
  format::StoreU32(&head[format::kCapSubtractSlotOffset], 0);

  OutFile out;
  if (!out.Open(DataFilePath(header_path, DataFile::kSingle, 0), error)) return false;
  if (!out.Write(head.data(), head.size(), error)) return false;

  const std::size_t pixels = static_cast<std::size_t>(width) * rows;
  // An 8-bit capture keeps the precision it would have in division files.
  const std::uint16_t keep = desc.pixel_format == format::kPixelFormat8Bit ? 0xFF0 : 0xFFF;
  std::vector<std::uint16_t> samples(pixels);
  std::vector<std::uint8_t> slot(slot_size);
  std::uint8_t* trailer = slot.data() + pixel_bytes;
  auto slot_offset = [&](std::uint32_t s) {
    return static_cast<std::uint64_t>(s) * slot_size + slot0;
  };

  for (std::uint32_t f = 0; f < frames; ++f) {
    if (!source(static_cast<std::int32_t>(f), samples.data(), error)) return false;
    ClampSamples(samples.data(), pixels);
    for (std::size_t i = 0; i < pixels; ++i) samples[i] &= keep;
    for (std::uint32_t r = 0; r < rows; ++r) {
      PackCapRow(&samples[static_cast<std::size_t>(r) * width], width,
                 slot.data() + static_cast<std::size_t>(r) * row_bytes);
    }
    const FrameStamp stamp = StampOf(static_cast<std::int32_t>(f), desc.fps);
    StoreBE32(trailer + 4 * format::kCapTrailerIndexWord, stamp.index);
    StoreBE32(trailer + 4 * format::kCapTrailerTimeWord, stamp.time_us);
    StoreBE32(trailer + 4 * format::kCapTrailerCounterWord, stamp.counter);
    const std::uint32_t s =
        static_cast<std::uint32_t>((static_cast<std::uint64_t>(desc.first_slot) + f) % slots);
    if (!out.Seek(slot_offset(s), error) || !out.Write(slot.data(), slot.size(), error)) {
      return false;
    }
  }
  // The slots no frame landed in stay empty but are part of the file.
  std::fill(slot.begin(), slot.end(), std::uint8_t{0});
  for (std::uint32_t i = frames; i < slots; ++i) {
    const std::uint32_t s =
        static_cast<std::uint32_t>((static_cast<std::uint64_t>(desc.first_slot) + i) % slots);
    if (!out.Seek(slot_offset(s), error) || !out.Write(slot.data(), slot.size(), error)) {
      return false;
    }
  }
  return out.Finish(error);
}

}  // namespace

std::uint64_t DivisionFrameBytes(const CaptureDesc& desc) {
  const std::uint64_t pixels = static_cast<std::uint64_t>(desc.width) * desc.height;
  return desc.pixel_format == format::kPixelFormat12BitPacked ? pixels * 3 / 2 : pixels;
}

void Pack12(const std::uint16_t* samples, std::size_t count, std::uint8_t* out) {
  CodesToPixelBytes(samples, count, 0, true, out);
}

// Readers keep codes below 2^bits, so a shift never overflows 12 bits; the
// cap is for those that do not.
FRFCAM_INTEGER_CLONES void CodesToPixelBytes(const std::uint16_t* codes, std::size_t count,
                                             int shift, bool packed, std::uint8_t* out) {
  const int up = std::max(shift, 0), down = std::max(-shift, 0);
  const auto sample = [&](std::size_t i) {
    return std::min<unsigned>(static_cast<unsigned>(codes[i] << up) >> down, kMaxSample);
  };
  if (!packed) {
    for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<std::uint8_t>(sample(i) >> 4);
    return;
  }
  const std::size_t pairs = count / 2;
  for (std::size_t i = 0; i < pairs; ++i) {
    const unsigned a = sample(2 * i), b = sample(2 * i + 1);
    out[3 * i] = static_cast<std::uint8_t>(a >> 4);
    out[3 * i + 1] = static_cast<std::uint8_t>(((a & 15u) << 4) | (b & 15u));
    out[3 * i + 2] = static_cast<std::uint8_t>(b >> 4);
  }
  if (count % 2 != 0) out[3 * pairs] = static_cast<std::uint8_t>(sample(count - 1) >> 4);
}

void PackCapRow(const std::uint16_t* samples, std::uint32_t width, std::uint8_t* out) {
  const std::uint32_t words = (width + 4) / 5;
  for (std::uint32_t w = 0; w < words; ++w) {
    std::uint64_t v = 0;
    for (std::uint32_t j = 0; j < 5; ++j) {
      const std::uint32_t i = 5 * w + j;
      const std::uint64_t s = i < width ? (samples[i] & 0xFFFu) : 0;
      v |= s << (48 - 12 * j);
    }
    for (int b = 0; b < 8; ++b) out[8 * w + b] = static_cast<std::uint8_t>(v >> (56 - 8 * b));
  }
}

bool WriteCapture(const std::string& header_path, const CaptureDesc& desc,
                  const FrameSource& source, std::string* error) {
  if (!source) return Fail(error, "no frame source");
  return WriteCapture(
      header_path, desc,
      [&](std::int32_t f, std::uint16_t* samples, std::string*) {
        source(f, samples);
        return true;
      },
      error);
}

namespace {

// Checks, clears the old data, writes the frames with `write_frames` and
// then the header.
template <typename WriteFrames>
bool WriteCaptureWith(const std::string& header_path, const CaptureDesc& desc,
                      const WriteFrames& write_frames, std::string* error) {
  if (const std::string problem = Validate(desc); !problem.empty()) return Fail(error, problem);
  const std::string folder = DataFolder(header_path);
  if (folder == header_path) {
    return Fail(error, "the header path " + header_path + " needs an extension (e.g. NAME.hdr)");
  }
  std::error_code ec;
  fs::create_directories(platform::PathFromUtf8(folder), ec);
  if (ec) return Fail(error, "cannot create folder " + folder + ": " + ec.message());
  if (!RemoveStaleData(folder, platform::SplitPath(header_path).fname, error)) return false;

  // The header goes last and an old one goes first: an interrupted write
  // leaves no header that promises data which is not there.
  fs::remove(platform::PathFromUtf8(header_path), ec);
  if (!write_frames()) return false;

  std::array<std::uint8_t, format::kHeaderSize> header{};
  FillHeader(desc, header.data());
  OutFile out;
  return out.Open(header_path, error) && out.Write(header.data(), header.size(), error) &&
         (desc.note.empty() || out.Write(desc.note.data(), desc.note.size(), error)) &&
         out.Finish(error);
}

}  // namespace

bool WriteCapture(const std::string& header_path, const CaptureDesc& desc,
                  const CheckedFrameSource& source, std::string* error) {
  if (!source) return Fail(error, "no frame source");
  return WriteCaptureWith(
      header_path, desc,
      [&] {
        if (desc.single_file) return WriteSingleFile(header_path, desc, source, error);
        const std::size_t pixels = static_cast<std::size_t>(desc.width) * desc.height;
        const bool packed = desc.pixel_format == format::kPixelFormat12BitPacked;
        std::vector<std::uint16_t> samples(pixels);
        return WriteDivisions(
            header_path, desc,
            [&](std::int32_t f, std::uint8_t* pixel_bytes,
                std::string* why) -> const std::uint8_t* {
              if (!source(f, samples.data(), why)) return nullptr;
              CodesToPixelBytes(samples.data(), pixels, 0, packed, pixel_bytes);
              return pixel_bytes;
            },
            error);
      },
      error);
}

bool WriteCapture(const std::string& header_path, const CaptureDesc& desc,
                  const FrameBytesSource& source, std::string* error) {
  if (!source) return Fail(error, "no frame source");
  if (desc.single_file) return Fail(error, "a single-file capture is written from samples");
  return WriteCaptureWith(
      header_path, desc, [&] { return WriteDivisions(header_path, desc, source, error); }, error);
}

}  // namespace frfcam::frfmap
