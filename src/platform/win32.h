// Helpers shared by the Windows implementation files of the platform layer.
#pragma once

#if defined(_WIN32)

#include <string>

namespace frfcam::platform {

// Converts an 8-bit string in the process's ANSI code page (CP_ACP) to
// UTF-16 with MultiByteToWideChar. Bytes without a mapping become the code
// page's default character, as Windows itself does for "A" calls. Throws
// std::bad_alloc when memory is exhausted.
std::wstring WideFromAnsi(const std::string& text);

}  // namespace frfcam::platform

#endif  // _WIN32
