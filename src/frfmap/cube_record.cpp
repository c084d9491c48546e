#include "frfmap/cube_record.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <random>

#include "frfmap/capture_format.h"
#include "frfmap/naming.h"

namespace frfcam::frfmap {

namespace {

constexpr std::size_t kRecordBytes = 64;
constexpr std::size_t kChecksumAt = 56;
constexpr char kMagic[8] = {'F', 'R', 'F', 'C', 'U', 'B', 'E', '1'};
using Bytes = std::array<std::uint8_t, kRecordBytes>;

std::uint64_t Checksum(const std::uint8_t* p, std::size_t n) {
  std::uint64_t h = 1469598103934665603ull;  // FNV-1a
  for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
  return h;
}

void StoreU64(std::uint8_t* p, std::uint64_t v) {
  format::StoreU32(p, static_cast<std::uint32_t>(v));
  format::StoreU32(p + 4, static_cast<std::uint32_t>(v >> 32));
}
std::uint64_t LoadU64(const std::uint8_t* p) {
  return format::LoadU32(p) | static_cast<std::uint64_t>(format::LoadU32(p + 4)) << 32;
}

Bytes Encode(const CubeRecord& r) {
  Bytes b{};
  std::memcpy(b.data(), kMagic, sizeof kMagic);
  format::StoreU32(&b[8], r.width);
  format::StoreU32(&b[12], r.height);
  format::StoreU32(&b[16], r.bins);
  format::StoreU32(&b[20], r.rows);
  format::StoreU32(&b[24], r.complete ? 1 : 0);
  StoreU64(&b[32], r.generation);
  StoreU64(&b[kChecksumAt], Checksum(b.data(), kChecksumAt));
  return b;
}

}  // namespace

RecordState ReadCubeRecord(const std::string& header_path, platform::File* kept,
                           CubeRecord* record) {
  const std::string path = DataFilePath(header_path, DataFile::kCubeRecord, 0);
  if (!kept->is_open() || !kept->IsAt(path)) {
    if (!kept->Open(path, platform::File::Mode::kRead)) {
      std::error_code ec;
      const auto type = std::filesystem::symlink_status(platform::PathFromUtf8(path), ec).type();
      return type == std::filesystem::file_type::not_found ? RecordState::kAbsent
                                                           : RecordState::kInvalid;
    }
  }
  Bytes b{};
  const std::size_t got = kept->ReadAt(0, b.data(), b.size());
  if (!platform::kCanKeepReadersOpen) kept->Close();
  if (got < sizeof kMagic || std::memcmp(b.data(), kMagic, sizeof kMagic) != 0) {
    return RecordState::kAbsent;
  }
  if (got != b.size() || LoadU64(&b[kChecksumAt]) != Checksum(b.data(), kChecksumAt)) {
    return RecordState::kInvalid;
  }
  record->width = format::LoadU32(&b[8]);
  record->height = format::LoadU32(&b[12]);
  record->bins = format::LoadU32(&b[16]);
  record->rows = format::LoadU32(&b[20]);
  record->complete = format::LoadU32(&b[24]) == 1;
  record->generation = LoadU64(&b[32]);
  return RecordState::kValid;
}

RecordState ReadCubeRecord(const std::string& header_path, CubeRecord* record) {
  platform::File once;
  return ReadCubeRecord(header_path, &once, record);
}

bool CubeRecordWriter::Begin(const std::string& header_path, std::uint32_t width,
                             std::uint32_t height, std::uint32_t bins) {
  file_.Close();
  std::random_device random;
  record_ = CubeRecord{};
  record_.width = width;
  record_.height = height;
  record_.bins = bins;
  record_.generation = (static_cast<std::uint64_t>(random()) << 32) ^ random();
  // Written under a name of its own, then put in place in one step, so a
  // reader never finds the record missing or empty while it is replaced.
  const std::string path = DataFilePath(header_path, DataFile::kCubeRecord, 0);
  char suffix[32];
  std::snprintf(suffix, sizeof suffix, "_%016llx.fft",
                static_cast<unsigned long long>(record_.generation));
  const std::string fresh = path.substr(0, path.size() - 4) + suffix;
  if (!file_.Open(fresh, platform::File::Mode::kCreate) || !Write() ||
      !platform::ReplaceFile(fresh, path)) {
    file_.Close();
    std::error_code ec;
    std::filesystem::remove(platform::PathFromUtf8(fresh), ec);
    return false;
  }
  return true;
}

bool CubeRecordWriter::SetRows(std::uint32_t rows) {
  record_.rows = rows;
  return Write();
}

bool CubeRecordWriter::Complete() {
  record_.complete = true;
  return Write();
}

bool CubeRecordWriter::Write() {
  const Bytes b = Encode(record_);
  return file_.WriteAt(0, b.data(), b.size()) == b.size();
}

}  // namespace frfcam::frfmap
