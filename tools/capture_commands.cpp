#include "commands.h"

namespace frfcam::cli {

void RegisterCaptureCommands(CLI::App& app) { (void)app; }

}  // namespace frfcam::cli
