#include "cube_render.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>

#include "command_error.h"
#include "cube_state.h"
#include "frfmap/capture_header.h"
#include "frfmap/cube_files.h"
#include "frfmap/layout.h"
#include "frfmap/naming.h"
#include "platform/platform.h"

namespace frfcam::cli {

namespace {

// What a Ctrl-C cancels; CancelRenderCube only stores to an atomic byte,
// which is safe in a signal handler.
std::atomic<::FrfMapCalcs*> g_rendering{nullptr};
std::atomic<bool> g_cancelled{false};
extern "C" void OnInterrupt(int) {
  g_cancelled.store(true);
  if (::FrfMapCalcs* c = g_rendering.load()) CancelRenderCube(c);
}

// The progress callback takes no context: the display's state lives here,
// set up by RenderWithProgress for one render at a time.
struct Display {
  const char* label = "";
  bool tty = false;
  int last = -1;
};
Display g_display;

void Show(int percent) {
  if (g_display.tty) {
    const int width = 40;
    const int filled = percent * width / 100;
    std::fprintf(stderr, "\r%s[%s%s] %3d%%", g_display.label, std::string(filled, '#').c_str(),
                 std::string(width - filled, ' ').c_str(), percent);
  } else if (percent / 10 != g_display.last / 10 || percent == 100) {
    std::fprintf(stderr, "%s%d%%\n", g_display.label, percent);
  }
  g_display.last = percent;
  std::fflush(stderr);
}

// The library may report 100 before its last writes are done.
void ShowUnfinished(int percent) { Show(percent < 100 ? percent : 99); }

}  // namespace

Calcs::Calcs() : c(CreateFrfMapCalcs("frfcam")) {
  if (c == nullptr) throw CommandError("out of memory");
}
Calcs::~Calcs() { DeleteFrfMapCalcs(c); }

void OpenCapture(::FrfMapCalcs* c, const std::string& header) {
  std::uint64_t size = 0;
  if (!platform::FileSize(header, &size)) {
    throw CommandError("cannot read header " + header + ": no such file");
  }
  switch (OpenCube(c, header.c_str())) {
    case FRFCAM_OPEN_OK:
      return;
    case FRFCAM_OPEN_NO_TRANSFORM:
      throw CommandError(header + ": the transform for this frame count cannot be prepared");
    case FRFCAM_OPEN_NO_MEMORY:
      throw CommandError(header + ": not enough memory");
    default:
      throw CommandError(header + ": not a capture that can be rendered (see 'frfcam info " +
                         header + "')");
  }
}

InterruptScope::InterruptScope() {
  g_cancelled.store(false);
  previous_ = std::signal(SIGINT, OnInterrupt);
}
InterruptScope::~InterruptScope() {
  std::signal(SIGINT, previous_ == SIG_ERR ? SIG_DFL : previous_);
}
const std::atomic<bool>* InterruptScope::cancelled() { return &g_cancelled; }

ProgressDisplay::ProgressDisplay(const char* label) { g_display = {label, ::isatty(2) != 0, -1}; }
ProgressDisplay::~ProgressDisplay() {
  if (g_display.tty && g_display.last >= 0) std::fputc('\n', stderr);
}
void ProgressDisplay::Show(int percent) { frfcam::cli::Show(percent); }

void RequireFrameData(const std::string& header) {
  frfmap::CaptureHeader h;
  if (!h.Load(header)) throw CommandError("cannot read header " + header);
  std::string missing;
  if (!FrameDataPresent(header, h, &missing)) {
    throw CommandError("the frame data of " + header + " is missing: " + missing +
                       " is not there (a header's frames are read from the folder " +
                       frfmap::DataFolder(header) +
                       " beside it; keep the header beside its data folder)");
  }
}

namespace {

// The bytes of the cube files of `header` on disk.
std::uint64_t CubeBytes(const std::string& header) {
  std::uint64_t total = 0;
  for (unsigned n = 1; n <= frfmap::kMaxFileNumber; ++n) {
    std::uint64_t size = 0;
    if (!platform::FileSize(frfmap::DataFilePath(header, frfmap::DataFile::kCube, n), &size)) break;
    total += size;
  }
  return total;
}

std::string Megabytes(std::uint64_t bytes) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return buf;
}

}  // namespace

RenderSummary RenderWithProgress(::FrfMapCalcs* c, const std::string& header, const char* label,
                                 bool clean_on_cancel) {
  RequireFrameData(header);
  RenderSummary summary;
  GetCubeDims(c, &summary.width, &summary.height, &summary.bins);
  g_display = {label, ::isatty(2) != 0, -1};
  g_rendering.store(c);
  const auto start = std::chrono::steady_clock::now();
  const int result = RenderCube(c, ShowUnfinished);
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  g_rendering.store(nullptr);
  if (result == FRFCAM_RENDER_OK) Show(100);
  if (g_display.tty) std::fputc('\n', stderr);
  switch (result) {
    case FRFCAM_RENDER_OK:
      return summary;
    case FRFCAM_RENDER_CANCELLED: {
      const std::string folder = frfmap::DataFolder(header);
      if (clean_on_cancel) {
        const std::uint64_t bytes = CubeBytes(header);
        const std::size_t n = frfmap::DeleteCubeFiles(folder);
        std::fprintf(stderr,
                     "frfcam: render cancelled after %.2f s; removed its %zu cube file%s (%s)\n",
                     summary.seconds, n, n == 1 ? "" : "s", Megabytes(bytes).c_str());
      } else {
        std::fprintf(stderr,
                     "frfcam: render cancelled after %.2f s; the cube is incomplete and its files "
                     "(%s) are left in %s: 'frfcam delete %s' removes them, 'frfcam render %s' "
                     "renders it again\n",
                     summary.seconds, Megabytes(CubeBytes(header)).c_str(), folder.c_str(),
                     folder.c_str(), header.c_str());
      }
      throw ExitWith{130};
    }
    case FRFCAM_RENDER_WRITE_FAILED:
      throw CommandError("writing the cube files into " + frfmap::DataFolder(header) +
                         " failed (disk full or file size limit?)");
    default:
      throw CommandError("not enough memory to render");
  }
}

}  // namespace frfcam::cli
