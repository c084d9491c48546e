// view: serves the viewer for one capture until Ctrl-C or SIGTERM.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include "commands.h"
#include "cube_render.h"
#include "frfmap/capture_header.h"
#include "frfmap/cube_check.h"
#include "platform/browser.h"
#include "view/view_server.h"

namespace frfcam::cli {

namespace {

std::atomic<bool> g_stop{false};

extern "C" void StopServing(int) { g_stop.store(true); }

void RunView(ViewOptions o, const std::string& workDir, bool openBrowser) {
  o.header = CaptureFor(o.header, workDir);
  frfmap::CaptureHeader header;
  if (!header.Load(o.header)) throw CommandError(o.header + " is not a capture header");
  std::string why;
  if (frfmap::CheckCube(o.header, header, &why) != frfmap::CubeState::kReady) {
    // A missing or unfinished cube is rendered first, as `render` would.
    Calcs calcs;
    OpenCapture(calcs.c, o.header);
    InterruptScope interrupt;
    RenderWithProgress(calcs.c, o.header, "rendering ");
  }
  ViewServer server(o);
  const std::string url = server.Start();
  std::printf("%s\n", url.c_str());
  std::fflush(stdout);
  if (openBrowser && !platform::OpenInBrowser(url)) {
    std::fprintf(stderr, "frfcam: open the address above in a browser\n");
  }
  std::fprintf(stderr, "frfcam: serving %s until Ctrl-C\n", o.header.c_str());
  auto* previousInt = std::signal(SIGINT, StopServing);
  auto* previousTerm = std::signal(SIGTERM, StopServing);
  while (!g_stop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  server.Stop();
  std::signal(SIGINT, previousInt);
  std::signal(SIGTERM, previousTerm);
}

}  // namespace

void RegisterViewCommand(CLI::App& app) {
  static ViewOptions o;
  static std::string workDir;
  static bool noBrowser = false;
  auto* v = app.add_subcommand("view", "Serve an interactive viewer of the cube on 127.0.0.1");
  v->add_option("capture", o.header, "Capture header file, or a recording")->required();
  v->add_option("--modes", o.modesDir, "Output folder of frfcam modes");
  v->add_option("--record", o.record, "A stability record (.pb)");
  v->add_option("--reference", o.reference, "Reference signal file (one value per frame)");
  v->add_option("--port", o.port, "Port (default: a free one)")->check(CLI::Range(0, 65535));
  v->add_option("--work-dir", workDir, "Folder for the import of a recording");
  v->add_flag("--no-browser", noBrowser, "Do not open a browser");
  v->callback([] { RunView(o, workDir, !noBrowser); });
}

}  // namespace frfcam::cli
