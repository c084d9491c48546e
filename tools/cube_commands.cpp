#include "commands.h"

namespace frfcam::cli {

void RegisterCubeCommands(CLI::App& app) { (void)app; }

}  // namespace frfcam::cli
