// The operating-system layer: memory status, files and paths. Every OS
// dependent call of the library lives behind these functions.

// Function versions for several instruction sets, chosen at load time, for
// the few pixel loops where wider vectors pay. Not under the sanitizers,
// whose instrumented load-time resolvers would run before their runtime.
#if defined(__GNUC__) && defined(__x86_64__) && defined(__ELF__) && !defined(__clang__) && \
    !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define FRFCAM_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define FRFCAM_VECTOR_CLONES
#endif
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

namespace frfcam::platform {

#if defined(_WIN32)
inline constexpr char kPathSeparator = '\\';
#else
inline constexpr char kPathSeparator = '/';
#endif

// Physical memory available to this process now, in bytes: the system's
// available memory, capped by the control group's limit when there is one.
std::uint64_t AvailablePhysicalMemory();

// Parses the two sources of AvailablePhysicalMemory (exposed for tests):
// the MemAvailable line of a meminfo text, and a cgroup limit/usage pair
// ("max" meaning no limit). Return UINT64_MAX when nothing applies.
std::uint64_t ParseMemAvailable(const std::string& meminfo);
std::uint64_t CgroupHeadroom(const std::string& limit, const std::string& usage);

// Opens a file for shared access (others may read; writers are denied where
// the OS supports it, as Windows does). `path` is UTF-8 on Linux and in the
// ANSI code page on Windows. Returns null on failure.
std::FILE* OpenFile(const std::string& path, const char* mode);

// Seeks from the start of the file with a 64-bit offset; true on success.
bool SeekTo(std::FILE* file, std::uint64_t offset);

// Size of a file in bytes; false (and *size untouched) when it cannot be
// queried. Never throws.
bool FileSize(const std::string& path, std::uint64_t* size);

// The parts of a path as the naming rule uses them. `drive` is empty on
// systems without drive letters; `dir` keeps its trailing separator; `ext`
// starts at the last dot of the final component (empty when there is none).
struct PathParts {
  std::string drive;
  std::string dir;
  std::string fname;
  std::string ext;
};
PathParts SplitPath(const std::string& path);

// A file-system path from one of the library's 8-bit strings (UTF-8 on Linux,
// the ANSI code page on Windows, where the path is wide).
std::filesystem::path PathFromUtf8(const std::string& path);

}  // namespace frfcam::platform

namespace frfcam::platform {

// A file opened for positioned reads or writes (no shared file position, no
// user-space buffering), so large transfers go straight between the caller's
// memory and the OS.
class File {
 public:
  // kCreate makes a new file for writing, replacing (not truncating) any
  // file of that name.
  enum class Mode { kRead, kCreate };
  File() = default;
  ~File() { Close(); }
  File(File&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // UTF-8 path. False when the file cannot be opened.
  bool Open(const std::string& path, Mode mode);
  bool is_open() const { return fd_ >= 0; }
  void Close();

  // Bytes transferred; fewer than asked on end of file or error.
  std::size_t ReadAt(std::uint64_t offset, void* data, std::size_t size) const;
  std::size_t WriteAt(std::uint64_t offset, const void* data, std::size_t size) const;

 private:
  std::intptr_t fd_ = -1;  // a descriptor, or on Windows a HANDLE
};

}  // namespace frfcam::platform

namespace frfcam::platform {

// A whole file mapped read-only into memory, so readers take bytes straight
// from the page cache without a copy. The file must not be truncated while it
// is mapped (the OS signals an access past its new end).
class MappedFile {
 public:
  MappedFile() = default;
  ~MappedFile() { Close(); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // UTF-8 path. False when the file cannot be opened or mapped; an empty
  // file maps to no bytes and succeeds.
  bool Open(const std::string& path);
  void Close();
  bool is_open() const { return open_; }
  const std::uint8_t* data() const { return data_; }
  std::uint64_t size() const { return size_; }

 private:
  const std::uint8_t* data_ = nullptr;
  std::uint64_t size_ = 0;
  bool open_ = false;
  std::intptr_t file_ = -1;  // Windows: held open for its share mode
};

}  // namespace frfcam::platform
