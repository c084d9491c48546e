// stability: the modal analysis of measured FRFs (CSV, UFF 58, .npz or .npy)
// with the modes it selected; synth-frf: writes the FRF table of a known
// system to try it on.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <fstream>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "chart_data.h"
#include "chart_svg.h"
#include "commands.h"
#include "formats/npz.h"
#include "formats/output_file.h"
#include "formats/uff.h"
#include "platform/platform.h"
#include "png_writer.h"
#include "stability/synthetic.h"
#include "stability_analysis.h"
#include "stability_csv.h"
#include "svg_raster.h"

namespace frfcam::cli {

namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

constexpr const char* kInputFormats =
    "Input, by extension:\n"
    "  .csv  up to two header rows, then one row per spectral line:\n"
    "        frequency_hz,ch1_re,ch1_im,ch2_re,ch2_im,...\n"
    "        separated by ',', or ';' (then 1,5 reads as 1.5), tabs or blanks;\n"
    "        '#' starts a comment\n"
    "  .uff, .unv  universal file, datasets 58 / 58b: the FRFs (function type 4,\n"
    "        or the types of --function-type) that share the first one's\n"
    "        abscissa, or those of the --response nodes\n"
    "  .npz  numpy archive: a frequency vector (frequencies_hz, freq, f, ...) and\n"
    "        a complex FRF matrix (frf_matrix, frf, H, ...), lines x channels\n"
    "  .npy  a complex FRF matrix, lines x channels, with --frequencies FREQ.npy\n"
    "All channels estimate the poles; the modes are the poles that recur in\n"
    "--min-stable orders, then (unless --exact-selection) those that are physical\n"
    "and significant: leaving one out must raise the residual of the fit to all\n"
    "channels by at least --min-significance times the residual per line.\n"
    "Residues are fitted to every channel; the record holds the fit of the\n"
    "--reference-column channel.";

struct StabilityOptions {
  std::string input;
  std::string output;
  std::string frequencies;
  std::string orders;
  stability::SelectionSettings settings;
  bool exactSelection = false;
  int referenceColumn = 1;
  std::vector<std::string> responses;
  std::vector<int> functionTypes;  // UFF input; empty: FRFs
  std::string writeUff;
  bool binaryUff = false;
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
  if (*minOrder < 1 || *maxOrder <= *minOrder) {
    throw CommandError("--orders " + text +
                       ": give LOW:HIGH with LOW at least 1 and HIGH above LOW (two orders or "
                       "more, for example 2:60)");
  }
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string Extension(const std::string& path) {
  const auto slash = path.find_last_of("/\\");
  const auto dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return Lower(path.substr(dot));
}

// The FRFs of one input, whatever its format.
struct FrfInput {
  std::vector<double> frequencyHz;
  stability::ComplexMatrix frfs;    // lines x channels
  std::vector<std::string> names;   // one per channel
  std::vector<formats::Uff58> uff;  // the selected functions, for --write-uff
  std::vector<std::string> notes;   // how the input was read
};

FrfInput FromTable(const FrfTable& table) {
  FrfInput in;
  in.frequencyHz = table.frequencyHz;
  const auto lines = static_cast<Eigen::Index>(table.frequencyHz.size());
  in.frfs.resize(lines, static_cast<Eigen::Index>(table.channels.size()));
  for (std::size_t c = 0; c < table.channels.size(); ++c) {
    for (Eigen::Index i = 0; i < lines; ++i) {
      in.frfs(i, static_cast<Eigen::Index>(c)) = table.channels[c][static_cast<std::size_t>(i)];
    }
  }
  return in;
}

FrfInput FromArrays(const formats::FrfArrays& a) {
  FrfInput in;
  in.frequencyHz = a.frequencyHz;
  const auto lines = static_cast<Eigen::Index>(a.frequencyHz.size());
  in.frfs = Eigen::Map<const stability::ComplexMatrix>(a.frf.data(), lines,
                                                       static_cast<Eigen::Index>(a.channels));
  in.notes.push_back(a.note);
  return in;
}

// "101" or "101:+Z" / "101:3" / "101:-x".
bool MatchesResponse(const formats::Uff58& f, const std::string& selector) {
  const auto colon = selector.find(':');
  const std::string node = selector.substr(0, colon);
  if (node != std::to_string(f.responseNode)) return false;
  if (colon == std::string::npos) return true;
  const std::string dir = selector.substr(colon + 1);
  return Lower(dir) == Lower(formats::UffDirectionName(f.responseDirection)) ||
         Lower("+" + dir) == Lower(formats::UffDirectionName(f.responseDirection)) ||
         dir == std::to_string(f.responseDirection);
}

std::string Describe(const formats::Uff58& f) {
  return std::to_string(f.responseNode) + " " + formats::UffDirectionName(f.responseDirection) +
         " / " + std::to_string(f.referenceNode) + " " +
         formats::UffDirectionName(f.referenceDirection);
}

// Only FRFs unless the user names other types: fitting a time history or
// an auto spectrum gives "modes" that mean nothing.
FrfInput FromUff(const std::string& path, const std::vector<std::string>& responses,
                 std::vector<int> types) {
  if (types.empty()) types.push_back(formats::kUffFunctionFrf);
  std::vector<formats::Uff58> all;
  std::string error;
  int skipped = 0;
  if (!formats::ReadUff58File(path, &all, &error, &skipped)) throw CommandError(error);
  const auto wanted = [&](const formats::Uff58& f) {
    return std::find(types.begin(), types.end(), f.functionType) != types.end();
  };
  if (std::none_of(all.begin(), all.end(), wanted)) {
    std::vector<int> present;
    for (const formats::Uff58& f : all) present.push_back(f.functionType);
    throw CommandError(path + " " + formats::UffNoFunctionOfTypes(present, types) +
                       (types.size() == 1 && types[0] == formats::kUffFunctionFrf
                            ? "; --function-type N fits functions of type N"
                            : ""));
  }
  std::vector<const formats::Uff58*> picked;
  for (const formats::Uff58& f : all) {
    if (!wanted(f)) continue;
    if (!responses.empty() && std::none_of(responses.begin(), responses.end(),
                                           [&](const auto& r) { return MatchesResponse(f, r); })) {
      continue;
    }
    picked.push_back(&f);
  }
  if (picked.empty()) {
    const bool frfs = types.size() == 1 && types[0] == formats::kUffFunctionFrf;
    throw CommandError(path + ": no " + (frfs ? "FRF" : "function of the --function-type types") +
                       " of the --response nodes among its " + std::to_string(all.size()) +
                       " function(s)");
  }
  FrfInput in;
  const formats::Uff58& first = *picked.front();
  const std::string units = Lower(first.abscissa.units);
  const double toHz = units.find("rad") != std::string::npos ? 1.0 / kTwoPi : 1.0;
  for (std::size_t c = 0; c < picked.size(); ++c) {
    const formats::Uff58& f = *picked[c];
    bool same = f.x.size() == first.x.size();
    const double span = std::abs(first.x.back() - first.x.front()) + 1e-300;
    for (std::size_t i = 0; same && i < f.x.size(); ++i) {
      same = std::abs(f.x[i] - first.x[i]) <= 1e-6 * span;
    }
    if (!same) {
      throw CommandError(path + ": the FRF " + Describe(f) + " has " + std::to_string(f.x.size()) +
                         " lines from " + std::to_string(f.x.front()) + ", the first FRF " +
                         std::to_string(first.x.size()) + " from " +
                         std::to_string(first.x.front()) +
                         "; select FRFs of one abscissa with --response NODE[:DIR]");
    }
  }
  for (double x : first.x) in.frequencyHz.push_back(x * toHz);
  in.frfs.resize(static_cast<Eigen::Index>(first.x.size()),
                 static_cast<Eigen::Index>(picked.size()));
  for (std::size_t c = 0; c < picked.size(); ++c) {
    for (std::size_t i = 0; i < first.x.size(); ++i) {
      in.frfs(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(c)) = picked[c]->y[i];
    }
    in.names.push_back(Describe(*picked[c]) + " (function " +
                       std::to_string(picked[c]->functionId) + ")");
    in.uff.push_back(*picked[c]);
  }
  in.notes.push_back(
      std::to_string(all.size()) + " function(s) in the file, " + std::to_string(picked.size()) +
      " taken" + (skipped > 0 ? "; " + std::to_string(skipped) + " other dataset(s) skipped" : "") +
      (toHz != 1.0 ? "; abscissa in rad/s converted to Hz" : ""));
  return in;
}

FrfInput LoadInput(const StabilityOptions& o);

// ---- chart ------------------------------------------------------------------

struct ChartOptions {
  std::string record;
  std::string output;
  std::string frf;  // optional: the measured FRFs, for the magnitude behind
  std::string frequencies;
  std::vector<std::string> responses;
  std::vector<int> functionTypes;
  std::string size = "960x540";
};

void RunChart(const ChartOptions& o) {
  const std::string ext = Extension(o.output);
  if (ext != ".svg" && ext != ".png") {
    throw CommandError("-o " + o.output + ": the chart is written as .svg or .png");
  }
  unsigned width = 0, height = 0;
  char tail = 0;
  if (std::sscanf(o.size.c_str(), "%ux%u%c", &width, &height, &tail) != 2 || width < 200 ||
      height < 150 || width > 8000 || height > 8000) {
    throw CommandError("--size " + o.size + ": expected WIDTHxHEIGHT, 200x150 to 8000x8000");
  }
  if (ext == ".png") RequireSvgRaster("a PNG chart");
  std::string why;
  if (!formats::CanWriteFile(o.output, &why)) throw CommandError(why);
  ChartInput chart = ReadRecordChart(o.record, nullptr);
  if (!o.frf.empty()) {
    StabilityOptions input;
    input.input = o.frf;
    input.frequencies = o.frequencies;
    input.responses = o.responses;
    input.functionTypes = o.functionTypes;
    const FrfInput frf = LoadInput(input);
    chart.lineHz = frf.frequencyHz;
    chart.sumMagnitude.assign(chart.lineHz.size(), 0.0);
    for (Eigen::Index i = 0; i < frf.frfs.rows(); ++i) {
      chart.sumMagnitude[static_cast<std::size_t>(i)] = frf.frfs.row(i).cwiseAbs().sum();
    }
  }
  if (ext == ".svg") {
    if (!formats::WriteFileWhole(o.output, StabilisationChartSvg(chart), &why)) {
      throw CommandError(why);
    }
  } else {
    const std::vector<std::uint8_t> rgb =
        RasteriseSvg(StabilisationChartSvg(chart, width, height), width, height);
    WriteRgbPng(o.output, rgb.data(), width, height,
                {{"Title", "Stabilisation chart of " + o.record},
                 {"Description",
                  "x: frequency [Hz], y: model order; stable: filled blue circle, "
                  "frequency: open green circle, damping: orange plus, new: grey dot; "
                  "selected modes dashed red; grey: sum of |FRF| (log scale)"}});
  }
  std::printf("wrote %s: %zu order(s), %zu selected mode(s)%s\n", o.output.c_str(),
              chart.orders.size(), chart.selectedHz.size(),
              chart.lineHz.empty() ? " (no --frf: no magnitude behind the chart)" : "");
}

FrfInput LoadInput(const StabilityOptions& o) {
  const std::string ext = Extension(o.input);
  if (ext != ".npy" && !o.frequencies.empty()) {
    throw CommandError("--frequencies is for .npy input (the other formats carry their own)");
  }
  if (ext == ".uff" || ext == ".unv" || ext == ".uf") {
    return FromUff(o.input, o.responses, o.functionTypes);
  }
  if (!o.responses.empty()) throw CommandError("--response is for UFF input");
  if (!o.functionTypes.empty()) throw CommandError("--function-type is for UFF input");
  std::string error;
  if (ext == ".npz") {
    std::vector<formats::NpzMember> members;
    formats::FrfArrays arrays;
    if (!formats::ReadNpz(o.input, &members, &error) ||
        !formats::FrfFromArrays(members, o.input, &arrays, &error)) {
      throw CommandError(error);
    }
    return FromArrays(arrays);
  }
  if (ext == ".npy") {
    if (o.frequencies.empty()) {
      throw CommandError(o.input + ": a .npy holds only the FRFs; give --frequencies FREQ.npy");
    }
    std::vector<formats::NpzMember> members(2);
    members[0].name = "frequencies";
    members[1].name = "frf";
    const std::string* paths[2] = {&o.frequencies, &o.input};
    for (int k = 0; k < 2; ++k) {
      const formats::NpyStatus s = formats::ReadNpy(*paths[k], &members[k].array);
      if (s != formats::NpyStatus::kOk) {
        throw CommandError(*paths[k] + ": " + formats::NpyStatusText(s));
      }
    }
    formats::FrfArrays arrays;
    if (!formats::FrfFromArrays(members, o.input, &arrays, &error)) throw CommandError(error);
    return FromArrays(arrays);
  }
  CsvInfo info;
  FrfInput in = FromTable(ReadFrfCsv(o.input, &info));
  if (!info.header) in.notes.push_back("no header row: the first row is data");
  return in;
}

void PrintModes(const Analysis& a, const StabilityOptions& o) {
  const auto& record = a.record;
  std::printf("\n%d order(s) in the chart (orders %u..%d)\n", record.orderinfo_size(),
              record.orderinfo_size() > 0 ? record.orderinfo(0).order_num() : 0,
              record.orderinfo_size() > 0
                  ? static_cast<int>(record.orderinfo(record.orderinfo_size() - 1).order_num())
                  : 0);
  if (a.estimation.poleFrequencyByOrder.empty()) {
    std::printf(
        "No order had a pole stable in both frequency and damping, so nothing was selected.\n"
        "Wider --freq-tol / --damp-tol or a higher order range may help.\n");
    return;
  }
  const stability::SelectionSettings& s = o.settings;
  if (!o.exactSelection) {
    std::printf(
        "%d pole(s) recur in >= %d orders within %g %%; %zu of them are physical and "
        "significant (>= %g)\n",
        a.candidates, s.minStableCount, 100.0 * s.selectionTolerance,
        static_cast<std::size_t>(a.selection.frequency.size()), s.minSignificance);
  }
  const auto modes = static_cast<int>(a.selection.frequency.size());
  if (modes == 0) {
    std::printf("Nothing was selected. A lower --min-stable%s may help.\n",
                o.exactSelection ? " or a wider --selection-tol" : " or --min-significance");
  } else {
    std::vector<int> order(static_cast<std::size_t>(modes));
    for (int j = 0; j < modes; ++j) order[static_cast<std::size_t>(j)] = j;
    std::stable_sort(order.begin(), order.end(), [&](int x, int y) {
      return a.selection.frequency[x] < a.selection.frequency[y];
    });
    std::printf("%d mode(s) selected:\n\n", modes);
    std::printf("  mode  frequency [Hz]  damping [%%]     |residue|\n");
    const auto& fit = a.fits[static_cast<std::size_t>(o.referenceColumn - 1)];
    int n = 0;
    for (int j : order) {
      std::printf("  %4d  %14.4f  %11.4f  %12.5g\n", ++n, a.selection.frequency[j],
                  100.0 * a.selection.damping[j], std::abs(fit.residues[j]));
    }
  }
  if (!a.fits.empty()) {
    const auto& fit = a.fits[static_cast<std::size_t>(o.referenceColumn - 1)];
    std::printf("\nupper residual %.5g%+.5gi, lower residual %.5g%+.5gi\n",
                fit.upperResidual.real(), fit.upperResidual.imag(), fit.lowerResidual.real(),
                fit.lowerResidual.imag());
  }
}

bool EvenlySpaced(const std::vector<double>& x) {
  if (x.size() < 2) return true;
  const double step = x[1] - x[0];
  const double span = std::abs(x.back() - x.front());
  for (std::size_t k = 2; k < x.size(); ++k) {
    if (std::abs(x[k] - (x[0] + static_cast<double>(k) * step)) > 1e-9 * span) return false;
  }
  return true;
}

// The fitted FRFs as UFF functions, one per channel, carrying the nodes of
// the input functions where there were some.
std::vector<formats::Uff58> FitAsUff(const FrfInput& in, const Analysis& a) {
  std::vector<formats::Uff58> out;
  const bool even = EvenlySpaced(in.frequencyHz);
  for (std::size_t c = 0; c < a.fits.size(); ++c) {
    formats::Uff58 f = c < in.uff.size() ? in.uff[c] : formats::Uff58{};
    if (c >= in.uff.size()) {
      f.responseNode = static_cast<long long>(c + 1);
      f.functionId = static_cast<int>(c + 1);
    }
    f.idLines = {"frfcam modal fit", "channel " + std::to_string(c + 1), "NONE", "NONE", "NONE"};
    if (c >= in.uff.size()) f.functionType = formats::kUffFunctionFrf;  // else the input's type
    f.ordinateType = formats::kUffComplexDouble;
    f.evenAbscissa = even;
    f.abscissa = formats::UffAxis{18, 0, 0, 0, "Frequency", "Hz"};
    f.x = in.frequencyHz;
    f.y.assign(a.fits[c].synthesised.data(),
               a.fits[c].synthesised.data() + a.fits[c].synthesised.size());
    out.push_back(std::move(f));
  }
  return out;
}

void RunStability(StabilityOptions o) {
  stability::SelectionSettings& s = o.settings;
  if (!o.orders.empty()) ParseOrders(o.orders, &s.minOrder, &s.maxOrder);
  // Every output is checked before the work, which may take long.
  std::string why;
  if (!formats::CanWriteFile(o.output, &why)) throw CommandError(why);
  if (!o.writeUff.empty() && !formats::CanWriteFile(o.writeUff, &why)) throw CommandError(why);

  FrfInput in = LoadInput(o);
  const std::size_t lines = in.frequencyHz.size();
  const auto channels = static_cast<int>(in.frfs.cols());
  if (o.referenceColumn < 1 || o.referenceColumn > channels) {
    throw CommandError("--reference-column " + std::to_string(o.referenceColumn) + ": " + o.input +
                       " has " + std::to_string(channels) + " channel(s)");
  }

  AnalysisRequest request;
  request.omega.resize(static_cast<Eigen::Index>(lines));
  for (std::size_t i = 0; i < lines; ++i) {
    request.omega[static_cast<Eigen::Index>(i)] = kTwoPi * in.frequencyHz[i];
  }
  request.frfs = std::move(in.frfs);
  request.referenceChannel = o.referenceColumn - 1;
  request.settings = s;
  request.significanceFilter = !o.exactSelection;
  request.flag1 = o.flag1;
  request.flag2 = o.flag2;
  std::string problem = CheckAnalysis(request);
  if (problem.empty()) problem = CheckLinesForOrders(request);
  if (!problem.empty()) throw CommandError(o.input + ": " + problem);
  std::printf("%zu line(s) of %d channel(s) from %s, orders %d..%d, record fit to channel %d\n",
              lines, channels, o.input.c_str(), s.minOrder, s.maxOrder, o.referenceColumn);
  for (const std::string& note : in.notes) std::printf("  %s\n", note.c_str());
  if (!in.names.empty()) {
    std::printf("  channel  response / reference\n");
    for (std::size_t c = 0; c < in.names.size(); ++c) {
      std::printf("  %7zu  %s\n", c + 1, in.names[c].c_str());
    }
  }
  std::fflush(stdout);
  const auto start = std::chrono::steady_clock::now();
  const Analysis a = RunAnalysis(request);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
  std::printf("fitted orders %d..%d in %.2f s\n", s.minOrder, s.maxOrder,
              static_cast<double>(ms) / 1000.0);

  if (!formats::WriteFileWhole(o.output, a.record.SerializeAsString(), &why)) {
    throw CommandError(why);
  }
  PrintModes(a, o);
  std::printf("\nrecord written to %s\n", o.output.c_str());
  if (!o.writeUff.empty()) {
    if (a.fits.empty()) {
      throw CommandError("--write-uff: no mode was selected, so there is no fit to write");
    }
    if (!formats::WriteUff58File(o.writeUff, FitAsUff(in, a), o.binaryUff, &why)) {
      throw CommandError(why);
    }
    std::printf("fitted FRFs written to %s (%zu function(s), dataset 58%s)\n", o.writeUff.c_str(),
                a.fits.size(), o.binaryUff ? "b" : "");
  }
}

struct SynthFrfOptions {
  std::string output;
  int lines = 1000;
  int channels = 4;
  double noise = 0.002;
  unsigned seed = 1;
};

// The synthetic FRFs as UFF functions: channel c is the response of node
// c + 1 (+Z) to a unit force at the reference.
std::vector<formats::Uff58> SynthAsUff(const FrfTable& table) {
  std::vector<formats::Uff58> out;
  const bool even = EvenlySpaced(table.frequencyHz);
  for (std::size_t c = 0; c < table.channels.size(); ++c) {
    formats::Uff58 f;
    f.idLines = {"frfcam synth-frf: five-mode system", "channel " + std::to_string(c + 1), "NONE",
                 "NONE", "NONE"};
    f.functionId = static_cast<int>(c + 1);
    f.responseEntity = "response";
    f.responseNode = static_cast<long long>(c + 1);
    f.responseDirection = 3;
    f.referenceEntity = "reference";
    f.referenceNode = 0;
    f.referenceDirection = 0;
    f.evenAbscissa = even;
    f.numerator = {0, 0, 0, 0, "Response", "response unit"};
    f.denominator = {0, 0, 0, 0, "Force", "force unit"};
    f.x = table.frequencyHz;
    f.y = table.channels[c];
    out.push_back(std::move(f));
  }
  return out;
}

void RunSynthFrf(const SynthFrfOptions& o) {
  const std::string ext = Extension(o.output);
  const bool uff = ext == ".uff" || ext == ".unv";
  if (!uff && ext != ".csv") {
    throw CommandError(o.output + ": synth-frf writes .csv, or .uff/.unv (UFF dataset 58)");
  }
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
  if (uff) {
    std::string why;
    if (!formats::WriteUff58File(o.output, SynthAsUff(table), false, &why)) {
      throw CommandError(why);
    }
  } else {
    WriteFrfCsv(o.output, table);
  }

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
  stability::SelectionSettings& s = so->settings;
  CLI::App* stab = app.add_subcommand(
      "stability", "Stabilisation chart, selected modes and residues of measured FRFs");
  stab->add_option("input", so->input, "FRFs: .csv, .uff/.unv, .npz or .npy (formats below)")
      ->required();
  stab->add_option("-o,--output", so->output, "record file to write (replaced)")->required();
  stab->add_option("--orders", so->orders,
                   "model order range LOW:HIGH [default: " + std::to_string(s.minOrder) + ":" +
                       std::to_string(s.maxOrder) + "]");
  stab->add_option("--selection-tol", s.selectionTolerance,
                   "relative frequency tolerance of the mode selection")
      ->capture_default_str();
  stab->add_option("--min-stable", s.minStableCount,
                   "orders a pole must recur in to be selected (its own included)")
      ->capture_default_str();
  stab->add_option("--freq-tol", s.frequencyTolerance,
                   "relative frequency change still stable between orders")
      ->capture_default_str();
  stab->add_option("--damp-tol", s.dampingTolerance,
                   "relative damping change still stable between orders")
      ->capture_default_str();
  stab->add_option("--max-damping", s.maxDamping, "largest damping ratio of a physical mode")
      ->capture_default_str();
  stab->add_option("--min-significance", s.minSignificance,
                   "how much a mode must lower the fit's residual, in residuals per line")
      ->capture_default_str();
  stab->add_flag("--exact-selection", so->exactSelection,
                 "select by the recurrence rule alone, as the library's ComputeStability");
  stab->add_option("--reference-column", so->referenceColumn,
                   "channel (1 = first) whose fit the record holds")
      ->capture_default_str();
  stab->add_option("--response", so->responses,
                   "UFF input: take the FRFs of this response NODE or NODE:DIR (e.g. 101:+Z); "
                   "repeatable");
  stab->add_option("--function-type", so->functionTypes,
                   "UFF input: fit the functions of this type (record 6) instead of the FRFs "
                   "(type 4), e.g. 5 for transmissibilities; repeatable");
  stab->add_option("--frequencies", so->frequencies, ".npy input: the frequency vector (Hz)");
  stab->add_option("--write-uff", so->writeUff,
                   "also write the fitted FRFs of every channel as UFF dataset 58");
  stab->add_flag("--binary-uff", so->binaryUff, "write --write-uff as binary 58b");
  stab->add_flag("--flag1", so->flag1,
                 "also fit the reference column's numerator at the highest order, and store that "
                 "model FRF in the record (frfnum)");
  stab->add_flag("--flag2", so->flag2,
                 "fit the common denominator with the reference column once more as an extra "
                 "channel, weighting it above the others in the poles");
  stab->footer(kInputFormats);
  stab->callback([so] { RunStability(*so); });

  auto co = std::make_shared<ChartOptions>();
  CLI::App* chart = app.add_subcommand(
      "chart", "Draw the stabilisation chart of a record as SVG or PNG (no Python needed)");
  chart->add_option("record", co->record, "record written by 'frfcam stability'")->required();
  chart->add_option("-o,--output", co->output, "chart file: .svg or .png")->required();
  chart->add_option("--frf", co->frf,
                    "the measured FRFs (any stability input) to draw their summed magnitude");
  chart->add_option("--frequencies", co->frequencies, "with a .npy --frf: its frequency vector");
  chart->add_option("--response", co->responses, "with a UFF --frf: the responses to sum");
  chart->add_option("--function-type", co->functionTypes,
                    "with a UFF --frf: sum functions of this type instead of the FRFs");
  chart->add_option("--size", co->size, "PNG size WIDTHxHEIGHT")->capture_default_str();
  chart->callback([co] { RunChart(*co); });

  auto sy = std::make_shared<SynthFrfOptions>();
  CLI::App* synth = app.add_subcommand(
      "synth-frf", "Write the FRFs of a known five-mode system as a table for `stability`");
  synth->add_option("output", sy->output, "file to write: .csv, or .uff/.unv (dataset 58)")
      ->required();
  synth->add_option("--lines", sy->lines, "spectral lines (10 to 500 Hz)")
      ->capture_default_str()
      ->check(CLI::Range(2, 10000000));
  synth->add_option("--channels", sy->channels, "channels")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  synth->add_option("--noise", sy->noise, "relative noise level (0.002 = 0.2 %)")
      ->capture_default_str()
      ->check(NonNegative());
  synth->add_option("--seed", sy->seed, "noise seed")->capture_default_str();
  synth->callback([sy] { RunSynthFrf(*sy); });
}

}  // namespace frfcam::cli
