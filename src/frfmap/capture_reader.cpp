#include "frfmap/capture_reader.h"

#include <algorithm>
#include <cstring>

#include "frfmap/naming.h"
#include "frfmap/unpack.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

bool CaptureReader::Open(const std::string& header_path) {
  Close();
  header_ = CaptureHeader{};
  header_path_ = header_path;
  return header_.Load(header_path);
}

void CaptureReader::Close() {
  for (CachedFile& c : division_) {
    c.file.Close();
    c.number = 0;
  }
  single_.Close();
  single_tried_ = false;
  single_size_ = 0;
  cap_header_.fill(0);
}

const platform::File* CaptureReader::Division(unsigned d) {
  CachedFile& slot = division_[d % division_.size()];
  if (slot.number != d) {
    slot.number = d;
    slot.file.Open(DataFilePath(header_path_, DataFile::kDivision, d), platform::File::Mode::kRead);
  }
  return slot.file.is_open() ? &slot.file : nullptr;
}

RunEncoding CaptureReader::run_encoding() const {
  if (header_.single_file()) return RunEncoding::kSamples;
  return header_.packed12() ? RunEncoding::kPacked12 : RunEncoding::kBytes8;
}

bool CaptureReader::Readable(std::uint64_t first, std::uint32_t n) const {
  // A run that no frame holds is a wrong request, not damaged data.
  if (first + n > header_.pixels()) return false;
  return header_.single_file() || header_.frames_per_division() != 0;
}

bool CaptureReader::ReadFrame(std::int32_t f, std::uint64_t first, std::uint32_t n,
                              std::uint8_t* run, std::uint8_t* record) {
  const bool ok = header_.single_file()
                      ? ReadSingleFrame(f, first, n, reinterpret_cast<std::uint16_t*>(run), record)
                      : ReadDivisionFrame(f, first, n, run, record);
  // A frame that cannot be read is zero; the frames around it still count.
  if (!ok) {
    std::memset(run, 0, RunBytes(run_encoding(), first, n));
    if (record != nullptr) std::memset(record, 0, format::kFrameRecordSize);
  }
  return ok;
}

bool CaptureReader::ReadRuns(std::uint64_t first, std::uint32_t n, std::int32_t frames,
                             std::uint8_t* runs, std::size_t stride, std::uint8_t* records) {
  if (n == 0) return true;
  if (!Readable(first, n)) return false;
  bool all = true;
  std::uint8_t* record = (first == 0) ? records : nullptr;
  for (std::int32_t f = 0; f < frames; ++f) {
    all &= ReadFrame(f, first, n, runs + static_cast<std::size_t>(f) * stride, record);
    if (record != nullptr) record += format::kFrameRecordSize;
  }
  return all;
}

bool CaptureReader::ReadBlock(std::uint64_t first, std::uint32_t n, std::int32_t frames,
                              std::uint16_t* samples, std::uint8_t* records) {
  const RunEncoding e = run_encoding();
  if (e == RunEncoding::kSamples) {
    return ReadRuns(first, n, frames, reinterpret_cast<std::uint8_t*>(samples),
                    static_cast<std::size_t>(n) * sizeof(std::uint16_t), records);
  }
  if (n == 0) return true;
  if (!Readable(first, n)) return false;
  bytes_.resize(RunBytes(e, first, n));
  bool all = true;
  std::uint8_t* record = (first == 0) ? records : nullptr;
  for (std::int32_t f = 0; f < frames; ++f) {
    all &= ReadFrame(f, first, n, bytes_.data(), record);
    DecodeRun(e, bytes_.data(), first, 0, n, samples + static_cast<std::size_t>(f) * n);
    if (record != nullptr) record += format::kFrameRecordSize;
  }
  return all;
}

