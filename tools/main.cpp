// frfcam: the command-line face of the library.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

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

// Edits (insertions, deletions, substitutions) from `a` to `b`.
std::size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1] ? 1u : 0u)});
      diagonal = up;
    }
  }
  return row[b.size()];
}

// A first argument that is neither an option nor a command: names it and
// the nearest command, where one is near enough to be a slip.
bool RefuseUnknownCommand(CLI::App& app, const std::string& word) {
  if (word.empty() || word[0] == '-' || word == "help") return false;
  std::string nearest;
  std::size_t best = SIZE_MAX;
  for (const CLI::App* command : app.get_subcommands({})) {
    if (command->get_name() == word) return false;
    const std::size_t d = EditDistance(word, command->get_name());
    if (d < best) {
      best = d;
      nearest = command->get_name();
    }
  }
  std::fprintf(stderr, "frfcam: no command '%s'", word.c_str());
  if (best <= std::max<std::size_t>(2, word.size() / 3)) {
    std::fprintf(stderr, "; did you mean '%s'?", nearest.c_str());
  }
  std::fprintf(stderr, " ('frfcam help' lists them)\n");
  return true;
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
    if (RefuseUnknownCommand(app, argv[1])) return 2;
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
