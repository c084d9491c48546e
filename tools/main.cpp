// frfcam: the command-line face of the library.
#include <cstdio>
#include <exception>
#include <string>

#include "commands.h"

#ifndef FRFCAM_VERSION
#define FRFCAM_VERSION "unknown"
#endif

namespace {

// The usage of the tool, or of the command named after "help", on stdout:
// asked for, it is the command's output.
int PrintHelp(CLI::App& app, int argc, char** argv) {
  if (argc > 2) {
    CLI::App* command = nullptr;
    try {
      command = app.get_subcommand(argv[2]);
    } catch (const CLI::OptionNotFound&) {
      std::fprintf(stderr, "frfcam: no command '%s'; 'frfcam help' lists them\n", argv[2]);
      return 2;
    }
    std::fputs(command->help().c_str(), stdout);
  } else {
    std::fputs(app.help().c_str(), stdout);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"frfcam " FRFCAM_VERSION ": camera-based vibration analysis", "frfcam"};
  app.set_version_flag("--version", "frfcam " FRFCAM_VERSION);
  app.require_subcommand(1);
  app.footer("'frfcam help COMMAND' or 'frfcam COMMAND --help' describes a command.");
  frfcam::cli::RegisterCaptureCommands(app);
  frfcam::cli::RegisterCubeCommands(app);
  frfcam::cli::RegisterStabilityCommands(app);
  frfcam::cli::RegisterModesCommand(app);
  frfcam::cli::RegisterImportCommand(app);
#if defined(FRFCAM_HAVE_VIEW)
  frfcam::cli::RegisterViewCommand(app);
#endif
  try {
    // No arguments is a mistake (shells and scripts must see a failure), so
    // the usage goes to stderr; "help [COMMAND]" asks for it.
    if (argc == 1) {
      std::fputs(app.help().c_str(), stderr);
      return 2;
    }
    if (std::string(argv[1]) == "help") return PrintHelp(app, argc, argv);
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
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
