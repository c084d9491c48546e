// The capture reader: the brightness of a run of pixels in every frame of a
// capture, as 16-bit samples on the 12-bit scale, from division files or a
// single ".cap" file. File handles are cached for the life of a render.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "frfmap/capture_format.h"
#include "frfmap/capture_header.h"
#include "frfmap/layout.h"
#include "frfmap/unpack.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

class CaptureReader {
 public:
  CaptureReader() = default;
  ~CaptureReader() { Close(); }
  CaptureReader(const CaptureReader&) = delete;
  CaptureReader& operator=(const CaptureReader&) = delete;

  // Reads the header at `header_path` and derives the sizes; closes anything
  // an earlier opening held. Returns whether a whole header could be read
  // (on failure the header is all zero).
  bool Open(const std::string& header_path);

  const CaptureHeader& header() const { return header_; }
  const std::string& header_path() const { return header_path_; }

  // Fills `samples` with `frames` rows of `n` samples (row f holds pixels
  // first .. first + n - 1 of frame f) and, when first == 0 and `records` is
  // not null, `records` with each frame's 16-byte record. False on any
  // failure: a data file that cannot be opened, a short read, a frame beyond
  // the single file's end, an empty ".cap" slot. The frames that fail are
  // zero (samples and record); every other frame is read whatever fails
  // around it. A run past the frame is refused with nothing written.
  bool ReadBlock(std::uint64_t first, std::uint32_t n, std::int32_t frames, std::uint16_t* samples,
                 std::uint8_t* records);

  // The encoding ReadRuns leaves runs in: division files' runs stay as
  // stored, so that decoding them is left to whoever transforms them; a
  // single file's are decoded as they are read.
  RunEncoding run_encoding() const;

  // As ReadBlock, but frame f's run is left in run_encoding() at
  // runs + f * stride, which must be even and at least
  // RunBytes(run_encoding(), first, n). A frame that fails is zero bytes,
  // which decode to zero samples.
  bool ReadRuns(std::uint64_t first, std::uint32_t n, std::int32_t frames, std::uint8_t* runs,
                std::size_t stride, std::uint8_t* records);

  // Closes every cached handle; the header stays.
  void Close();

 private:
  // Whether a run can be asked of this capture at all.
  bool Readable(std::uint64_t first, std::uint32_t n) const;
  // One frame's run into `run` in run_encoding(), or zeros.
  bool ReadFrame(std::int32_t f, std::uint64_t first, std::uint32_t n, std::uint8_t* run,
                 std::uint8_t* record);
  bool ReadDivisionFrame(std::int32_t f, std::uint64_t first, std::uint32_t n, std::uint8_t* run,
                         std::uint8_t* record);
  bool OpenSingleFile();
  bool ReadSingleFrame(std::int32_t f, std::uint64_t first, std::uint32_t n, std::uint16_t* row,
                       std::uint8_t* record);
  const platform::File* Division(unsigned d);

  CaptureHeader header_;
  std::string header_path_;

  // Division files: a direct-mapped cache by file number, so every file is
  // opened once per render however many there are (a failed open too).
  struct CachedFile {
    unsigned number = 0;
    platform::File file;
  };
  std::array<CachedFile, kHandleTableSize> division_{};

  // The single file, opened on first use.
  platform::File single_;
  bool single_tried_ = false;
  std::uint64_t single_size_ = 0;
  std::array<std::uint8_t, format::kCapHeaderSize> cap_header_{};

  // Stored bytes on their way to samples: ReadBlock's run of a division
  // file, the rows of a single file's frame.
  std::vector<std::uint8_t> bytes_;
};

}  // namespace frfcam::frfmap