bool CaptureReader::ReadDivisionFrame(std::int32_t f, std::uint64_t first, std::uint32_t n,
                                      std::uint8_t* run, std::uint8_t* record) {
  const std::uint64_t frame_bytes = header_.frame_bytes();
  const FileOffset at =
      LocateFrame(static_cast<std::uint32_t>(f), frame_bytes, header_.frames_per_division());
  const platform::File* file = Division(at.file);
  if (file == nullptr) return false;

  // The bytes that hold the run: for 12-bit data whole groups around it, so
  // that a run may start at any pixel.
  const RunEncoding e = run_encoding();
  const std::uint64_t begin = RunOffset(e, 0, first);
  const std::size_t count = RunBytes(e, first, n);
  // A frame of an odd pixel count ends with the high byte of its last
  // sample alone; the missing low bits read as zero.
  const std::size_t want =
      static_cast<std::size_t>(std::min<std::uint64_t>(begin + count, frame_bytes) - begin);
  if (record != nullptr &&
      file->ReadAt(at.offset, record, format::kFrameRecordSize) != format::kFrameRecordSize) {
    return false;
  }
  if (file->ReadAt(at.offset + format::kFrameRecordSize + begin, run, want) != want) return false;
  std::memset(run + want, 0, count - want);
  return true;
}

bool CaptureReader::OpenSingleFile() {
  if (single_tried_) return single_.is_open();
  single_tried_ = true;
  const std::string path = DataFilePath(header_path_, DataFile::kSingle, 0);
  if (!single_.Open(path, platform::File::Mode::kRead) || !single_.Size(&single_size_) ||
      single_.ReadAt(0, cap_header_.data(), cap_header_.size()) != cap_header_.size()) {
    single_.Close();
    return false;
  }
  return true;
}

bool CaptureReader::ReadSingleFrame(std::int32_t f, std::uint64_t first, std::uint32_t n,
                                    std::uint16_t* row, std::uint8_t* record) {
  using namespace format;
  if (!OpenSingleFile()) return false;
  const std::uint8_t* h = cap_header_.data();
  const std::uint8_t packing = h[kCapPackingOffset];
  const std::uint32_t width = LoadU16(h + kCapRowWidthOffset);
  const std::uint32_t rows = LoadU16(h + kCapRowCountOffset);
  const std::uint32_t slots = LoadU32(h + kCapSlotCountOffset);
  const std::uint32_t slot_size = LoadU32(h + kCapSlotSizeOffset);
  // Only the five-samples-per-word packing is understood, and its rows must
  // be those of the capture header.
  if (packing != kCapPacking5In8 || slots == 0 || width != header_.width() ||
      rows != header_.height()) {
    return false;
  }
  const std::uint32_t row_bytes = CapRowBytes(packing, width);
  const std::uint64_t pixel_bytes = static_cast<std::uint64_t>(rows) * row_bytes;
  if (slot_size < pixel_bytes + kCapTrailerSize) return false;

  const std::uint32_t slot =
      ((LoadU32(h + kCapFirstSlotOffset) + static_cast<std::uint32_t>(f)) % slots) -
      LoadU32(h + kCapSubtractSlotOffset);
  const std::uint64_t pos =
      static_cast<std::uint64_t>(slot) * slot_size + LoadU32(h + kCapSlot0Offset);
  if (pos + slot_size > single_size_) return false;

  // The trailer: an empty slot (index word zero) is an error in any block.
  std::uint8_t trailer[kCapTrailerSize];
  if (single_.ReadAt(pos + slot_size - kCapTrailerSize, trailer, sizeof trailer) !=
      sizeof trailer) {
    return false;
  }
  const std::uint32_t index = LoadBE32(trailer + 4 * kCapTrailerIndexWord);
  if (index == 0) return false;
  if (record != nullptr) {
    StoreU32(record, index);
    StoreU32(record + 4, LoadBE32(trailer + 4 * kCapTrailerTimeWord));
    StoreU32(record + 8, LoadBE32(trailer + 4 * kCapTrailerCounterWord) & 0xFFFFFF);
    StoreU32(record + 12, 0);
  }

  // Read the whole rows that the run touches, then pick the run out of them.
  const std::uint64_t row0 = first / width;
  const std::uint64_t row1 = (first + n - 1) / width;
  const std::size_t count = static_cast<std::size_t>((row1 - row0 + 1) * row_bytes);
  if (bytes_.size() < count) bytes_.resize(count);
  if (single_.ReadAt(pos + row0 * row_bytes, bytes_.data(), count) != count) {
    return false;
  }
  std::uint64_t q = first;
  while (q < first + n) {
    const std::uint64_t r = q / width;
    const std::uint64_t col = q % width;
    const std::uint64_t take = std::min<std::uint64_t>(width - col, first + n - q);
    Unpack5In8(bytes_.data() + (r - row0) * row_bytes, col, take, row);
    row += take;
    q += take;
  }
  return true;
}

}  // namespace frfcam::frfmap
