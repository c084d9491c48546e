#include "support/test_support.h"

#if defined(_WIN32)
#include <process.h>
#else
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace frfcam::test {

namespace {

int ProcessId() {
#if defined(_WIN32)
  return ::_getpid();
#else
  return static_cast<int>(::getpid());
#endif
}
}  // namespace

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

ScratchDir::ScratchDir() {
  static std::atomic<int> counter{0};
  path_ = std::filesystem::temp_directory_path() /
          ("frfcam-test-" + std::to_string(ProcessId()) + "-" + std::to_string(counter++));
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

CommandResult RunCommand(const std::string& command) {
  ScratchDir dir;
  const auto out = dir.path() / "out";
  const auto err = dir.path() / "err";
  const std::string full = command + " >" + out.string() + " 2>" + err.string();
  CommandResult r;
  int raw = std::system(full.c_str());
#if defined(_WIN32)
  // -1: cmd.exe did not start; 9009: cmd.exe started but could not start
  // the program ("Can't recognize ..."). Either way the command never ran.
  // Under Wine both happen now and then, with programs that do exist
  // ("wine client error: sendmsg"); try again.
  for (int retry = 0; (raw == -1 || raw == 9009) && retry < 3; ++retry) {
    raw = std::system(full.c_str());
  }
  r.status = raw;  // cmd.exe's exit code
#else
  r.status = (raw != -1 && WIFEXITED(raw)) ? WEXITSTATUS(raw) : -1;
#endif
  r.out = ReadFile(out);
  r.err = ReadFile(err);
#if defined(_WIN32)
  // Text-mode output ends its lines with \r\n there; compare lines as on Linux.
  for (std::string* text : {&r.out, &r.err}) {
    std::string::size_type at = 0;
    while ((at = text->find("\r\n", at)) != std::string::npos) text->erase(at, 1);
  }
#endif
  return r;
}

CommandResult Cli(const std::string& args) {
  return RunCommand(std::string(FRFCAM_CLI) + " " + args);
}

bool HaveSystemPython(const char* module) {
  if (kWindows) return false;  // no Linux interpreter inside Wine
  const std::string cmd = std::string(FRFCAM_SYSTEM_PYTHON) + " -c 'import " + module + "'";
  return RunCommand(cmd).status == 0;
}

}  // namespace frfcam::test
