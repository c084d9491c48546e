// The Windows implementation of the operating-system layer. Paths arrive in
// the ANSI code page and go to the wide-character API; files that are read
// are opened denying other writers, so no other program can change or
// truncate them underneath a reader.
#if defined(_WIN32)

#include <share.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "platform/platform.h"
#include "platform/win32.h"

namespace frfcam::platform {

namespace {

HANDLE AsHandle(std::intptr_t h) { return reinterpret_cast<HANDLE>(h); }
std::intptr_t FromHandle(HANDLE h) { return reinterpret_cast<std::intptr_t>(h); }
constexpr std::intptr_t kNoHandle = -1;  // INVALID_HANDLE_VALUE

// ReadFile and WriteFile take 32-bit counts; larger transfers go in pieces.
constexpr std::size_t kMaxTransfer = 1u << 30;

OVERLAPPED At(std::uint64_t offset) {
  OVERLAPPED o{};
  o.Offset = static_cast<DWORD>(offset & 0xFFFFFFFFu);
  o.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return o;
}

}  // namespace

std::wstring WideFromAnsi(const std::string& text) {
  if (text.empty()) return {};
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    throw std::bad_alloc();
  const int n = static_cast<int>(text.size());
  const int wide = MultiByteToWideChar(CP_ACP, 0, text.data(), n, nullptr, 0);
  if (wide <= 0) return {};
  std::wstring out(static_cast<std::size_t>(wide), L'\0');
  MultiByteToWideChar(CP_ACP, 0, text.data(), n, out.data(), wide);
  return out;
}

std::uint64_t AvailablePhysicalMemory() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof(status);
  if (!GlobalMemoryStatusEx(&status)) return 0;
  return status.ullAvailPhys;
}

std::FILE* OpenFile(const std::string& path, const char* mode) {
  const std::wstring wpath = WideFromAnsi(path);
  const std::wstring wmode = WideFromAnsi(mode);
  return _wfsopen(wpath.c_str(), wmode.c_str(), _SH_DENYWR);
}

bool SeekTo(std::FILE* file, std::uint64_t offset) {
  if (file == nullptr || offset > static_cast<std::uint64_t>(INT64_MAX)) return false;
  return _fseeki64(file, static_cast<__int64>(offset), SEEK_SET) == 0;
}

bool FileSize(const std::string& path, std::uint64_t* size) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(WideFromAnsi(path).c_str(), GetFileExInfoStandard, &data) ||
      (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return false;
  }
  *size = (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  return true;
}

std::filesystem::path PathFromUtf8(const std::string& path) {
  return std::filesystem::path(WideFromAnsi(path));
}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_;
    other.fd_ = kNoHandle;
  }
  return *this;
}

bool File::Open(const std::string& path, Mode mode) {
  Close();
  const std::wstring wpath = WideFromAnsi(path);
  HANDLE h;
  if (mode == Mode::kRead) {
    h = CreateFileW(wpath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                    FILE_ATTRIBUTE_NORMAL, nullptr);
  } else {
    // As on Linux, a new file replaces the old one rather than truncating it.
    // A file that someone holds open cannot be deleted here, and then the
    // create below fails on its share mode: the old content stays intact.
    DeleteFileW(wpath.c_str());
    h = CreateFileW(wpath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                    FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  if (h == INVALID_HANDLE_VALUE) return false;
  if (mode == Mode::kRead && GetFileType(h) != FILE_TYPE_DISK) {
    CloseHandle(h);
    return false;
  }
  fd_ = FromHandle(h);
  return true;
}

void File::Close() {
  if (fd_ != kNoHandle) CloseHandle(AsHandle(fd_));
  fd_ = kNoHandle;
}

std::size_t File::ReadAt(std::uint64_t offset, void* data, std::size_t size) const {
  std::size_t done = 0;
  auto* p = static_cast<char*>(data);
  while (fd_ != kNoHandle && done < size) {
    const DWORD want = static_cast<DWORD>(std::min(size - done, kMaxTransfer));
    OVERLAPPED o = At(offset + done);
    DWORD got = 0;
    if (!ReadFile(AsHandle(fd_), p + done, want, &got, &o) || got == 0) break;
    done += got;
  }
  return done;
}

std::size_t File::WriteAt(std::uint64_t offset, const void* data, std::size_t size) const {
  std::size_t done = 0;
  const auto* p = static_cast<const char*>(data);
  while (fd_ != kNoHandle && done < size) {
    const DWORD want = static_cast<DWORD>(std::min(size - done, kMaxTransfer));
    OVERLAPPED o = At(offset + done);
    DWORD put = 0;
    if (!WriteFile(AsHandle(fd_), p + done, want, &put, &o) || put == 0) break;
    done += put;
  }
  return done;
}

bool MappedFile::Open(const std::string& path) {
  Close();
  HANDLE h = CreateFileW(WideFromAnsi(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  LARGE_INTEGER size;
  if (GetFileType(h) != FILE_TYPE_DISK || !GetFileSizeEx(h, &size)) {
    CloseHandle(h);
    return false;
  }
  size_ = static_cast<std::uint64_t>(size.QuadPart);
  if (size_ > 0) {
    HANDLE mapping = CreateFileMappingW(h, nullptr, PAGE_READONLY, 0, 0, nullptr);
    void* p = mapping != nullptr ? MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0) : nullptr;
    if (mapping != nullptr) CloseHandle(mapping);  // the view keeps the section
    if (p == nullptr) {
      CloseHandle(h);
      size_ = 0;
      return false;
    }
    data_ = static_cast<const std::uint8_t*>(p);
  }
  // Unlike Linux, the file stays open: its share mode keeps writers out.
  file_ = FromHandle(h);
  open_ = true;
  return true;
}

void MappedFile::Close() {
  if (data_ != nullptr) UnmapViewOfFile(data_);
  if (file_ != kNoHandle) CloseHandle(AsHandle(file_));
  data_ = nullptr;
  size_ = 0;
  file_ = kNoHandle;
  open_ = false;
}

}  // namespace frfcam::platform

#endif  // _WIN32
