// The operating-system layer: memory status, files and paths. Every OS
// dependent call of the library lives behind these functions.

// Function versions for several instruction sets, chosen at load time, for
// the few pixel loops where wider vectors pay. Not under the sanitizers,
// whose instrumented load-time resolvers would run before their runtime.
#if defined(__GNUC__) && defined(__x86_64__) && defined(__ELF__) && !defined(__clang__) && \
    !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define FRFCAM_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
// For integer loops on 8- and 16-bit lanes, which AVX-512 has only with its
// byte and word instructions. Floating-point loops keep the set above: the
// newer levels bring fused multiply-adds and so other roundings.
#define FRFCAM_INTEGER_CLONES \
  __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define FRFCAM_VECTOR_CLONES
#define FRFCAM_INTEGER_CLONES
#endif
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

namespace frfcam::platform {

#if defined(_WIN32)
inline constexpr char kPathSeparator = '\\';
// Whether a reader may keep a file open between calls while others replace
// it (ReplaceFile): not on Windows, where the open handle makes that fail.
inline constexpr bool kCanKeepReadersOpen = false;
#else
inline constexpr char kPathSeparator = '/';
inline constexpr bool kCanKeepReadersOpen = true;
#endif

// Physical memory available to this process now, in bytes: the system's
// available memory, capped by the control group's limit when there is one.
std::uint64_t AvailablePhysicalMemory();

// Asks the OS to back [p, p + bytes) with large pages where it can: a buffer
// of tens of MiB, touched afresh by every render, then costs a few hundred
// page faults instead of tens of thousands, and its strided walks miss the
// TLB less. A hint only; does nothing on systems without it.
void AdviseLargePages(void* p, std::size_t bytes);

// Parses the two sources of AvailablePhysicalMemory (exposed for tests):
// the MemAvailable line of a meminfo text, and a cgroup limit/usage pair
// ("max" meaning no limit). Return UINT64_MAX when nothing applies.
std::uint64_t ParseMemAvailable(const std::string& meminfo);
std::uint64_t CgroupHeadroom(const std::string& limit, const std::string& usage);

// Opens a C stream for shared access (others may read; writers are denied
// where the OS supports it). `path` is UTF-8. Returns null on failure. For
// files the user names to the tools and for the capture writer; unlike File,
// it may block on a FIFO.
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

// A file-system path from a UTF-8 string.
std::filesystem::path PathFromUtf8(const std::string& path);

}  // namespace frfcam::platform

namespace frfcam::platform {

// True when `path` (UTF-8) names a regular file itself: a symbolic link, a
// folder, a FIFO or a device is not one, and a final symbolic link is not
// followed. Never blocks, never throws. On Windows (ANSI path) a reparse
// point counts as a symbolic link.
bool IsRegularFile(const std::string& path);
// The same for a path as the file system gives it (a directory walk), which
// needs no conversion: wide on Windows.
bool IsRegularFile(const std::filesystem::path& path);

// Renames `from` to `to` (both UTF-8, in one folder), replacing an existing
// `to` in one step: others see the old file or the new one, never neither.
// `from` may be held open by a File of this process, which then goes on
// writing the file under its new name. False on failure, when `from` is left
// as it was. On Windows it fails while anyone holds `to` open.
bool ReplaceFile(const std::string& from, const std::string& to);

// A regular file opened for positioned reads or writes: no shared file
// position and no user-space buffering, so transfers go straight between the
// caller's memory and the OS, and several objects may read one file at once.
//
// Opening never blocks, whatever the path names: anything that is not a
// regular file (a FIFO, a device, a folder) is refused. A file that another
// process shortens while it is open gives short reads, never a signal.
//
// On Windows (ANSI paths, opened with CreateFileW) a file open for reading
// denies writers: nobody can write, truncate, delete or rename it meanwhile,
// and a kCreate of a file that someone holds open fails instead of replacing
// it. Reads and writes are ReadFile/WriteFile at OVERLAPPED offsets.
class File {
 public:
  // kRead opens an existing file for reading. kCreate makes a new, empty
  // file for writing; an existing entry of that name is replaced (removed,
  // not truncated), so readers that hold the old file keep reading it.
  enum class Mode { kRead, kCreate };
  File() = default;
  ~File() { Close(); }
  File(File&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens `path` (UTF-8), closing any file held before. False when it cannot
  // be opened or is not a regular file; the object is then closed.
  bool Open(const std::string& path, Mode mode);
  bool is_open() const { return fd_ >= 0; }
  void Close();

  // Whether `path` (UTF-8) still names the file this object has open: false
  // once another file was put in its place or it was removed, and always
  // false on Windows (see kCanKeepReadersOpen).
  bool IsAt(const std::string& path) const;

  // The file's current size in bytes; false when it cannot be queried.
  bool Size(std::uint64_t* size) const;

  // Reads up to `size` bytes at byte `offset` into `data` (owned by the
  // caller). Returns the bytes read: fewer than asked at the end of the file
  // or on an error, 0 when the file is closed.
  std::size_t ReadAt(std::uint64_t offset, void* data, std::size_t size) const;

  // Writes `size` bytes from `data` at byte `offset`, extending the file as
  // needed. Returns the bytes written: fewer than asked when the disk is
  // full, on an error, or where the write would pass the process's file-size
  // limit; such a write stops short of the limit instead of raising the OS's
  // signal for it. The process's signal mask and handlers are not touched.
  std::size_t WriteAt(std::uint64_t offset, const void* data, std::size_t size) const;

  // Asks the file system to allocate the first `size` bytes of a file that
  // is about to be written out of order, so that each later write lands in
  // allocated space (on Linux with ext4 that costs the writes about a third
  // less CPU than allocating as they come). Bytes not yet written read as
  // zero; the file's size becomes `size` if it was smaller. A hint only:
  // false where it was not done (not supported, no space, or past the
  // process's file-size limit, which raises no signal); WriteAt still
  // reports every failure. On Windows it does nothing and returns false.
  bool Reserve(std::uint64_t size) const;

  // Switches a file open for writing to direct writes: from then on its
  // writes (WriteAt and WriteQueue's) go between the caller's memory and the
  // disk without passing through the OS's file cache, and each needs an
  // offset, a size and an address that are multiples of
  // kDirectWriteAlignment. False where the file system does not offer it (a
  // RAM disk, for one) and always on Windows; the file then writes as
  // before.
  bool EnableDirect() const;

 private:
  friend class WriteQueue;
  std::intptr_t fd_ = -1;  // a descriptor, or on Windows a HANDLE
};

// The alignment direct writes need, in bytes: the page size, which every
// disk's sector size divides.
inline constexpr std::size_t kDirectWriteAlignment = 4096;

}  // namespace frfcam::platform
