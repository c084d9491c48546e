// modes: natural frequencies, damping and full-field mode shapes of a
// capture, rendering its cube first when it is missing or incomplete.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "chart_data.h"
#include "chart_svg.h"
#include "commands.h"
#include "cube_render.h"
#include "displacement_pictures.h"
#include "figure_svg.h"
#include "formats/npy.h"
#include "frfmap/capture_header.h"
#include "frfmap/cube_check.h"
#include "modes/modes.h"
#include "modes_uff.h"
#include "platform/platform.h"
#include "png_writer.h"
#include "reference_file.h"
#include "svg_raster.h"

namespace frfcam::cli {

namespace {

constexpr int kGifFrames = 24;

struct ModesCliOptions {
  std::string header;
  std::string reference;
  std::string output;
  double fps = 0.0;
  std::string band;
  std::string orders = "2:40";
  int stride = 0;
  int minStable = modes::ModesOptions::DefaultModesSelection().minStableCount;
  std::string shapes = "auto";
  double scale = 0.0;  // mm per px; 0: pixels
  std::string writeUff;
  std::string workDir;
  bool figure = false;
};

// UFF exports hold the windows of a grid of at most this many.
constexpr int kUffWindows = 400;

void RenderIfNeeded(const std::string& header, const frfmap::CaptureHeader& loaded) {
  const frfmap::CubeState state = frfmap::CheckCube(header, loaded);
  if (state == frfmap::CubeState::kReady) return;
  std::printf("cube not ready (%s); rendering it\n", frfmap::CubeStateName(state));
  std::fflush(stdout);
  Calcs calcs;
  OpenCapture(calcs.c, header);
  RenderWithProgress(calcs.c, header, "rendering the cube: ");
}

// Whether `name` is one that `modes` writes: modes.csv, chart.svg,
// chart.json, mode_K.npy/.png/.gif, mode_K_disp.npy/.png, mode_K_motion.gif.
bool WrittenByModes(const std::string& name) {
  if (name == "modes.csv" || name == "chart.svg" || name == "chart.json") return true;
  if (name.rfind("mode_", 0) != 0) return false;
  std::size_t i = 5;
  while (i < name.size() && name[i] >= '0' && name[i] <= '9') ++i;
  if (i == 5) return false;
  const std::string rest = name.substr(i);
  for (const char* suffix : {".npy", ".png", ".gif", "_disp.npy", "_disp.png", "_motion.gif"}) {
    if (rest == suffix) return true;
  }
  return false;
}

// Removes what an earlier run of `modes` wrote into `dir`; nothing else is
// touched. Returns how many went.
std::size_t RemovePreviousOutputs(const std::string& dir) {
  std::size_t removed = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(platform::PathFromUtf8(dir), ec)) {
    const std::string name = entry.path().filename().string();
    if (!WrittenByModes(name) || !platform::IsRegularFile(entry.path())) continue;
    std::error_code gone;
    if (std::filesystem::remove(entry.path(), gone)) ++removed;
  }
  return removed;
}

// The shape turned to its dominant phase, and the value that maps to the
// colour extremes: the 99.5th percentile of |value|, so a few hot pixels do
// not wash the picture out.
struct Picture {
  double theta = 0.0;
  double scale = 1.0;
};
Picture PictureOf(const std::vector<std::complex<float>>& shape) {
  Picture p;
  p.theta = modes::DominantPhase(shape);
  std::vector<float> magnitude;
  for (const auto& v : shape) {
    if (v != std::complex<float>(0.0f)) magnitude.push_back(std::abs(v));
  }
  if (!magnitude.empty()) {
    auto at = magnitude.begin() + static_cast<std::ptrdiff_t>(magnitude.size() * 995 / 1000);
    std::nth_element(magnitude.begin(), at, magnitude.end());
    if (*at > 0.0f) p.scale = *at;
  }
  return p;
}

std::uint8_t ColourIndex(double value, double scale) {
  const double t = std::clamp(value / scale, -1.0, 1.0);
  return static_cast<std::uint8_t>(std::lround(127.5 + 127.5 * t));
}

void WriteModeFiles(const std::string& dir, int k, const modes::Mode& mode, unsigned w, unsigned h,
                    bool figure) {
  const std::string base = dir + "/mode_" + std::to_string(k);
  const formats::NpyStatus s = formats::WriteNpy(base + ".npy", {h, w}, mode.shape.data());
  if (s != formats::NpyStatus::kOk) {
    throw CommandError(base + ".npy: " + formats::NpyStatusText(s));
  }

  const Picture pic = PictureOf(mode.shape);
  const Palette palette = DivergingPalette();
  const std::size_t pixels = static_cast<std::size_t>(w) * h;
  std::vector<std::uint8_t> rgb(pixels * 3);
  const std::complex<double> turn = std::polar(1.0, -pic.theta);
  for (std::size_t p = 0; p < pixels; ++p) {
    const auto& c =
        palette[ColourIndex((std::complex<double>(mode.shape[p]) * turn).real(), pic.scale)];
    std::copy(c.begin(), c.end(), &rgb[3 * p]);
  }
  char scale[200];
  std::snprintf(scale, sizeof scale,
                "real part after turning by %.4f rad; full blue = -%.6g, white = 0, full red = "
                "+%.6g (residue units)",
                -pic.theta, pic.scale, pic.scale);
  char title[120];
  std::snprintf(title, sizeof title, "mode %d: %.3f Hz, damping %.3f %%, MPC %.3f", k,
                mode.frequencyHz, 100.0 * mode.damping, mode.mpc);
  if (figure) {
    ImageFigure f;
    char heading[120];
    std::snprintf(heading, sizeof heading, "mode %d: %.3f Hz, damping %.3f %%", k, mode.frequencyHz,
                  100.0 * mode.damping);
    f.title = heading;
    char sub[120];
    std::snprintf(sub, sizeof sub, "MPC %.3f; real part after turning by %.4f rad", mode.mpc,
                  -pic.theta);
    f.subtitle = sub;
    f.pixels = rgb;
    f.channels = 3;
    f.width = w;
    f.height = h;
    for (int i = 0; i <= 16; ++i) f.barColours.push_back(palette[std::min(255, 16 * i)]);
    f.barLow = -pic.scale;
    f.barHigh = pic.scale;
    f.quantity = "Re(shape) [residue units]";
    WriteFigurePng(base + ".png", ImageFigureSvg(f),
                   {{"Title", title},
                    {"Scale", scale},
                    {"Description", std::string(title) + "; " + scale},
                    {"Software", "frfcam modes"}});
  } else {
    WriteRgbPng(base + ".png", rgb.data(), w, h,
                {{"Title", title}, {"Scale", scale}, {"Software", "frfcam modes"}});
  }

  std::vector<std::vector<std::uint8_t>> frames(kGifFrames, std::vector<std::uint8_t>(pixels));
  for (int f = 0; f < kGifFrames; ++f) {
    const std::complex<double> phase =
        turn * std::polar(1.0, 2.0 * std::numbers::pi * f / kGifFrames);
    for (std::size_t p = 0; p < pixels; ++p) {
      frames[f][p] = ColourIndex((std::complex<double>(mode.shape[p]) * phase).real(), pic.scale);
    }
  }
  unsigned height = h;
  if (figure) {
    char caption[120];
    std::snprintf(caption, sizeof caption, "mode %d: %.2f Hz, damping %.2f %%", k, mode.frequencyHz,
                  100.0 * mode.damping);
    AddCaption(&frames, w, &height, palette, caption);
  }
  WriteAnimatedGif(base + ".gif", frames, w, height, palette, 4);
}

// mode_K_disp.npy (2 x H x W complex64: x then y, in px or mm per unit of
// reference, NaN where unmeasured) and its two pictures.
void WriteDisplacementFiles(const std::string& dir, int k, const modes::Mode& mode,
                            const modes::ModesResult& r, double mmPerPx, bool figure) {
  const std::string base = dir + "/mode_" + std::to_string(k);
  const std::size_t pixels = static_cast<std::size_t>(r.width) * r.height;
  const float unit = mmPerPx > 0.0 ? static_cast<float>(mmPerPx) : 1.0f;
  std::vector<std::complex<float>> both(2 * pixels);
  for (std::size_t p = 0; p < pixels; ++p) {
    both[p] = mode.dispX[p] * unit;
    both[pixels + p] = mode.dispY[p] * unit;
  }
  const formats::NpyStatus s =
      formats::WriteNpy(base + "_disp.npy", {2, r.height, r.width}, both.data());
  if (s != formats::NpyStatus::kOk) {
    throw CommandError(base + "_disp.npy: " + formats::NpyStatusText(s));
  }
  std::vector<std::complex<float>> measured;
  for (const auto& v : both) {
    if (std::isfinite(v.real())) measured.push_back(v);
  }
  DisplacementField field;
  field.width = r.width;
  field.height = r.height;
  field.mean = r.meanImage.data();
  field.x = both.data();
  field.y = both.data() + pixels;
  field.theta = modes::DominantPhase(measured);
  field.units = mmPerPx > 0.0 ? "mm" : "px";
  field.unitsPerPx = mmPerPx > 0.0 ? mmPerPx : 1.0;
  char title[160];
  std::snprintf(title, sizeof title, "mode %d: %.3f Hz, damping %.3f %%, MPC %.3f (displacement)",
                k, mode.frequencyHz, 100.0 * mode.damping, mode.mpc);
  field.title = title;
  field.windowPx = 2.0 * r.flowRadius + 1.0;
  field.figure = figure;
  WriteDisplacementPng(base + "_disp.png", field);
  WriteMotionGif(base + "_motion.gif", field);
}

void RunModes(const ModesCliOptions& o) {
  frfmap::CaptureHeader header;
  if (!std::filesystem::exists(o.header)) throw CommandError(o.header + ": no such file");
  if (!header.Load(o.header)) throw CommandError("cannot read capture header " + o.header);
  modes::ModesOptions options;
  options.fps = o.fps > 0 ? o.fps : header.float_field();
  if (!(options.fps > 0) || !std::isfinite(options.fps)) {
    throw CommandError("the header holds no frame rate; give --fps");
  }
  if (!o.band.empty()) {
    ParsePair(o.band, "--band", &options.bandLoHz, &options.bandHiHz);
    if (!(options.bandLoHz >= 0 && options.bandHiHz > options.bandLoHz)) {
      throw CommandError("--band " + o.band + ": needs 0 <= LOW < HIGH (Hz)");
    }
  }
  double lo = 0, hi = 0;
  ParsePair(o.orders, "--orders", &lo, &hi);
  options.selection.minOrder = static_cast<int>(lo);
  options.selection.maxOrder = static_cast<int>(hi);
  if (lo != std::floor(lo) || hi != std::floor(hi) || lo < 1 || hi <= lo || hi > 200) {
    throw CommandError("--orders " + o.orders + ": needs whole numbers 1 <= LOW < HIGH <= 200");
  }
  options.selection.minStableCount = o.minStable;
  if (o.shapes == "auto") {
    options.shapes = modes::ShapeKind::kAuto;
  } else if (o.shapes == "displacement") {
    options.shapes = modes::ShapeKind::kDisplacement;
  } else if (o.shapes == "brightness") {
    options.shapes = modes::ShapeKind::kBrightness;
  } else {
    throw CommandError("--shapes " + o.shapes + ": expected auto, displacement or brightness");
  }
  if (!o.writeUff.empty()) options.exportWindows = kUffWindows;
  options.stride = o.stride;
  options.cancel = InterruptScope::cancelled();
  const std::vector<float> reference =
      ReadCaptureReference(o.reference, header.frame_count(), options.fps,
                           o.fps > 0 ? "--fps gives" : "the header gives");
  if (o.figure) RequireSvgRaster("modes --figure");
  std::error_code ec;
  std::filesystem::create_directories(o.output, ec);
  if (ec || !std::filesystem::is_directory(o.output)) {
    throw CommandError("cannot create the output folder " + o.output);
  }

  InterruptScope interrupt;
  RenderIfNeeded(o.header, header);

  modes::ModesResult r;
  std::string error;
  modes::ModesStatus status;
  {
    ProgressDisplay display("fitting the modes: ");
    options.progress = [&display](int percent) { display.Show(percent); };
    status = modes::ComputeModes(o.header, reference, options, &r, &error);
  }
  switch (status) {
    case modes::ModesStatus::kOk:
      break;
    case modes::ModesStatus::kCancelled:
      std::fprintf(stderr, "frfcam: cancelled\n");
      throw ExitWith{130};
    default:
      throw CommandError(error);
  }

  const auto t0 = std::chrono::steady_clock::now();
  // The folder then holds this run's outputs only: a previous run's mode 3
  // beside a table of two modes would read as a third mode.
  const std::size_t removed = RemovePreviousOutputs(o.output);
  const char* kind = modes::ShapeKindName(r.kind);
  std::string csv = "mode,frequency_hz,damping_ratio,mpc,shape\n";
  for (std::size_t k = 0; k < r.modes.size(); ++k) {
    char row[200];
    std::snprintf(row, sizeof row, "%zu,%.6f,%.6f,%.6f,%s\n", k + 1, r.modes[k].frequencyHz,
                  r.modes[k].damping, r.modes[k].mpc, kind);
    csv += row;
  }
  WriteTextFile(o.output + "/modes.csv", csv);
  for (std::size_t k = 0; k < r.modes.size(); ++k) {
    WriteModeFiles(o.output, static_cast<int>(k + 1), r.modes[k], r.width, r.height, o.figure);
    if (!r.modes[k].dispX.empty()) {
      WriteDisplacementFiles(o.output, static_cast<int>(k + 1), r.modes[k], r, o.scale, o.figure);
    }
  }
  if (!o.writeUff.empty()) {
    if (r.kind != modes::ShapeKind::kDisplacement) {
      throw CommandError(
          "--write-uff: the shapes are brightness, not displacement; the file "
          "holds displacement (see --shapes)");
    }
    WriteModesUff(o.writeUff, r, o.scale, std::filesystem::path(o.header).filename().string());
  }
  ChartInput chart;
  for (const auto& order : r.chart.orders) {
    chart.orders.push_back({order.order, order.s, order.f, order.d, order.o});
  }
  chart.lineHz = r.chart.lineHz;
  chart.sumMagnitude = r.chart.sumMagnitude;
  chart.selectedHz = r.chart.selectedHz;
  chart.title = "Stabilisation chart: " + std::filesystem::path(o.header).filename().string();
  WriteTextFile(o.output + "/chart.svg", StabilisationChartSvg(chart));
  WriteTextFile(o.output + "/chart.json", ChartJson(chart));
  const double writing =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

  const auto sec = [](std::chrono::nanoseconds t) {
    return std::chrono::duration<double>(t).count();
  };
  std::printf("%ux%u pixels, band %.2f..%.2f Hz (bins %d..%d), orders %d..%d\n", r.width, r.height,
              r.bandFirstBin * options.fps / header.frame_count(),
              r.bandLastBin * options.fps / header.frame_count(), r.bandFirstBin, r.bandLastBin,
              options.selection.minOrder, options.selection.maxOrder);
  if (r.kind == modes::ShapeKind::kDisplacement) {
    std::printf(
        "shapes: displacement (the gradients explain %.0f %% of the brightness change); pole "
        "fit on %d principal spectra of %d displacement channels (%d windows of %dx%d px, "
        "every %d px)\n",
        100.0 * r.motionShare, r.components, r.channels, r.windows, 2 * options.flow.radius + 1,
        2 * options.flow.radius + 1, r.windowStride);
  } else {
    std::printf(
        "shapes: brightness (the gradients explain %.0f %% of the brightness change); pole fit "
        "on %d of %d grid pixels (stride %d)\n",
        100.0 * r.motionShare, r.channels, r.gridPixels, r.stride);
  }
  if (r.modes.empty()) {
    std::printf(
        "\nNo mode passed the selection; a lower --min-stable or another --band may "
        "help.\n");
  } else {
    std::printf("\n%zu mode(s):\n\n  mode  frequency [Hz]  damping [%%]     MPC  shape\n",
                r.modes.size());
    for (std::size_t k = 0; k < r.modes.size(); ++k) {
      std::printf("  %4zu  %14.4f  %11.4f  %6.3f  %s\n", k + 1, r.modes[k].frequencyHz,
                  100.0 * r.modes[k].damping, r.modes[k].mpc, kind);
    }
  }
  std::printf("\ntimes: reading %.2f s, pole fit %.2f s, residues %.2f s, writing %.2f s\n",
              sec(r.times.reading), sec(r.times.poleFit), sec(r.times.residues), writing);
  std::string wrote = "modes.csv, chart.svg, chart.json";
  if (r.modes.size() == 1) {
    wrote += ", mode_1.{npy,png,gif}";
  } else if (!r.modes.empty()) {
    wrote += ", mode_1.{npy,png,gif} .. mode_" + std::to_string(r.modes.size()) + ".{npy,png,gif}";
  }
  if (!r.modes.empty() && r.kind == modes::ShapeKind::kDisplacement) {
    wrote += std::string(" and per mode _disp.{npy,png}, _motion.gif (displacement in ") +
             (o.scale > 0.0 ? "mm" : "px") + " per reference unit)";
  }
  std::printf("wrote %s into %s", wrote.c_str(), o.output.c_str());
  if (removed > 0) std::printf(" (removed %zu file(s) of the previous run)", removed);
  std::printf("\n");
  if (!o.writeUff.empty()) {
    std::printf("wrote %s: %zu windows' displacement FRFs, their nodes and the mode shapes\n",
                o.writeUff.c_str(), r.windowFrfs.size());
  }
}

}  // namespace

