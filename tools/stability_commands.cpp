#include "commands.h"

namespace frfcam::cli {

void RegisterStabilityCommands(CLI::App& app) { (void)app; }

}  // namespace frfcam::cli
