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

// windows.h names a function of its own ReplaceFile (a macro); ours is meant.
#undef ReplaceFile

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

// Large pages need a privilege that ordinary users lack; the hint is moot.
void AdviseLargePages(void*, std::size_t) {}

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

bool IsRegularFile(const std::string& path) {
  return IsRegularFile(std::filesystem::path(WideFromAnsi(path)));
}

bool IsRegularFile(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES &&
         (attributes &
          (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE)) == 0;
}

bool ReplaceFile(const std::string& from, const std::string& to) {
  // Fails while anyone holds `to` open: Windows keeps open files in place.
  return MoveFileExW(WideFromAnsi(from).c_str(), WideFromAnsi(to).c_str(),
                     MOVEFILE_REPLACE_EXISTING) != 0;
}

bool File::Open(const std::string& path, Mode mode) {
  Close();
  const std::wstring wpath = WideFromAnsi(path);
  HANDLE h;
  if (mode == Mode::kRead) {
    // Others may read too, but nobody may write, truncate, delete or rename
    // the file while it is read.
    h = CreateFileW(wpath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                    FILE_ATTRIBUTE_NORMAL, nullptr);
  } else {
    // As on Linux, a new file replaces the old one rather than truncating it.
    // A file that someone holds open cannot be deleted, and then the create
    // below fails on its share mode: the old content stays intact. The new
    // file may be renamed while it is written (ReplaceFile), not written to.
    DeleteFileW(wpath.c_str());
    h = CreateFileW(wpath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  if (h == INVALID_HANDLE_VALUE) return false;
  // Pipes, consoles and devices are not files of ours.
  if (GetFileType(h) != FILE_TYPE_DISK) {
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

bool File::IsAt(const std::string&) const { return false; }

bool File::Size(std::uint64_t* size) const {
  LARGE_INTEGER s;
  if (fd_ == kNoHandle || !GetFileSizeEx(AsHandle(fd_), &s)) return false;
  *size = static_cast<std::uint64_t>(s.QuadPart);
  return true;
}

std::size_t File::ReadAt(std::uint64_t offset, void* data, std::size_t size) const {
  if (offset > static_cast<std::uint64_t>(INT64_MAX)) return 0;
  size = static_cast<std::size_t>(
      std::min<std::uint64_t>(size, static_cast<std::uint64_t>(INT64_MAX) - offset));
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

// Windows has no file-size limit signal: a write fails or is short.
std::size_t File::WriteAt(std::uint64_t offset, const void* data, std::size_t size) const {
  if (offset > static_cast<std::uint64_t>(INT64_MAX)) return 0;
  size = static_cast<std::size_t>(
      std::min<std::uint64_t>(size, static_cast<std::uint64_t>(INT64_MAX) - offset));
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

bool File::Reserve(std::uint64_t) const { return false; }

bool File::EnableDirect() const { return false; }

}  // namespace frfcam::platform

#endif  // _WIN32
