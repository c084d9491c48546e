// Handing a URL to the user's web browser, for the tool's viewer.
#pragma once

#include <string>

namespace frfcam::platform {

// Asks the desktop to open `url` in the default browser and returns at once,
// without waiting for the browser. False when there is no desktop to ask (on
// Linux: neither DISPLAY nor WAYLAND_DISPLAY is set, or xdg-open is missing,
// so that no text-mode browser takes over the terminal) or the request
// failed; the caller then tells the user to open it.
bool OpenInBrowser(const std::string& url);

}  // namespace frfcam::platform
