// The host string of Windows: a BSTR from the ANSI code page.
#if defined(_WIN32)

#include <windows.h>
// After windows.h, which it needs.
#include <oleauto.h>

#include "platform/utf.h"
#include "platform/win32.h"

namespace frfcam::platform {

HostString NewHostString(const std::string& text) {
  const std::wstring wide = WideFromAnsi(text);
  // SysAllocString stops at the first NUL, as the host's copy of a C string would.
  return SysAllocString(wide.c_str());
}

}  // namespace frfcam::platform

#endif  // _WIN32
