// Helpers shared by the test programs: scratch folders, files and child
// processes.
#pragma once

#include <filesystem>
#include <string>

namespace frfcam::test {

// True in the Windows build, whose tests run under Wine: cases that need
// Linux-only tools (fork, a shell's ulimit, a Python subprocess) skip there
// with FRFCAM_SKIP_ON_WINDOWS, saying why.
#if defined(_WIN32)
inline constexpr bool kWindows = true;
#else
inline constexpr bool kWindows = false;
#endif
#define FRFCAM_SKIP_ON_WINDOWS(why) \
  if (::frfcam::test::kWindows) GTEST_SKIP() << "not on Windows: " why

// A fresh folder below the system temporary folder, removed with its content
// when the object goes away.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// Runs `command` through the shell; returns its exit status and what it wrote
// to standard output (standard error goes to `err` when given).
struct CommandResult {
  int status = -1;
  std::string out;
  std::string err;
};
CommandResult RunCommand(const std::string& command);

// Runs the frfcam command-line tool with `args`.
CommandResult Cli(const std::string& args);

// The whole content of a file; empty when it cannot be read.
std::string ReadFile(const std::filesystem::path& path);

// True when the system interpreter with numpy is there for cross-checks.
bool HaveSystemPython(const char* module);

}  // namespace frfcam::test
