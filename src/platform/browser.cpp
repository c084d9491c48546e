#include "platform/browser.h"

#include <cstdint>
#include <cstdlib>

#if defined(_WIN32)
#include <windows.h>

// shellapi.h needs windows.h first.
#include <shellapi.h>
#else
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>

extern char** environ;
#endif

namespace frfcam::platform {

#if defined(_WIN32)

bool OpenInBrowser(const std::string& url) {
  // A URL is ASCII, so the code page does not matter here.
  const std::wstring wide(url.begin(), url.end());
  const auto result = reinterpret_cast<std::intptr_t>(
      ShellExecuteW(nullptr, L"open", wide.c_str(), nullptr, nullptr, SW_SHOWNORMAL));
  return result > 32;  // the documented success threshold
}

#else

bool OpenInBrowser(const std::string& url) {
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((x11 == nullptr || *x11 == '\0') && (wayland == nullptr || *wayland == '\0')) return false;
  // The shell starts xdg-open in the background and exits at once, so the
  // browser (which some xdg-open setups wait for) never holds us up and no
  // child is left for us to reap.
  const char* script =
      "command -v xdg-open >/dev/null 2>&1 || exit 3; "
      "xdg-open \"$1\" </dev/null >/dev/null 2>&1 &";
  char* argv[] = {const_cast<char*>("sh"),        const_cast<char*>("-c"),
                  const_cast<char*>(script),      const_cast<char*>("sh"),
                  const_cast<char*>(url.c_str()), nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) return false;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

#endif

}  // namespace frfcam::platform
