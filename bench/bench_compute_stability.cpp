// The whole ComputeStability call on a known five-mode system (4000 lines,
// 16 channels, orders 2..80, 0.2 % noise): its total time and the share of
// estimation, pole selection, residue fit, record building and writing.
//
//   bench_compute_stability [runs]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "stability/driver.h"
#include "stability/synthetic.h"
#include "talproto.pb.h"

namespace {

using namespace frfcam::stability;

double Ms(std::chrono::nanoseconds t) {
  return std::chrono::duration<double, std::milli>(t).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(4000, 16, 0.002));
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("frfcam-bench-" + std::to_string(::getpid()) + ".pb"))
                               .string();

  StabilityRequest request;
  request.outputPath = path.c_str();
  request.frf = reinterpret_cast<const double*>(data.frf.data());
  request.frfMatrix = reinterpret_cast<const double*>(data.matrix.data());
  request.numChannels = static_cast<int>(data.matrix.cols());
  request.frequencies = data.omega.data();
  request.numLines = static_cast<int>(data.omega.size());
  request.minOrder = 2;
  request.maxOrder = 80;
  request.selectionTolerance = 0.01;
  request.minStableCount = 5;
  request.frequencyTolerance = 0.01;
  request.dampingTolerance = 0.05;

  // The call prints its own timing line; the first run warms up.
  std::vector<StageTimes> all;
  for (int i = 0; i <= runs; ++i) {
    StageTimes t;
    if (ComputeStability(request, &t) != kStabilityOk) {
      std::fprintf(stderr, "ComputeStability failed\n");
      return 1;
    }
    if (i > 0) all.push_back(t);
  }
  const std::uintmax_t bytes = std::filesystem::file_size(path);
  talproto::stabChartData record;
  {
    std::ifstream in(path, std::ios::binary);
    record.ParseFromIstream(&in);
  }
  std::filesystem::remove(path);

  std::sort(all.begin(), all.end(),
            [](const StageTimes& a, const StageTimes& b) { return a.total < b.total; });
  const StageTimes& median = all[all.size() / 2];
  const double total = Ms(median.total);
  std::printf("\nComputeStability: 4000 lines, 16 channels, orders 2..80, 0.2 %% noise\n");
  std::printf("  median of %d runs  %9.2f ms  (fastest %.2f ms)\n", runs, total,
              Ms(all.front().total));
  std::printf("  record %ju bytes, %d orders in the chart, %d modes selected\n", bytes,
              record.orderinfo_size(), record.selected_poles_size());
  const struct {
    const char* name;
    std::chrono::nanoseconds t;
  } stages[] = {{"estimation", median.estimation},
                {"selection", median.selection},
                {"residues", median.residues},
                {"record", median.record},
                {"writing", median.writing}};
  for (const auto& s : stages) {
    std::printf("  %-12s %9.3f ms  %6.2f %%\n", s.name, Ms(s.t), 100.0 * Ms(s.t) / total);
  }
  return 0;
}
