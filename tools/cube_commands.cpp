// render: turns a capture into its cube; map: writes the FRF map of one bin
// as a PNG; delete: removes cube files below a folder.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "commands.h"
#include "cube_render.h"
#include "cube_state.h"
#include "formats/output_file.h"
#include "frfcam/frfcam.h"
#include "frfmap/capture_header.h"
#include "frfmap/cube_check.h"
#include "frfmap/cube_files.h"
#include "frfmap/fft.h"
#include "frfmap/layout.h"
#include "map_image.h"
#include "platform/platform.h"
#include "png_writer.h"
#include "reference_file.h"

namespace frfcam::cli {

namespace {

void RunRender(const std::string& header) {
  Calcs calcs;
  OpenCapture(calcs.c, header);
  InterruptScope interrupt;
  const RenderSummary r = RenderWithProgress(calcs.c, "");
  const double bytes = 8.0 * r.width * r.height * r.bins;
  std::printf("rendered %ux%u pixels, %u bins (%.1f MB of cube) in %.2f s: %.0f MB/s\n", r.width,
              r.height, r.bins, bytes / 1e6, r.seconds, bytes / 1e6 / r.seconds);
}

struct MapOptions {
  std::string header;
  int bin = -1;
  double freq = -1;
  double fps = 0;
  double gain = 0;     // 0: scale so that the brightest pixels just saturate
  int gain_from = -1;  // the automatic gain of this bin instead of the map's own
  std::string reference;
  std::string output;
};

std::string Hz(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g Hz", v);
  return buf;
}

void RunMap(const MapOptions& o) {
  std::uint64_t size = 0;
  if (!platform::FileSize(o.header, &size)) {
    throw CommandError("cannot read header " + o.header + ": no such file");
  }
  frfmap::CaptureHeader header;
  if (!header.Load(o.header)) throw CommandError(o.header + " is not a capture header");
  Calcs calcs;
  OpenCapture(calcs.c, o.header);
  unsigned w = 0, h = 0, bins = 0;
  GetCubeDims(calcs.c, &w, &h, &bins);
  const int frames = header.frame_count();
  const double fps = o.fps > 0 ? o.fps : header.float_field();

  int bin = o.bin;
  if (bin < 0) {
    if (!(fps > 0) || !std::isfinite(fps)) {
      throw CommandError("--freq needs --fps (the header holds no frame rate)");
    }
    const double nyquist = fps / 2.0;
    if (!(o.freq <= nyquist * (1.0 + 1e-12))) {
      throw CommandError("--freq " + Hz(o.freq) + " is past the Nyquist frequency " + Hz(nyquist) +
                         " (half the frame rate)");
    }
    bin = static_cast<int>(std::min<double>(std::lround(o.freq * frames / fps), bins - 1));
  }
  if (bin < 0 || static_cast<unsigned>(bin) >= bins) {
    std::string range =
        "bin " + std::to_string(bin) + " is outside the cube's bins 0.." + std::to_string(bins - 1);
    if (fps > 0) range += " (0.." + Hz(fps / 2.0) + ")";
    throw CommandError(range);
  }
  if (o.gain_from >= 0 && static_cast<unsigned>(o.gain_from) >= bins) {
    throw CommandError("--gain-from " + std::to_string(o.gain_from) +
                       " is outside the cube's bins 0.." + std::to_string(bins - 1));
  }
  // A cube that was never rendered, or whose render stopped, is not data.
  std::string why;
  if (frfmap::CheckCube(o.header, header, &why) != frfmap::CubeState::kReady) {
    throw CommandError(why);
  }
  std::string cannot;
  if (!formats::CanWriteFile(o.output, &cannot)) throw CommandError(cannot);

  std::vector<float> reference;
  if (!o.reference.empty()) {
    double fpsFromTimes = 0;
    reference = ReadReference(o.reference, &fpsFromTimes);
    WarnIfReferenceRateDiffers(o.reference, fpsFromTimes, fps,
                               o.fps > 0 ? "--fps gives" : "the header gives");
    if (static_cast<int>(reference.size()) != frames) {
      std::fprintf(stderr,
                   "frfcam: warning: the reference has %zu samples, the capture %d frames\n",
                   reference.size(), frames);
    }
    SetReference(calcs.c, reference.data(), static_cast<int>(reference.size()));
  }

  const MapImage image = ComputeMap(calcs.c, bin, static_cast<float>(o.gain), o.gain_from, w, h);
  const float gain = image.gain;
  const char* how = o.gain != 0 ? "" : (o.gain_from >= 0 ? " (automatic, of bin " : " (automatic)");
  const std::vector<unsigned char>& map = image.pixels;
  WriteGrayPng(o.output, map.data(), w, h);
  std::printf("wrote %s: bin %d", o.output.c_str(), bin);
  if (fps > 0) std::printf(" (%.2f Hz)", bin * fps / frames);
  std::printf(", gain %g%s", gain, how);
  if (o.gain_from >= 0 && o.gain == 0) std::printf("%d)", o.gain_from);
  // The scale: the magnitude (of value / reference) that maps to white.
  std::printf(", 255 = |%s| %.6g, %ux%u\n", reference.empty() ? "X" : "X/R", 255.0 / gain, w, h);
}

}  // namespace

void RegisterCubeCommands(CLI::App& app) {
  auto* render = app.add_subcommand("render", "Render a capture's cube (per-pixel spectra)");
  static std::string render_header, render_work;
  render
      ->add_option("capture", render_header, "Capture header file, or a recording (imported once)")
      ->required();
  render->add_option("--work-dir", render_work,
                     "Folder for the import of a recording (default: beside it)");
  render->callback([] { RunRender(CaptureFor(render_header, render_work)); });

  static MapOptions map;
  auto* m = app.add_subcommand("map", "Write the FRF map of one frequency bin as a PNG");
  m->add_option("capture", map.header, "Capture header file (rendered), or a recording")
      ->required();
  static std::string map_work;
  m->add_option("--work-dir", map_work,
                "Folder for the import of a recording (default: beside it)");
  auto* bin = m->add_option("--bin", map.bin, "Frequency bin")->check(CLI::NonNegativeNumber);
  auto* freq = m->add_option("--freq", map.freq, "Frequency in Hz (nearest bin)")
                   ->check(CLI::NonNegativeNumber);
  bin->excludes(freq);
  m->add_option("--fps", map.fps, "Frame rate (default: the header's)")->check(CLI::PositiveNumber);
  auto* gain = m->add_option("--gain", map.gain, "Gain on the magnitudes (default: automatic)");
  auto* gain_from =
      m->add_option("--gain-from", map.gain_from,
                    "Automatic gain of this bin, so that a set of maps shares one scale")
          ->check(CLI::NonNegativeNumber);
  gain->excludes(gain_from);
  m->add_option("--reference", map.reference,
                "Reference signal: one float per line, as many as frames");
  m->add_option("-o,--output", map.output, "PNG file to write")->required();
  m->callback([] {
    if (map.bin < 0 && map.freq < 0) throw CommandError("map needs --bin or --freq");
    MapOptions o = map;
    o.header = CaptureFor(map.header, map_work);
    RunMap(o);
  });

  static std::string folder;
  auto* del = app.add_subcommand("delete", "Delete every cube file (.fft) below a folder");
  del->add_option("folder", folder, "Folder")->required();
  del->callback([] {
    std::error_code ec;
    const auto path = platform::PathFromUtf8(folder);
    if (!std::filesystem::exists(path, ec)) throw CommandError(folder + ": no such folder");
    if (!std::filesystem::is_directory(path, ec)) throw CommandError(folder + ": not a folder");
    const std::size_t n = frfmap::DeleteCubeFiles(folder);
    std::printf("removed %zu cube file%s below %s\n", n, n == 1 ? "" : "s", folder.c_str());
  });
}

}  // namespace frfcam::cli
