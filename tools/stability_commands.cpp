// stability: runs ComputeStability on an FRF table and shows the modes it
// selected; synth-frf: writes the FRF table of a known system to try it on.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <fstream>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "commands.h"
#include "frfcam/frfcam.h"
#include "stability/synthetic.h"
#include "stability_csv.h"
#include "talproto.pb.h"

namespace frfcam::cli {

namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

constexpr const char* kCsvFormat =
    "FRF.csv: a header row, then one row per spectral line, comma separated:\n"
    "  frequency_hz,ch1_re,ch1_im,ch2_re,ch2_im,...\n"
    "the frequency in Hz, then the real and imaginary part of each channel's\n"
    "FRF at that line. All channels estimate the poles; the residues are\n"
    "fitted to the channel chosen with --reference-column.";

struct StabilityOptions {
  std::string input;
  std::string output;
  std::string orders = "2:60";
  double selectionTolerance = 0.01;
  int minStable = 5;
  double frequencyTolerance = 0.01;
  double dampingTolerance = 0.05;
  int referenceColumn = 1;
  bool flag1 = false;
  bool flag2 = false;
};

void ParseOrders(const std::string& text, int* minOrder, int* maxOrder) {
  const auto colon = text.find(':');
  std::size_t used1 = 0, used2 = 0;
  try {
    if (colon == std::string::npos) throw std::invalid_argument(text);
    const std::string a = text.substr(0, colon), b = text.substr(colon + 1);
    *minOrder = std::stoi(a, &used1);
    *maxOrder = std::stoi(b, &used2);
    if (used1 != a.size() || used2 != b.size()) throw std::invalid_argument(text);
  } catch (const std::logic_error&) {
    throw CommandError("--orders: expected LOW:HIGH (for example 2:60), got '" + text + "'");
  }
}

std::string Explain(int code, const StabilityOptions& o, std::size_t lines) {
  switch (code) {
    case FRFCAM_STABILITY_TOO_FEW_LINES:
      return "the FRF table needs at least 2 lines";
    case FRFCAM_STABILITY_NO_CHANNELS:
      return "the FRF table has no channel";
    case FRFCAM_STABILITY_BAD_MIN_ORDER:
      return "--orders " + o.orders + ": the lowest order must be at least 1";
    case FRFCAM_STABILITY_BAD_ORDER_RANGE:
      return "--orders " + o.orders + ": give at least two orders (LOW:HIGH with HIGH > LOW)";
    case FRFCAM_STABILITY_ORDER_TOO_HIGH:
      return "--orders " + o.orders +
             ": the highest order needs more lines than order + 1; the "
             "table has " +
             std::to_string(lines);
    case FRFCAM_STABILITY_BAD_FREQUENCIES:
      return "the frequencies of the table are all equal";
    case FRFCAM_STABILITY_BAD_FRF:
      return "the FRF table holds a value that is not finite";
    case FRFCAM_STABILITY_OUT_OF_MEMORY:
      return "out of memory";
    default:
      return "the stability computation failed (code " + std::to_string(code) + ")";
  }
}

void PrintModes(const talproto::stabChartData& record, const StabilityOptions& o) {
  std::printf("\n%d order(s) in the chart (orders %u..%d)\n", record.orderinfo_size(),
              record.orderinfo_size() > 0 ? record.orderinfo(0).order_num() : 0,
              record.orderinfo_size() > 0
                  ? static_cast<int>(record.orderinfo(record.orderinfo_size() - 1).order_num())
                  : 0);
  if (!record.has_upper_residual()) {
    std::printf(
        "No order had a pole stable in both frequency and damping, so nothing was selected.\n"
        "Wider --freq-tol / --damp-tol or a higher order range may help.\n");
    return;
  }
  const int modes = record.selected_poles_size();
  if (modes == 0) {
    std::printf(
        "No pole recurred within %g %% in %d orders; nothing was selected.\n"
        "A lower --min-stable or a wider --selection-tol may help.\n",
        100.0 * o.selectionTolerance, o.minStable);
  } else {
    std::vector<int> order(static_cast<std::size_t>(modes));
    for (int j = 0; j < modes; ++j) order[static_cast<std::size_t>(j)] = j;
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
      return record.selected_poles(a) < record.selected_poles(b);
    });
    std::printf("%d mode(s) selected (stable in >= %d orders, within %g %%):\n\n", modes,
                o.minStable, 100.0 * o.selectionTolerance);
    std::printf("  mode  frequency [Hz]  damping [%%]     |residue|\n");
    int n = 0;
    for (int j : order) {
      const auto& r = record.residues(j);
      std::printf("  %4d  %14.4f  %11.4f  %12.5g\n", ++n, record.selected_poles(j),
                  100.0 * record.selected_dampingfactor(j), std::hypot(r.re(), r.im()));
    }
  }
  std::printf("\nupper residual %.5g%+.5gi, lower residual %.5g%+.5gi\n",
              record.upper_residual().re(), record.upper_residual().im(),
              record.lower_residual().re(), record.lower_residual().im());
}

