// The stability fit's own elementary functions against the C runtime's, per
// call, on the argument ranges the fit uses (angles up to a few hundred
// radians, moduli near 1): runs alternate, minima and medians of 9 rounds,
// and the ratio portable / runtime.
//
//   bench_portable_math
#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <functional>
#include <vector>

#include "stability/portable_math.h"

namespace {

namespace portable = frfcam::stability::portable;
using Clock = std::chrono::steady_clock;

constexpr int kCalls = 1 << 20;
constexpr int kRounds = 9;

// Nanoseconds per call of f over the arguments; the sum of the results
// goes to *sink so that nothing is optimised away.
double TimePerCall(const std::function<double(double, double)>& f, const std::vector<double>& x,
                   const std::vector<double>& y, double* sink) {
  const auto start = Clock::now();
  double sum = 0.0;
  for (std::size_t i = 0; i < x.size(); ++i) sum += f(x[i], y[i]);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  *sink += sum;
  return seconds * 1e9 / static_cast<double>(x.size());
}

struct Stats {
  double best, median;
};
Stats Summarise(std::vector<double> t) {
  std::sort(t.begin(), t.end());
  return {t.front(), t[t.size() / 2]};
}

}  // namespace

int main() {
  std::vector<double> angle(kCalls), re(kCalls), im(kCalls), positive(kCalls), exponent(kCalls);
  std::uint64_t state = 0x9e3779b97f4a7c15ULL;
  const auto unit = [&state] {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return static_cast<double>(state >> 11) * 0x1p-53;
  };
  for (int i = 0; i < kCalls; ++i) {
    angle[i] = 400.0 * unit();
    re[i] = 2.0 * unit() - 1.0;
    im[i] = 2.0 * unit() - 1.0;
    positive[i] = 0.5 + unit();
    exponent[i] = 20.0 * unit() - 10.0;
  }
  struct Row {
    const char* name;
    std::function<double(double, double)> mine, runtime;
    const std::vector<double>& x;
    const std::vector<double>& y;
  };
  const Row rows[] = {
      {"polar (sin+cos)",
       [](double t, double) {
         const std::complex<double> z = portable::Polar(1.0, t);
         return z.real() + z.imag();
       },
       [](double t, double) {
         const std::complex<double> z = std::polar(1.0, t);
         return z.real() + z.imag();
       },
       angle, angle},
      {"atan2", [](double y, double x) { return portable::Atan2(y, x); },
       [](double y, double x) { return std::atan2(y, x); }, im, re},
      {"log", [](double x, double) { return portable::Log(x); },
       [](double x, double) { return std::log(x); }, positive, positive},
      {"exp", [](double x, double) { return portable::Exp(x); },
       [](double x, double) { return std::exp(x); }, exponent, exponent},
      {"hypot", [](double x, double y) { return portable::Hypot(x, y); },
       [](double x, double y) { return std::hypot(x, y); }, re, im},
  };
  double sink = 0.0;
  std::printf("%d calls per round, %d rounds, alternating (ns per call)\n", kCalls, kRounds);
  for (const Row& row : rows) {
    std::vector<double> mine, runtime;
    TimePerCall(row.mine, row.x, row.y, &sink);  // warm-up
    TimePerCall(row.runtime, row.x, row.y, &sink);
    for (int r = 0; r < kRounds; ++r) {
      mine.push_back(TimePerCall(row.mine, row.x, row.y, &sink));
      runtime.push_back(TimePerCall(row.runtime, row.x, row.y, &sink));
    }
    const Stats a = Summarise(mine), b = Summarise(runtime);
    std::printf(
        "  %-16s portable min %6.2f median %6.2f   runtime min %6.2f median %6.2f   "
        "ratio %.2f (min) %.2f (median)\n",
        row.name, a.best, a.median, b.best, b.median, a.best / b.best, a.median / b.median);
  }
  std::printf("(checksum %g)\n", sink);
  return 0;
}
