#include "platform/platform.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace frfcam::platform {

namespace {

[[maybe_unused]] std::string ReadSmallFile(const char* path) {
  std::ifstream in(path);
  if (!in) return {};
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::uint64_t ParseNumber(const std::string& text, bool* ok) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i == text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) {
    *ok = false;
    return 0;
  }
  *ok = true;
  return std::strtoull(text.c_str() + i, nullptr, 10);
}

bool IsSeparator(char c) {
#if defined(_WIN32)
  return c == '\\' || c == '/';
#else
  return c == '/';
#endif
}

}  // namespace

std::uint64_t ParseMemAvailable(const std::string& meminfo) {
  const std::string key = "MemAvailable:";
  const auto at = meminfo.find(key);
  if (at == std::string::npos) return UINT64_MAX;
  bool ok = false;
  const std::uint64_t kib = ParseNumber(meminfo.substr(at + key.size()), &ok);
  return ok ? kib * 1024 : UINT64_MAX;
}

std::uint64_t CgroupHeadroom(const std::string& limit, const std::string& usage) {
  bool limit_ok = false;
  bool usage_ok = false;
  const std::uint64_t l = ParseNumber(limit, &limit_ok);
  const std::uint64_t u = ParseNumber(usage, &usage_ok);
  if (!limit_ok) return UINT64_MAX;  // "max" or unreadable: no limit
  if (!usage_ok) return l;
  return l > u ? l - u : 0;
}

// The Windows versions of what follows are in platform_win32.cpp.
#if !defined(_WIN32)
void AdviseLargePages(void* p, std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
  // Only the whole 2 MiB pages inside the buffer.
  constexpr std::uintptr_t kLarge = 2u << 20;
  const auto begin = (reinterpret_cast<std::uintptr_t>(p) + kLarge - 1) & ~(kLarge - 1);
  const auto end = (reinterpret_cast<std::uintptr_t>(p) + bytes) & ~(kLarge - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)p;
  (void)bytes;
#endif
}

std::uint64_t AvailablePhysicalMemory() {
  std::uint64_t avail = ParseMemAvailable(ReadSmallFile("/proc/meminfo"));
  // cgroup v2, then v1. A v1 "no limit" is a huge number, which the min keeps harmless.
  std::uint64_t headroom = CgroupHeadroom(ReadSmallFile("/sys/fs/cgroup/memory.max"),
                                          ReadSmallFile("/sys/fs/cgroup/memory.current"));
  if (headroom == UINT64_MAX) {
    headroom = CgroupHeadroom(ReadSmallFile("/sys/fs/cgroup/memory/memory.limit_in_bytes"),
                              ReadSmallFile("/sys/fs/cgroup/memory/memory.usage_in_bytes"));
  }
  if (headroom < avail) avail = headroom;
  return avail == UINT64_MAX ? 0 : avail;
}

std::FILE* OpenFile(const std::string& path, const char* mode) {
  // POSIX has no share modes; concurrent writers are the caller's business.
  return std::fopen(path.c_str(), mode);
}

bool SeekTo(std::FILE* file, std::uint64_t offset) {
  if (file == nullptr || offset > static_cast<std::uint64_t>(INT64_MAX)) return false;
  return ::fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}

bool FileSize(const std::string& path, std::uint64_t* size) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  *size = static_cast<std::uint64_t>(st.st_size);
  return true;
}
#endif  // !_WIN32

PathParts SplitPath(const std::string& path) {
  PathParts parts;
  std::size_t start = 0;
#if defined(_WIN32)
  if (path.size() >= 2 && path[1] == ':') {
    parts.drive = path.substr(0, 2);
    start = 2;
  }
#endif
  std::size_t last_sep = std::string::npos;
  for (std::size_t i = start; i < path.size(); ++i) {
    if (IsSeparator(path[i])) last_sep = i;
  }
  std::size_t name_start = start;
  if (last_sep != std::string::npos) {
    parts.dir = path.substr(start, last_sep + 1 - start);
    name_start = last_sep + 1;
  }
  const std::string name = path.substr(name_start);
  const auto dot = name.rfind('.');
  if (dot == std::string::npos) {
    parts.fname = name;
  } else {
    parts.fname = name.substr(0, dot);
    parts.ext = name.substr(dot);
  }
  return parts;
}

