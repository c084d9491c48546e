// render: turns a capture into its cube; map: writes the FRF map of one bin
// as a PNG; delete: removes cube files below a folder.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <complex>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "commands.h"
#include "cube_render.h"
#include "cube_state.h"
#include "figure_svg.h"
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
#include "svg_raster.h"

namespace frfcam::cli {

namespace {

struct RenderOptions {
  std::string header;
  bool force = false;
  bool clean_on_cancel = false;
};

void RunRender(const RenderOptions& o) {
  frfmap::CaptureHeader header;
  if (header.Load(o.header) && !o.force &&
      frfmap::CheckCube(o.header, header) == frfmap::CubeState::kReady) {
    std::printf("%s: the cube is complete already; --force renders it again\n", o.header.c_str());
    return;
  }
  Calcs calcs;
  OpenCapture(calcs.c, o.header);
  InterruptScope interrupt;
  const RenderSummary r = RenderWithProgress(calcs.c, o.header, "", o.clean_on_cancel);
  const double bytes = 8.0 * r.width * r.height * r.bins;
  std::printf("rendered %ux%u pixels, %u bins (%.1f MB of cube) in %.2f s: %.0f MB/s\n", r.width,
              r.height, r.bins, bytes / 1e6, r.seconds, bytes / 1e6 / r.seconds);
}

struct MapOptions {
  std::string header;
  int bin = -1;
  double freq = -1;
  double fps = 0;
  std::string gain;       // "": shared by the band's maps; "auto": the map's own; or a number
  std::string gain_from;  // a bin, or a frequency with "Hz"
  double gain_from_freq = -1;
  std::string band;  // LO:HI in Hz, where the shared gain is sought
  std::string reference;
  std::string output;
  bool figure = false;  // a titled figure with a colour bar instead of the bare map
};

std::string Hz(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g Hz", v);
  return buf;
}

// A frequency's nearest bin, refused past the Nyquist frequency.
int BinOf(double hz, double fps, int frames, const char* option) {
  if (!(fps > 0) || !std::isfinite(fps)) {
    throw CommandError(std::string(option) + " needs --fps (the header holds no frame rate)");
  }
  const double nyquist = fps / 2.0;
  if (!(hz >= 0) || !(hz <= nyquist * (1.0 + 1e-12))) {
    throw CommandError(std::string(option) + " " + Hz(hz) + " is outside 0.." + Hz(nyquist) +
                       " (up to half the frame rate)");
  }
  return static_cast<int>(std::min<long>(std::lround(hz * frames / fps), frames / 2));
}

// The number in `text` with nothing after it but `suffix` (which may be
// absent); false when there is none.
bool ParseNumber(const std::string& text, double* value, bool* had_suffix, const char* suffix) {
  const char* begin = text.c_str();
  char* end = nullptr;
  *value = std::strtod(begin, &end);
  if (end == begin || !std::isfinite(*value)) return false;
  std::string rest(end);
  rest.erase(0, rest.find_first_not_of(' '));
  *had_suffix = !rest.empty();
  if (rest.empty()) return true;
  std::string lower;
  for (const char c : rest) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower == suffix;
}

// The map with its frequency, a grey bar from 0 to white's magnitude
// (255 / gain) and the quantity; `hz` < 0 when the frame rate is unknown.
void WriteMapFigure(const std::string& path, const std::vector<unsigned char>& map, unsigned w,
                    unsigned h, float gain, int bin, double hz, bool referenced) {
  ImageFigure f;
  char title[96];
  if (hz >= 0) {
    std::snprintf(title, sizeof title, "FRF map at %.2f Hz (bin %d)", hz, bin);
  } else {
    std::snprintf(title, sizeof title, "FRF map at bin %d", bin);
  }
  f.title = title;
  f.quantity = referenced ? "|X/R| [counts per reference unit]" : "|X| [counts]";
  char sub[120];
  std::snprintf(sub, sizeof sub, "grey level = %s x gain %g; white = %.4g or more",
                referenced ? "|X/R|" : "|X|", gain, 255.0 / gain);
  f.subtitle = sub;
  f.pixels = map;
  f.width = w;
  f.height = h;
  f.barColours = {{0, 0, 0}, {255, 255, 255}};
  f.barLow = 0.0;
  f.barHigh = 255.0 / gain;
  WriteFigurePng(
      path, ImageFigureSvg(f),
      {{"Title", f.title},
       {"Description", std::string(title) + " of " + std::to_string(w) + "x" + std::to_string(h) +
                           " pixels: " + f.quantity + ", " + sub + " (colour bar on the right)"},
       {"Software", "frfcam map"}});
}

void RunMap(const MapOptions& o) {
  std::uint64_t size = 0;
  if (!platform::FileSize(o.header, &size)) {
    throw CommandError("cannot read header " + o.header + ": no such file");
  }
  frfmap::CaptureHeader header;
  if (!header.Load(o.header) || !header.Problem().empty()) {
    throw CommandError(o.header + " is not a capture header: " + header.Problem());
  }
  Calcs calcs;
  OpenCapture(calcs.c, o.header);
  unsigned w = 0, h = 0, bins = 0;
  GetCubeDims(calcs.c, &w, &h, &bins);
  const int frames = header.frame_count();
  const double fps = o.fps > 0 ? o.fps : header.float_field();
  const auto at = [&](int k) {
    return fps > 0 ? " (" + Hz(k * fps / frames) + ")" : std::string();
  };

  const int bin = o.bin >= 0 ? o.bin : BinOf(o.freq, fps, frames, "--freq");
  if (bin < 0 || static_cast<unsigned>(bin) >= bins) {
    std::string range =
        "bin " + std::to_string(bin) + " is outside the cube's bins 0.." + std::to_string(bins - 1);
    if (fps > 0) range += " (0.." + Hz(fps / 2.0) + ")";
    throw CommandError(range);
  }

  // The gain: a number, the map's own automatic gain, or the automatic gain
  // of one bin that a set of maps shares (given, or the band's strongest).
  float gain = 0.0f;
  int gain_bin = -1;
  std::string how;
  if (o.gain == "auto") {
    how = " (automatic, of this map)";
  } else if (!o.gain.empty()) {
    double g = 0;
    bool suffix = false;
    if (!ParseNumber(o.gain, &g, &suffix, "") || suffix || !(g > 0) || g > 1e30) {
      throw CommandError("--gain " + o.gain + ": give a number above 0, or auto");
    }
    gain = static_cast<float>(g);
  } else if (o.gain_from_freq >= 0) {
    gain_bin = BinOf(o.gain_from_freq, fps, frames, "--gain-from-freq");
  } else if (!o.gain_from.empty()) {
    double v = 0;
    bool in_hz = false;
    if (!ParseNumber(o.gain_from, &v, &in_hz, "hz") || v < 0 || (!in_hz && v != std::floor(v))) {
      throw CommandError("--gain-from " + o.gain_from +
                         ": give a bin, or a frequency in Hz (150Hz)");
    }
    gain_bin = in_hz ? BinOf(v, fps, frames, "--gain-from") : static_cast<int>(std::min(v, 1e9));
    if (static_cast<unsigned>(gain_bin) >= bins) {
      throw CommandError("--gain-from " + o.gain_from + " is outside the cube's bins 0.." +
                         std::to_string(bins - 1));
    }
  }

  // A cube that was never rendered, or whose render stopped, is not data.
  std::string why;
  if (frfmap::CheckCube(o.header, header, &why) != frfmap::CubeState::kReady) {
    RequireFrameData(o.header);  // the likelier cause, when it holds
    throw CommandError(why);
  }
  if (o.figure) RequireSvgRaster("map --figure");
  std::string cannot;
  if (!formats::CanWriteFile(o.output, &cannot)) throw CommandError(cannot);

  std::vector<float> reference;
  std::vector<std::complex<double>> reference_spectrum;
  if (!o.reference.empty()) {
    reference = ReadCaptureReference(o.reference, frames, fps,
                                     o.fps > 0 ? "--fps gives" : "the header gives");
    SetReference(calcs.c, reference.data(), static_cast<int>(reference.size()));
    reference_spectrum = ReferenceSpectrum(reference, frames);
  }

  if (o.gain.empty() && gain_bin < 0) {
    int first = 1, last = static_cast<int>(bins) - 1;
    std::string band = "all bins above 0 Hz";
    if (!o.band.empty()) {
      double lo = 0, hi = 0;
      ParsePair(o.band, "--band", &lo, &hi);
      if (!(lo < hi))
        throw CommandError("--band " + o.band + ": expected LO:HI in Hz, LO below HI");
      first = BinOf(lo, fps, frames, "--band");
      last = BinOf(hi, fps, frames, "--band");
      band = Hz(lo) + ".." + Hz(hi);
    }
    gain_bin = StrongestBin(o.header, std::max(first, 0), last, reference_spectrum);
    how = " (shared: the automatic gain of bin " + std::to_string(gain_bin) + at(gain_bin) +
          ", the strongest of " + band + ")";
  } else if (gain_bin >= 0) {
    how = " (shared: the automatic gain of bin " + std::to_string(gain_bin) + at(gain_bin) + ")";
  }

  const MapImage image = ComputeMap(calcs.c, bin, gain, gain_bin, w, h);
  if (o.figure) {
    WriteMapFigure(o.output, image.pixels, w, h, image.gain, bin,
                   fps > 0 ? bin * fps / frames : -1.0, !reference.empty());
  } else {
    WriteGrayPng(o.output, image.pixels.data(), w, h);
  }
  // The scale: the magnitude (of value / reference) that maps to white.
  std::printf("wrote %s: bin %d%s, gain %g%s, 255 = |%s| %.6g, %ux%u\n", o.output.c_str(), bin,
              at(bin).c_str(), image.gain, how.c_str(), reference.empty() ? "X" : "X/R",
              255.0 / image.gain, w, h);
}

}  // namespace

void RegisterCubeCommands(CLI::App& app) {
  auto* render = app.add_subcommand("render", "Render a capture's cube (per-pixel spectra)");
  static RenderOptions ro;
  static std::string render_work;
  render->add_option("capture", ro.header, "Capture header file, or a recording (imported once)")
      ->required();
  render->add_option("--work-dir", render_work,
                     "Folder for the import of a recording (default: beside it)");
  render->add_flag("--force", ro.force, "Render again a cube that is complete");
  render->add_flag("--clean-on-cancel", ro.clean_on_cancel,
                   "Remove the cube files when Ctrl-C cancels the render");
  render->callback([] {
    RenderOptions o = ro;
    o.header = CaptureFor(ro.header, render_work);
    RunRender(o);
  });

  static MapOptions map;
  auto* m = app.add_subcommand("map", "Write the FRF map of one frequency bin as a PNG");
  m->add_option("capture", map.header, "Capture header file (rendered), or a recording")
      ->required();
  static std::string map_work;
  m->add_option("--work-dir", map_work,
                "Folder for the import of a recording (default: beside it)");
  auto* bin = m->add_option("--bin", map.bin, "Frequency bin")->check(NonNegative());
  auto* freq =
      m->add_option("--freq", map.freq, "Frequency in Hz (nearest bin)")->check(NonNegative());
  bin->excludes(freq);
  m->add_option("--fps", map.fps, "Frame rate (default: the header's)")->check(Positive());
  auto* gain = m->add_option("--gain", map.gain,
                             "Gain on the magnitudes, or auto for this map's own automatic gain "
                             "(default: the automatic gain of the band's strongest bin, shared by "
                             "every map of the band)");
  auto* gain_from = m->add_option("--gain-from", map.gain_from,
                                  "Shared gain: the automatic gain of this bin, or of a "
                                  "frequency given with Hz (150Hz)");
  auto* gain_from_freq =
      m->add_option("--gain-from-freq", map.gain_from_freq,
                    "Shared gain: the automatic gain of the bin nearest this frequency (Hz)")
          ->check(NonNegative());
  auto* band = m->add_option("--band", map.band,
                             "LO:HI in Hz: where the default gain's strongest bin is sought "
                             "(default: every bin above 0 Hz)");
  gain->excludes(gain_from)->excludes(gain_from_freq)->excludes(band);
  gain_from->excludes(gain_from_freq)->excludes(band);
  gain_from_freq->excludes(band);
  m->add_option("--reference", map.reference,
                "Reference signal: one float per line, as many as frames");
  m->add_option("-o,--output", map.output, "PNG file to write")->required();
  m->add_flag("--figure", map.figure,
              "Write a figure: the map with its frequency, a colour bar with values and the "
              "quantity (default: the bare 8-bit map)");
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
