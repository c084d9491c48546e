// The estimator's order sweep and ComputeStability at the sizes camera data
// brings, each against a baseline timed in the same run:
//   1. the bench problem (4000 lines, 16 channels, orders 2..80, 0.2 % noise):
//      the library's sweep against the numpy sweep of bench/lscf_baseline.py
//      (Toeplitz sums, Cholesky per order, numpy.linalg.eigvals), runs
//      alternating;
//   2. the roots of that sweep: warm-started Aberth against the companion
//      eigenvalues, time and largest relative difference;
//   3. a sweep to order 400 on 1000 lines, 16 channels;
//   4. ComputeStability with 5,000 / 10,000 / 20,000 channels x 500 lines,
//      orders 2..60: time and the memory the call adds beyond its inputs
//      (each in a child process, peak resident set after the inputs exist).
//
//   bench_stability [--quick|--channels]   (sections 1-2 / section 4 only)
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "stability/driver.h"
#include "stability/estimator.h"
#include "stability/lscf.h"
#include "stability/roots.h"
#include "stability/synthetic.h"

#ifndef FRFCAM_BENCH_DIR
#define FRFCAM_BENCH_DIR "bench"
#endif

namespace {

using namespace frfcam::stability;
using Clock = std::chrono::steady_clock;

double Seconds(const std::function<void()>& run) {
  const auto start = Clock::now();
  run();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Stats {
  double best = 0.0, median = 0.0;
};
Stats Summarise(std::vector<double> t) {
  std::sort(t.begin(), t.end());
  return {t.front(), t[t.size() / 2]};
}

std::vector<std::int32_t> Range(int lo, int hi) {
  std::vector<std::int32_t> orders;
  for (int n = lo; n <= hi; ++n) orders.push_back(n);
  return orders;
}

// The numpy sweep: writes the data, runs the script `runs` times over it.
bool NumpySweep(const SyntheticFrfs& data, int nMin, int nMax, int runs, Stats* stats) {
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("frfcam-lscf-" + std::to_string(::getpid()) + ".bin"))
                               .string();
  {
    std::ofstream out(path, std::ios::binary);
    const std::int64_t sizes[2] = {data.omega.size(), data.matrix.cols()};
    out.write(reinterpret_cast<const char*>(sizes), sizeof sizes);
    out.write(reinterpret_cast<const char*>(data.omega.data()), 8 * data.omega.size());
    out.write(reinterpret_cast<const char*>(data.matrix.data()), 16 * data.matrix.size());
  }
  const std::string command = "/usr/bin/python3 " FRFCAM_BENCH_DIR "/lscf_baseline.py " + path +
                              " " + std::to_string(nMin) + " " + std::to_string(nMax) + " " +
                              std::to_string(runs);
  FILE* pipe = ::popen(command.c_str(), "r");
  int poles = 0;
  const bool ok =
      pipe != nullptr && std::fscanf(pipe, "%lf %lf %d", &stats->best, &stats->median, &poles) == 3;
  if (pipe != nullptr) ::pclose(pipe);
  std::filesystem::remove(path);
  return ok;
}

void BenchProblem() {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(4000, 16, 0.002));
  const std::vector<std::int32_t> orders = Range(2, 80);
  const auto ours = [&] {
    Estimate(data.omega, data.frf, data.matrix, orders, 0.01, 0.05, false, false);
  };
  ours();  // warm-up: worker threads, page faults
  std::vector<double> mine, numpy;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 3; ++i) mine.push_back(Seconds(ours));
    Stats s;
    if (NumpySweep(data, 2, 80, 1, &s)) numpy.push_back(s.best);
  }
  const Stats a = Summarise(mine);
  std::printf("1. sweep, 4000 lines x 16 channels, orders 2..80\n");
  std::printf("   library      min %8.2f ms  median %8.2f ms\n", a.best * 1e3, a.median * 1e3);
  if (numpy.empty()) {
    std::printf("   numpy baseline not available (/usr/bin/python3 with numpy)\n");
    return;
  }
  const Stats b = Summarise(numpy);
  std::printf("   numpy        min %8.2f ms  median %8.2f ms\n", b.best * 1e3, b.median * 1e3);
  std::printf("   numpy / library: %.1f x (min), %.1f x (median)\n", b.best / a.best,
              b.median / a.median);
}