#if !defined(_WIN32)
std::filesystem::path PathFromUtf8(const std::string& path) {
  // Narrow paths are UTF-8 here; on Windows this would go through u8string.
  return std::filesystem::path(path);
}

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool IsRegularFile(const std::filesystem::path& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool ReplaceFile(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

bool File::Open(const std::string& path, Mode mode) {
  Close();
  // A new file replaces an old one instead of truncating it, so that a
  // reader of the old file elsewhere reads it whole or not at all.
  if (mode == Mode::kCreate) ::unlink(path.c_str());
  // Without O_NONBLOCK the open of a FIFO waits for its other end forever.
  const int flags = mode == Mode::kRead ? O_RDONLY : (O_WRONLY | O_CREAT | O_TRUNC);
  int fd;
  do {
    fd = ::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return false;
  struct stat st;
  const int status = ::fcntl(fd, F_GETFL);
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || status < 0 ||
      ::fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0) {
    ::close(fd);
    return false;
  }
  fd_ = fd;
  return true;
}

void File::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool File::IsAt(const std::string& path) const {
  struct stat named, held;
  return fd_ >= 0 && ::stat(path.c_str(), &named) == 0 && ::fstat(fd_, &held) == 0 &&
         named.st_dev == held.st_dev && named.st_ino == held.st_ino;
}

bool File::Size(std::uint64_t* size) const {
  struct stat st;
  if (fd_ < 0 || ::fstat(fd_, &st) != 0) return false;
  *size = static_cast<std::uint64_t>(st.st_size);
  return true;
}

std::size_t File::ReadAt(std::uint64_t offset, void* data, std::size_t size) const {
  if (offset > static_cast<std::uint64_t>(INT64_MAX)) return 0;
  size = static_cast<std::size_t>(
      std::min<std::uint64_t>(size, static_cast<std::uint64_t>(INT64_MAX) - offset));
  std::size_t done = 0;
  auto* p = static_cast<char*>(data);
  while (fd_ >= 0 && done < size) {
    const ssize_t r = ::pread(fd_, p + done, size - done, static_cast<off_t>(offset + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    done += static_cast<std::size_t>(r);
  }
  return done;
}

namespace {

// The largest size a file of this process may reach: writing or allocating
// past the file-size limit raises a signal that kills the process by
// default, so the file layer stops short of it instead.
std::uint64_t FileSizeLimit() {
  std::uint64_t end_limit = static_cast<std::uint64_t>(INT64_MAX);
  struct rlimit limit;
  if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    end_limit = std::min<std::uint64_t>(end_limit, limit.rlim_cur);
  }
  return end_limit;
}

}  // namespace

std::size_t File::WriteAt(std::uint64_t offset, const void* data, std::size_t size) const {
  if (fd_ < 0) return 0;
  // Writing only up to the limit makes it a short write.
  const std::uint64_t end_limit = FileSizeLimit();
  if (offset >= end_limit) return 0;
  size = static_cast<std::size_t>(std::min<std::uint64_t>(size, end_limit - offset));
  std::size_t done = 0;
  const auto* p = static_cast<const char*>(data);
  while (done < size) {
    const ssize_t r = ::pwrite(fd_, p + done, size - done, static_cast<off_t>(offset + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;  // ENOSPC, EIO: the caller sees a short write
    done += static_cast<std::size_t>(r);
  }
  return done;
}

bool File::Reserve(std::uint64_t size) const {
  if (fd_ < 0 || size == 0 || size > FileSizeLimit()) return false;
  // fallocate, not posix_fallocate: where the file system cannot allocate
  // ahead, the latter writes zeros over the whole range.
  int r;
  do {
    r = ::fallocate(static_cast<int>(fd_), 0, 0, static_cast<off_t>(size));
  } while (r != 0 && errno == EINTR);
  return r == 0;
}

bool File::EnableDirect() const {
  if (fd_ < 0) return false;
  const int status = ::fcntl(static_cast<int>(fd_), F_GETFL);
  return status >= 0 && ::fcntl(static_cast<int>(fd_), F_SETFL, status | O_DIRECT) == 0;
}

#endif  // !_WIN32

}  // namespace frfcam::platform
