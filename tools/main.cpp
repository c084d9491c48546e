// frfcam: the command-line face of the library.
#include <cstdio>
#include <exception>

#include "commands.h"

int main(int argc, char** argv) {
  CLI::App app{"frfcam: camera-based vibration analysis"};
  app.require_subcommand(1);
  frfcam::cli::RegisterCaptureCommands(app);
  frfcam::cli::RegisterCubeCommands(app);
  frfcam::cli::RegisterStabilityCommands(app);
  frfcam::cli::RegisterModesCommand(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "frfcam: %s\n", e.what());
    return 2;
  } catch (const frfcam::cli::ExitWith& e) {
    return e.code;
  } catch (const frfcam::cli::CommandError& e) {
    std::fprintf(stderr, "frfcam: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "frfcam: %s\n", e.what());
    return 1;
  }
  return 0;
}
