// import: a recording (camera files, image sequences, videos) into a
// capture; and the capture behind a source given to any other command.
#include <cstdio>
#include <memory>
#include <string>

#include "camera/importer.h"
#include "commands.h"
#include "cube_render.h"

namespace frfcam::cli {

namespace {

struct ImportCliOptions {
  std::string source;
  std::string output;
  std::string frames;
  std::string roi;
  double fps = 0.0;
  int bits = 0;
};

// "A:B" into two whole numbers.
void ParseFrames(const std::string& text, camera::ImportOptions* o) {
  const auto colon = text.find(':');
  try {
    if (colon == std::string::npos) throw std::invalid_argument(text);
    std::size_t u1 = 0, u2 = 0;
    const std::string a = text.substr(0, colon), b = text.substr(colon + 1);
    o->firstFrame = std::stoll(a, &u1);
    o->lastFrame = std::stoll(b, &u2);
    if (u1 != a.size() || u2 != b.size() || o->firstFrame < 0 || o->lastFrame < o->firstFrame) {
      throw std::invalid_argument(text);
    }
  } catch (const std::logic_error&) {
    throw CommandError("--frames: expected FIRST:LAST (0-based, inclusive), got '" + text + "'");
  }
}

// "X,Y,W,H" into the region.
void ParseRoi(const std::string& text, camera::ImportOptions* o) {
  unsigned v[4];
  std::size_t at = 0;
  try {
    for (int i = 0; i < 4; ++i) {
      const std::size_t end = i < 3 ? text.find(',', at) : text.size();
      if (end == std::string::npos) throw std::invalid_argument(text);
      const std::string part = text.substr(at, end - at);
      std::size_t used = 0;
      const long long n = std::stoll(part, &used);
      if (used != part.size() || n < 0 || n > 65535) throw std::invalid_argument(text);
      v[i] = static_cast<unsigned>(n);
      at = end + 1;
    }
    if (v[2] == 0 || v[3] == 0) throw std::invalid_argument(text);
  } catch (const std::logic_error&) {
    throw CommandError("--roi: expected X,Y,W,H in pixels with W, H > 0, got '" + text + "'");
  }
  o->roiX = v[0];
  o->roiY = v[1];
  o->roiWidth = v[2];
  o->roiHeight = v[3];
}

void RunImport(const ImportCliOptions& o) {
  camera::ImportOptions options;
  if (!o.frames.empty()) ParseFrames(o.frames, &options);
  if (!o.roi.empty()) ParseRoi(o.roi, &options);
  options.fps = o.fps;
  options.bits = o.bits;
  std::string error;
  std::unique_ptr<camera::VideoSource> source = camera::OpenSource(o.source, &error);
  if (source == nullptr) throw CommandError(error);
  const camera::SourceInfo& info = source->info();
  std::printf("%s: %s, %ux%u, %lld frames, %d-bit%s", o.source.c_str(), info.format.c_str(),
              info.width, info.height, static_cast<long long>(info.frames), info.bits,
              info.lossy ? ", lossy" : "");
  if (info.fps > 0) std::printf(", %.6g fps", info.fps);
  std::printf("\n");
  std::fflush(stdout);
  if (info.lossy) {
    std::fprintf(stderr,
                 "frfcam: warning: %s is compressed with loss; its compression noise spreads "
                 "over all frequencies of the spectra\n",
                 o.source.c_str());
  }
  InterruptScope interrupt;
  options.cancel = InterruptScope::cancelled();
  camera::ImportResult r;
  bool ok = false;
  {
    ProgressDisplay display("importing: ");
    options.progress = [&](int percent) { display.Show(percent); };
    ok = camera::Import(*source, o.source, o.output, options, &r, &error);
  }
  if (!ok) {
    if (error == "cancelled") {
      std::fprintf(stderr, "frfcam: cancelled; no capture was written\n");
      throw ExitWith{130};
    }
    throw CommandError(error);
  }
  std::printf("wrote %s: %ux%u, %lld frames at %.6g fps, %d-bit%s\n", o.output.c_str(), r.width,
              r.height, static_cast<long long>(r.frames), r.fps, r.bits,
              r.bits == 12 ? " packed" : "");
  std::printf("samples: source code %s %d\n", r.shift >= 0 ? "<<" : ">>",
              r.shift >= 0 ? r.shift : -r.shift);
}

}  // namespace

std::string CaptureFor(const std::string& path, const std::string& workDir) {
  if (!camera::IsSource(path)) return path;
  std::string header, error;
  bool imported = false;
  InterruptScope interrupt;
  camera::ImportOptions options;
  options.cancel = InterruptScope::cancelled();
  bool ok = false;
  {
    ProgressDisplay display("importing: ");
    options.progress = [&](int percent) { display.Show(percent); };
    ok = camera::CaptureOfSource(path, workDir, options, &header, &imported, &error);
  }
  if (!ok) {
    if (error == "cancelled") {
      std::fprintf(stderr, "frfcam: cancelled\n");
      throw ExitWith{130};
    }
    throw CommandError(error);
  }
  std::printf("%s %s as %s\n", imported ? "imported" : "using the import of", path.c_str(),
              header.c_str());
  std::fflush(stdout);
  return header;
}

void RegisterImportCommand(CLI::App& app) {
  static ImportCliOptions o;
  CLI::App* c = app.add_subcommand(
      "import",
      "Turn a recording into a capture: MRAW with CIH/CIHX, CINE, TIFF (multipage or a folder), "
      "a folder of PNGs, or any video FFmpeg decodes");
  c->add_option("source", o.source, "Recording: a file, or a folder of numbered images")
      ->required();
  c->add_option("-o,--output", o.output, "Capture header to write (e.g. CAPTURE.hdr)")->required();
  c->add_option("--frames", o.frames, "Frames FIRST:LAST to take (0-based, inclusive)");
  c->add_option("--roi", o.roi, "Region X,Y,W,H to take, in pixels");
  c->add_option("--fps", o.fps, "Frame rate (default: the source's; image sequences need it)")
      ->check(Positive());
  c->add_option("--bits", o.bits, "Capture depth: 8 or 12 (default: 8 for 8-bit sources)")
      ->check(CLI::IsMember({8, 12}));
  c->callback([] { RunImport(o); });
}

}  // namespace frfcam::cli
