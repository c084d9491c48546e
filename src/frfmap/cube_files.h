// The cube file set: the numbered ".fft" files of a capture, each holding
// whole bin planes, with their handles cached by file number.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "frfmap/layout.h"
#include "platform/platform.h"

namespace frfcam::frfmap {

class CubeFileSet {
 public:
  enum class Mode { kRead, kWrite };

  // Forgets (closes) every handle and starts over for the capture whose
  // header is `header_path`.
  void Reset(const std::string& header_path, const CubeLayout& layout);
  void Close();

  const CubeLayout& layout() const { return layout_; }

  // Switches between reading and writing; handles of the other mode are
  // closed first. Writing creates (truncates) each file on first use.
  void SetMode(Mode mode);

  // Writes `size` bytes at byte `offset` of bin `bin`'s plane; false on a
  // short write or a file that cannot be created.
  bool WriteInPlane(std::uint32_t bin, std::uint64_t offset, const void* data, std::size_t size);
  // In read mode, reads `size` bytes at byte `offset` of bin `bin`'s plane
  // into `data` (the caller's). Returns the bytes read: fewer when the file
  // is cut short (also by another process while it is read), none when it
  // cannot be opened.
  std::size_t ReadInPlane(std::uint32_t bin, std::uint64_t offset, void* data, std::size_t size);
  // Whether the file that holds `bin` is open already (no read will open it)
  // and, as it stands now, long enough to hold the whole plane.
  bool HoldsPlane(std::uint32_t bin) const;

  // In write mode, the file that holds `bin` switched to direct writes
  // (platform::File::EnableDirect), for writes through a WriteQueue; null
  // when it cannot be: the file could not be created, its space could not be
  // reserved ahead, or its file system writes only through the cache. The
  // caller then writes that bin with WriteInPlane.
  const platform::File* DirectFileFor(std::uint32_t bin);

 private:
  // The number of the file that holds `bin` (1 .. 127); 0 when there is none.
  unsigned FileNumber(std::uint32_t bin) const;
  // The file that holds `bin`, opened in the current mode on first use (in
  // write mode created); null when it cannot be opened or the bin is beyond
  // the files 1 .. 127.
  const platform::File* FileFor(std::uint32_t bin);

  std::string header_path_;
  CubeLayout layout_;
  Mode mode_ = Mode::kRead;
  std::array<platform::File, kHandleTableSize> files_;
  std::array<bool, kHandleTableSize> tried_{};
  // Write mode: whether the file's planes are allocated ahead, and whether
  // it was switched to direct writes (0 not tried, 1 yes, 2 no).
  std::array<bool, kHandleTableSize> reserved_{};
  std::array<std::uint8_t, kHandleTableSize> direct_{};
};

// Removes every regular file whose extension is exactly ".fft" anywhere below
// `folder` (cube files and their completion records); FIFOs, devices,
// folders and symbolic links are left alone. Errors (a missing folder, an
// entry that cannot be removed) are skipped; returns the number of files
// removed.
std::size_t DeleteCubeFiles(const std::string& folder);

}  // namespace frfcam::frfmap