void RegisterModesCommand(CLI::App& app) {
  auto o = std::make_shared<ModesCliOptions>();
  CLI::App* m = app.add_subcommand(
      "modes", "Natural frequencies, damping and full-field mode shapes of a capture");
  m->add_option("capture", o->header,
                "Capture header file, or a recording (imported once); the cube is rendered if "
                "needed")
      ->required();
  m->add_option("--reference", o->reference,
                "Reference signal: one float per line, as many as frames")
      ->required();
  m->add_option("--fps", o->fps, "Frame rate (default: the header's)")->check(Positive());
  m->add_option("--band", o->band, "Band LO:HI in Hz (default: all bins above 0)");
  m->add_option("--orders", o->orders, "Model order range LOW:HIGH")->capture_default_str();
  m->add_option("--stride", o->stride,
                "Grid step of the pole-fit pixels (default: at least 10000 pixels)")
      ->check(Positive());
  m->add_option("--min-stable", o->minStable,
                "Orders a pole must recur in to be selected (its own included)")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  m->add_option("--shapes", o->shapes,
                "Shapes as displacement (for structures that move), brightness (for light "
                "that changes in place) or auto (decided from the data)")
      ->capture_default_str();
  m->add_option("--scale", o->scale,
                "Millimetres per pixel: displacement and UFF coordinates in mm instead of px")
      ->check(Positive());
  m->add_option("--write-uff", o->writeUff,
                "Also write the displacement measurement as a universal file: nodes (2411), "
                "mode shapes (55) and FRFs (58) of a grid of windows");
  m->add_option("-o,--output", o->output, "Folder for the outputs (created if missing)")
      ->required();
  m->add_option("--work-dir", o->workDir,
                "Folder for the import of a recording (default: beside it)");
  m->add_flag("--figure", o->figure,
              "Mode pictures as figures: title with frequency and damping, a signed colour bar "
              "with values; the GIFs get a caption (default: the bare pictures)");
  m->callback([o] {
    ModesCliOptions resolved = *o;
    resolved.header = CaptureFor(o->header, o->workDir);
    RunModes(resolved);
  });
}

}  // namespace frfcam::cli