void Roots() {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(4000, 16, 0.002));
  const lscf::Band band = lscf::BandOf(data.omega);
  const ComplexMatrix basis = lscf::BuildBasis(lscf::ShiftedOmega(data.omega, band), band.dt, 80);
  const std::vector<RealVector> denominators = lscf::FitDenominators(basis, data.matrix, 2, 80);
  std::vector<roots::Roots> warm(denominators.size()), eig(denominators.size());
  int fallbacks = 0;
  const auto runWarm = [&] {
    fallbacks = 0;
    roots::Roots previous;
    for (std::size_t i = 0; i < denominators.size(); ++i) {
      roots::Method method;
      const Eigen::Index n = denominators[i].size() - 1;
      warm[i] = roots::PolynomialRoots(
          denominators[i], previous.size() ? roots::WarmStart(previous, n) : roots::Roots(),
          &method);
      fallbacks += method != roots::Method::kAberth;
      previous = warm[i];
    }
  };
  const auto runEig = [&] {
    for (std::size_t i = 0; i < denominators.size(); ++i) {
      eig[i] = roots::CompanionRoots(denominators[i]);
    }
  };
  std::vector<double> tw, te;
  for (int i = 0; i < 5; ++i) {
    tw.push_back(Seconds(runWarm));
    te.push_back(Seconds(runEig));
  }
  double worst = 0.0;
  for (std::size_t i = 0; i < warm.size(); ++i) {
    for (Eigen::Index k = 0; k < warm[i].size(); ++k) {
      double best = 1e300;
      for (Eigen::Index j = 0; j < eig[i].size(); ++j) {
        best = std::min(best, std::abs(warm[i][k] - eig[i][j]) / std::abs(eig[i][j]));
      }
      worst = std::max(worst, best);
    }
  }
  const Stats a = Summarise(tw), b = Summarise(te);
  std::printf("2. roots of orders 2..80, one thread\n");
  std::printf("   warm Aberth  min %8.2f ms  median %8.2f ms  (%d fallbacks)\n", a.best * 1e3,
              a.median * 1e3, fallbacks);
  std::printf("   companion    min %8.2f ms  median %8.2f ms  (eig / Aberth %.1f x)\n",
              b.best * 1e3, b.median * 1e3, b.best / a.best);
  std::printf("   largest relative difference %.1e\n", worst);
}

void HighOrders() {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(1000, 16, 0.002));
  const std::vector<std::int32_t> orders = Range(2, 400);
  std::vector<double> t;
  for (int i = 0; i < 3; ++i) {
    t.push_back(Seconds(
        [&] { Estimate(data.omega, data.frf, data.matrix, orders, 0.01, 0.05, false, false); }));
  }
  const Stats a = Summarise(t);
  std::printf("3. sweep, 1000 lines x 16 channels, orders 2..400\n");
  std::printf("   library      min %8.2f ms  median %8.2f ms\n", a.best * 1e3, a.median * 1e3);
}

long StatusKiB(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + std::strlen(key));
  }
  return -1;
}

// In a child: inputs, then one ComputeStability; writes ms and KiB to `fd`.
void ManyChannelsChild(int channels, int fd) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(500, channels, 0.002));
  const std::string path = "/dev/null";  // refused quickly; the record is small anyway
  StabilityRequest r;
  r.outputPath = path.c_str();
  r.frf = reinterpret_cast<const double*>(data.frf.data());
  r.frfMatrix = reinterpret_cast<const double*>(data.matrix.data());
  r.numChannels = channels;
  r.frequencies = data.omega.data();
  r.numLines = 500;
  r.minOrder = 2;
  r.maxOrder = 60;
  r.selectionTolerance = 0.01;
  r.minStableCount = 5;
  r.frequencyTolerance = 0.01;
  r.dampingTolerance = 0.05;
  // Memory the synthesis freed goes back to the system first, so that the
  // call cannot reuse it unseen.
  ::malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak to the current size
  const long before = StatusKiB("VmRSS:");
  StageTimes times;
  ComputeStability(r, &times);
  const long peak = StatusKiB("VmHWM:");
  const double values[3] = {std::chrono::duration<double, std::milli>(times.total).count(),
                            static_cast<double>(peak - before),
                            static_cast<double>(data.matrix.size()) * 16.0 / 1024.0};
  static_cast<void>(::write(fd, values, sizeof values));
}

void ManyChannels() {
  std::printf("4. ComputeStability, 500 lines, orders 2..60\n");
  std::printf("   channels   time ms   added MiB   inputs MiB   added / inputs\n");
  for (int channels : {5000, 10000, 20000}) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(fds[0]);
      // The call's own timing line and message go nowhere.
      std::freopen("/dev/null", "w", stdout);
      std::freopen("/dev/null", "w", stderr);
      ManyChannelsChild(channels, fds[1]);
      ::_exit(0);
    }
    ::close(fds[1]);
    double values[3] = {0, 0, 0};
    const bool ok = ::read(fds[0], values, sizeof values) == sizeof values;
    ::close(fds[0]);
    ::waitpid(pid, nullptr, 0);
    if (!ok) continue;
    std::printf("   %8d  %8.0f   %9.1f   %10.1f   %6.2f\n", channels, values[0], values[1] / 1024,
                values[2] / 1024, values[1] / values[2]);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  if (argc > 1 && std::strcmp(argv[1], "--channels") == 0) {
    ManyChannels();
    return 0;
  }
  BenchProblem();
  Roots();
  if (quick) return 0;
  HighOrders();
  ManyChannels();
  return 0;
}
