// Writes captures: the 2998-byte header file and its frame data, either as
// numbered division files or as one single ".cap" file holding a ring of
// frame slots. Used by the tools to make synthetic captures and by tests.
//
// Per-frame data written with every frame (identical in both storage forms):
//   division files: a 16-byte record before the pixels, four little-endian
//     32-bit words: 1-based frame index, time stamp in microseconds since
//     frame 0 (round(f * 1e6 / fps), modulo 2^32), a free-running frame
//     counter (f modulo 2^24, counting from 0), zero;
//   ".cap" file: the slot's last 64 bytes, big-endian 32-bit words: the same
//     index, time stamp and counter in words 0..2, the rest zero. Unused
//     slots of the ring are all zero (index 0 marks an empty slot).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace frfcam::frfmap {

struct CaptureDesc {
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  std::int32_t frames = 0;
  double fps = 0.0;                     // stored in the header's floating-point field
  std::uint32_t pixel_format = 1;       // format::kPixelFormat12BitPacked or kPixelFormat8Bit
  std::uint32_t frames_per_file = 500;  // frames per division file (FPD)
  bool single_file = false;             // write DIR/NAME/NAME.cap instead of division files
  std::uint32_t ring_slots = 0;         // ".cap": slots in the ring (0: as many as frames)
  std::uint32_t first_slot = 0;         // ".cap": slot of frame 0, so the ring can wrap
  // Text written after the 2998-byte header in the header file (readers
  // take the first 2998 bytes only): how the capture came about, such as
  // the source of an import. Empty: the header file is 2998 bytes.
  std::string note;
};

// Fills frame `f` with width * height samples on the 12-bit scale (0..4095),
// raster order. Called once per frame, in frame order.
using FrameSource = std::function<void(std::int32_t f, std::uint16_t* samples)>;

// The same for sources that can fail (a damaged file, a cancel): false stops
// the writing, with a one-line reason in *why.
using CheckedFrameSource =
    std::function<bool(std::int32_t f, std::uint16_t* samples, std::string* why)>;

// Gives frame `f`'s pixel data in the division files' form, exactly
// DivisionFrameBytes bytes: for sources whose stored bytes are that form
// already, or nearly, so the samples need not be unpacked and packed again.
// The bytes go into `scratch` (that many bytes) or stay in the source's own
// memory, valid until the next call; the return value says where they are.
// Called once per frame, in frame order; nullptr stops as above.
using FrameBytesSource =
    std::function<const std::uint8_t*(std::int32_t f, std::uint8_t* scratch, std::string* why)>;

// Writes the header at `header_path`, creates the data folder beside it and
// writes the data files. Data files of an earlier capture of the same name
// (division files, the single file, cube files) are removed first so that
// nothing stale is left beside the new data. Returns false with a one-line
// message in *error (when given) on failure.
//
// Limits checked up front: width, height, frames and frames per file at
// least 1; fps positive; pixel format 12-bit packed or 8-bit; at most 127
// division files of below 2 GiB each; for ".cap", a ring of at least
// `frames` slots with the first slot inside it. An 8-bit capture written as
// a single file keeps its samples in steps of 16.
bool WriteCapture(const std::string& header_path, const CaptureDesc& desc,
                  const FrameSource& source, std::string* error);

// The same with a source that can fail: its reason becomes *error, and no
// header is written, so nothing reads as a complete capture.
bool WriteCapture(const std::string& header_path, const CaptureDesc& desc,
                  const CheckedFrameSource& source, std::string* error);

// The same with pixel data as it is stored. Division files only: a single
// ".cap" file packs its rows otherwise, and is refused.
bool WriteCapture(const std::string& header_path, const CaptureDesc& desc,
                  const FrameBytesSource& source, std::string* error);

// Bytes of one frame's pixel data in a division file (S): W * H for 8-bit,
// W * H * 3 / 2 (whole part) for 12-bit packed.
std::uint64_t DivisionFrameBytes(const CaptureDesc& desc);

// Packs `count` samples into the 12-bit packed form: two samples a, b in
// three bytes a >> 4, (a & 15) << 4 | (b & 15), b >> 4. Writes exactly
// count * 3 / 2 bytes (whole part): for an odd count only the high byte of
// the last sample fits.
void Pack12(const std::uint16_t* samples, std::size_t count, std::uint8_t* out);

// Codes onto the 12-bit scale and into a division file's pixel bytes in one
// pass: each code shifted left by `shift` (right for a negative shift),
// capped at 4095, then packed as Pack12 does (`packed`) or cut to its top 8
// bits (8-bit captures, `count` bytes).
void CodesToPixelBytes(const std::uint16_t* codes, std::size_t count, int shift, bool packed,
                       std::uint8_t* out);

// Packs one ".cap" row of `width` samples into ceil(width / 5) big-endian
// 64-bit words, five 12-bit samples per word from the most significant end
// (bits 59..48 first; the top four bits and missing samples zero).
void PackCapRow(const std::uint16_t* samples, std::uint32_t width, std::uint8_t* out);

}  // namespace frfcam::frfmap
