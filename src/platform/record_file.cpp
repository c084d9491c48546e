#include "platform/record_file.h"

#include <algorithm>

#if defined(_WIN32)
#include <windows.h>

#include "platform/win32.h"
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace frfcam::platform {

#if defined(_WIN32)

bool WriteWholeFile(const std::string& path, const void* data, std::size_t size) {
  // Paths arrive in the ANSI code page, as everywhere on Windows.
  const std::wstring wide = WideFromAnsi(path);
  HANDLE file = ::CreateFileW(wide.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  // Pipes and character devices are not files to keep a record in.
  bool ok = ::GetFileType(file) == FILE_TYPE_DISK && ::SetEndOfFile(file);
  const auto* p = static_cast<const char*>(data);
  std::size_t done = 0;
  while (ok && done < size) {
    const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(size - done, 1u << 30));
    DWORD written = 0;
    ok = ::WriteFile(file, p + done, chunk, &written, nullptr) && written > 0;
    done += written;
  }
  if (!ok && ::GetFileType(file) == FILE_TYPE_DISK) {
    LARGE_INTEGER zero{};
    ::SetFilePointerEx(file, zero, nullptr, FILE_BEGIN);
    ::SetEndOfFile(file);
  }
  return ::CloseHandle(file) && ok;
}

#else

bool WriteWholeFile(const std::string& path, const void* data, std::size_t size) {
  // O_NONBLOCK: opening a FIFO for writing would otherwise wait for a reader
  // (without one it now fails with ENXIO). No O_TRUNC: nothing is changed
  // before the file is known to be a regular one.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return false;
  }
  bool ok = ::ftruncate(fd, 0) == 0;
  const auto* p = static_cast<const char*>(data);
  std::size_t done = 0;
  while (ok && done < size) {
    const ssize_t r = ::write(fd, p + done, size - done);
    if (r < 0 && errno == EINTR) continue;
    ok = r > 0;
    if (ok) done += static_cast<std::size_t>(r);
  }
  if (!ok) static_cast<void>(::ftruncate(fd, 0));
  // A full disk or a failed flush to a network file system can show up only
  // at close.
  const bool closed = ::close(fd) == 0;
  if (ok && !closed) {
    const int again = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (again >= 0) {
      struct stat check;
      if (::fstat(again, &check) == 0 && S_ISREG(check.st_mode)) {
        static_cast<void>(::ftruncate(again, 0));
      }
      ::close(again);
    }
  }
  return ok && closed;
}

#endif

}  // namespace frfcam::platform
