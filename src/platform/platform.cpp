#include "platform/platform.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace frfcam::platform {

namespace {

std::string ReadSmallFile(const char* path) {
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

}  // namespace frfcam::platform
