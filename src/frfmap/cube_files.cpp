#include "frfmap/cube_files.h"

#include <algorithm>
#include <filesystem>

#include "frfmap/naming.h"

namespace frfcam::frfmap {

void CubeFileSet::Reset(const std::string& header_path, const CubeLayout& layout) {
  Close();
  header_path_ = header_path;
  layout_ = layout;
  mode_ = Mode::kRead;
}

void CubeFileSet::Close() {
  for (auto& f : files_) f.Close();
  tried_.fill(false);
  reserved_.fill(false);
  direct_.fill(0);
}

void CubeFileSet::SetMode(Mode mode) {
  if (mode != mode_) Close();
  mode_ = mode;
}

unsigned CubeFileSet::FileNumber(std::uint32_t bin) const {
  if (layout_.bins_per_file == 0) return 0;
  const unsigned n = layout_.Locate(bin).file;
  return n <= kMaxFileNumber ? n : 0;
}

const platform::File* CubeFileSet::FileFor(std::uint32_t bin) {
  const unsigned n = FileNumber(bin);
  if (n == 0) return nullptr;
  // One attempt per file and mode: a file that cannot be opened stays
  // unopened until the set is reset, as a failed write or read is final.
  if (!tried_[n]) {
    tried_[n] = true;
    files_[n].Open(
        DataFilePath(header_path_, DataFile::kCube, n),
        mode_ == Mode::kWrite ? platform::File::Mode::kCreate : platform::File::Mode::kRead);
    // The planes are written a block's run at a time, out of order.
    if (mode_ == Mode::kWrite && files_[n].is_open()) {
      const std::uint64_t first = static_cast<std::uint64_t>(n - 1) * layout_.bins_per_file;
      const std::uint64_t planes =
          std::min<std::uint64_t>(layout_.bins_per_file, layout_.bins - first);
      reserved_[n] = files_[n].Reserve(planes * layout_.plane_bytes);
    }
  }
  return files_[n].is_open() ? &files_[n] : nullptr;
}

bool CubeFileSet::WriteInPlane(std::uint32_t bin, std::uint64_t offset, const void* data,
                               std::size_t size) {
  const platform::File* f = FileFor(bin);
  if (f == nullptr) return false;
  return f->WriteAt(layout_.Locate(bin).offset + offset, data, size) == size;
}

std::size_t CubeFileSet::ReadInPlane(std::uint32_t bin, std::uint64_t offset, void* data,
                                     std::size_t size) {
  if (mode_ != Mode::kRead) return 0;
  const platform::File* f = FileFor(bin);
  if (f == nullptr) return 0;
  return f->ReadAt(layout_.Locate(bin).offset + offset, data, size);
}

const platform::File* CubeFileSet::DirectFileFor(std::uint32_t bin) {
  if (mode_ != Mode::kWrite) return nullptr;
  const platform::File* f = FileFor(bin);
  if (f == nullptr) return nullptr;
  const unsigned n = FileNumber(bin);
  // Only into space allocated ahead: a direct write then never extends the
  // file, and never meets the file-size limit.
  if (direct_[n] == 0) direct_[n] = reserved_[n] && f->EnableDirect() ? 1 : 2;
  return direct_[n] == 1 ? f : nullptr;
}

bool CubeFileSet::HoldsPlane(std::uint32_t bin) const {
  const unsigned n = FileNumber(bin);
  std::uint64_t size = 0;
  return n != 0 && files_[n].is_open() && files_[n].Size(&size) &&
         size >= layout_.Locate(bin).offset + layout_.plane_bytes;
}

std::size_t DeleteCubeFiles(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code ec;
  std::size_t removed = 0;
  fs::recursive_directory_iterator it(platform::PathFromUtf8(folder),
                                      fs::directory_options::skip_permission_denied, ec);
  const fs::recursive_directory_iterator end;
  while (!ec && it != end) {
    const fs::directory_entry& entry = *it;
    std::error_code entry_ec;
    // Regular files only: no FIFO, device or folder, and a symbolic link is
    // neither followed nor removed.
    if (entry.path().extension() == ".fft" && platform::IsRegularFile(entry.path())) {
      if (fs::remove(entry.path(), entry_ec)) ++removed;
    }
    it.increment(ec);
  }
  return removed;
}

}  // namespace frfcam::frfmap
