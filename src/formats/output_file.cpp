#include "formats/output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "platform/platform.h"

namespace frfcam::formats {

namespace fs = std::filesystem;

namespace {

using FilePtr = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

std::string Reason(const std::string& path, const char* what, int error) {
  return path + ": " + what + " (" + std::strerror(error) + ")";
}

// Regular files (and names not taken yet) go through a temporary file; other
// existing entries (devices, pipes) are written in place.
bool IsDevice(const fs::path& p) {
  std::error_code ec;
  const fs::file_status st = fs::status(p, ec);
  return !ec && fs::exists(st) && !fs::is_regular_file(st) && !fs::is_directory(st);
}

}  // namespace

bool CanWriteFile(const std::string& path, std::string* why) {
  const fs::path p = platform::PathFromUtf8(path);
  std::error_code ec;
  if (path.empty()) {
    if (why) *why = "no output file given";
    return false;
  }
  if (fs::is_directory(p, ec)) {
    if (why) *why = path + ": is a folder, not a file";
    return false;
  }
  const bool existed = fs::exists(p, ec);
  errno = 0;
  FilePtr f(platform::OpenFile(path, existed ? "r+b" : "wb"), &std::fclose);
  if (!f) {
    if (why) *why = Reason(path, "cannot be written", errno);
    return false;
  }
  bool ok = true;
  int error = 0;
  if (IsDevice(p)) {
    ok = std::fputc(0, f.get()) != EOF && std::fflush(f.get()) == 0;
    error = errno;
  }
  f.reset();
  if (!existed) fs::remove(p, ec);
  if (!ok && why) *why = Reason(path, "cannot be written", error);
  return ok;
}

bool WriteFileWhole(const std::string& path, const std::string& bytes, std::string* why) {
  const fs::path target = platform::PathFromUtf8(path);
  const bool device = IsDevice(target);
  const std::string written = device ? path : path + ".part";
  errno = 0;
  FilePtr f(platform::OpenFile(written, "wb"), &std::fclose);
  if (!f) {
    if (why) *why = Reason(path, "cannot be written", errno);
    return false;
  }
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f.get()) == bytes.size();
  ok = std::fflush(f.get()) == 0 && ok;
  int error = errno;
  ok = std::fclose(f.release()) == 0 && ok;
  if (!ok) error = error != 0 ? error : errno;
  std::error_code ec;
  if (ok && !device) {
    fs::rename(platform::PathFromUtf8(written), target, ec);
    if (ec) {
      ok = false;
      error = ec.value();
    }
  }
  if (!ok) {
    if (!device) fs::remove(platform::PathFromUtf8(written), ec);
    if (why) *why = Reason(path, "cannot be written", error);
  }
  return ok;
}

}  // namespace frfcam::formats