void RunStability(const StabilityOptions& o) {
  int minOrder = 0, maxOrder = 0;
  ParseOrders(o.orders, &minOrder, &maxOrder);
  const FrfTable table = ReadFrfCsv(o.input);
  const std::size_t lines = table.frequencyHz.size();
  const int channels = static_cast<int>(table.channels.size());
  if (o.referenceColumn < 1 || o.referenceColumn > channels) {
    throw CommandError("--reference-column " + std::to_string(o.referenceColumn) +
                       ": the table has " + std::to_string(channels) + " channel(s)");
  }

  std::vector<double> omega(lines);
  for (std::size_t i = 0; i < lines; ++i) omega[i] = kTwoPi * table.frequencyHz[i];
  std::vector<std::complex<double>> matrix;
  matrix.reserve(lines * table.channels.size());
  for (const auto& channel : table.channels)
    matrix.insert(matrix.end(), channel.begin(), channel.end());
  const auto& reference = table.channels[static_cast<std::size_t>(o.referenceColumn - 1)];

  std::printf(
      "%zu line(s) of %d channel(s) from %s, orders %d..%d, residues fitted to channel %d\n", lines,
      channels, o.input.c_str(), minOrder, maxOrder, o.referenceColumn);
  std::fflush(stdout);
  const int code =
      ComputeStability(o.output.c_str(), reinterpret_cast<const double*>(reference.data()),
                       reinterpret_cast<const double*>(matrix.data()), channels, omega.data(),
                       static_cast<int>(std::min<std::size_t>(lines, 0x7fffffff)), minOrder,
                       maxOrder, o.selectionTolerance, o.minStable, o.frequencyTolerance,
                       o.dampingTolerance, o.flag1 ? 1 : 0, o.flag2 ? 1 : 0);
  if (code != FRFCAM_STABILITY_OK) throw CommandError(Explain(code, o, lines));

  std::ifstream in(o.output, std::ios::binary);
  talproto::stabChartData record;
  if (!in || !record.ParseFromIstream(&in)) {
    throw CommandError("no record could be read back from " + o.output);
  }
  PrintModes(record, o);
  std::printf("\nrecord written to %s\n", o.output.c_str());
}

struct SynthOptions {
  std::string output;
  int lines = 1000;
  int channels = 4;
  double noise = 0.002;
  unsigned seed = 1;
};

void RunSynth(const SynthOptions& o) {
  stability::SyntheticSystem system =
      stability::DefaultFiveModeSystem(o.lines, o.channels, o.noise);
  system.seed = o.seed;
  stability::SyntheticFrfs frfs;
  try {
    frfs = stability::SynthesizeFrfs(system);
  } catch (const std::invalid_argument& e) {
    throw CommandError(e.what());
  }
  FrfTable table;
  table.frequencyHz.resize(static_cast<std::size_t>(frfs.omega.size()));
  for (Eigen::Index i = 0; i < frfs.omega.size(); ++i) {
    table.frequencyHz[static_cast<std::size_t>(i)] = frfs.omega[i] / kTwoPi;
  }
  table.channels.resize(static_cast<std::size_t>(frfs.matrix.cols()));
  for (Eigen::Index c = 0; c < frfs.matrix.cols(); ++c) {
    auto& channel = table.channels[static_cast<std::size_t>(c)];
    channel.assign(frfs.matrix.col(c).data(), frfs.matrix.col(c).data() + frfs.matrix.rows());
  }
  WriteFrfCsv(o.output, table);

  std::printf("%s: %d line(s) from %g to %g Hz, %d channel(s), noise %g %%\n", o.output.c_str(),
              system.numLines, system.fMinHz, system.fMaxHz, system.numChannels,
              100.0 * system.noise);
  std::printf("\n  mode  frequency [Hz]  damping [%%]\n");
  int n = 0;
  for (const auto& mode : system.modes) {
    std::printf("  %4d  %14.4f  %11.4f\n", ++n, mode.frequencyHz, 100.0 * mode.damping);
  }
  std::printf("\ntry: frfcam stability %s -o record.pb\n", o.output.c_str());
}

}  // namespace

void RegisterStabilityCommands(CLI::App& app) {
  auto so = std::make_shared<StabilityOptions>();
  CLI::App* stab = app.add_subcommand(
      "stability", "Stabilisation chart, selected modes and residues of measured FRFs");
  stab->add_option("input", so->input, "FRF table (CSV, format below)")->required();
  stab->add_option("-o,--output", so->output, "record file to write (replaced)")->required();
  stab->add_option("--orders", so->orders, "model order range LOW:HIGH")->capture_default_str();
  stab->add_option("--selection-tol", so->selectionTolerance,
                   "relative frequency tolerance of the mode selection")
      ->capture_default_str();
  stab->add_option("--min-stable", so->minStable,
                   "orders a pole must recur in to be selected (its own included)")
      ->capture_default_str();
  stab->add_option("--freq-tol", so->frequencyTolerance,
                   "relative frequency change still stable between orders")
      ->capture_default_str();
  stab->add_option("--damp-tol", so->dampingTolerance,
                   "relative damping change still stable between orders")
      ->capture_default_str();
  stab->add_option("--reference-column", so->referenceColumn,
                   "channel (1 = first) whose FRF the residues are fitted to")
      ->capture_default_str();
  stab->add_flag("--flag1", so->flag1, "estimator option 1");
  stab->add_flag("--flag2", so->flag2, "estimator option 2");
  stab->footer(kCsvFormat);
  stab->callback([so] { RunStability(*so); });

  auto sy = std::make_shared<SynthOptions>();
  CLI::App* synth = app.add_subcommand(
      "synth-frf", "Write the FRFs of a known five-mode system as a table for `stability`");
  synth->add_option("output", sy->output, "CSV file to write")->required();
  synth->add_option("--lines", sy->lines, "spectral lines (10 to 500 Hz)")
      ->capture_default_str()
      ->check(CLI::Range(2, 10000000));
  synth->add_option("--channels", sy->channels, "channels")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  synth->add_option("--noise", sy->noise, "relative noise level (0.002 = 0.2 %)")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  synth->add_option("--seed", sy->seed, "noise seed")->capture_default_str();
  synth->footer(kCsvFormat);
  synth->callback([sy] { RunSynth(*sy); });
}

}  // namespace frfcam::cli
