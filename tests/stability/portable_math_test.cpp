#include "stability/portable_math.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>

#include "support/test_support.h"

namespace frfcam::stability::portable {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kPi = 0x1.921fb54442d18p+1;

// Uniform doubles from a fixed integer generator, the same on every platform.
class Inputs {
 public:
  double Unit() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return static_cast<double>(state_ >> 11) * 0x1p-53;
  }
  double Between(double lo, double hi) { return lo + (hi - lo) * Unit(); }
  // Spread over binary exponents [-range, range) with either sign.
  double Wide(int range) {
    const double m = Between(0.5, 1.0);
    const int e = static_cast<int>(Unit() * 2 * range) - range;
    return (Unit() < 0.5 ? -m : m) * std::ldexp(1.0, e);
  }

 private:
  std::uint64_t state_ = 0x9e3779b97f4a7c15ULL;
};

// Distance in units in the last place, counting across zero.
double Ulps(double a, double b) {
  if (a == b || (std::isnan(a) && std::isnan(b))) return 0.0;
  if (std::isnan(a) || std::isnan(b)) return kInf;
  const auto key = [](double v) {
    const auto bits = std::bit_cast<std::int64_t>(v);
    return bits < 0 ? std::numeric_limits<std::int64_t>::min() - bits : bits;
  };
  return std::fabs(static_cast<double>(key(a) - key(b)));
}

double PortableSin(double x) {
  double s, c;
  SinCos(x, &s, &c);
  return s;
}

double PortableCos(double x) {
  double s, c;
  SinCos(x, &s, &c);
  return c;
}

// Against glibc, whose functions are within an ulp. (mingw-w64's are no
// such reference: its sin and cos are thousands of ulps off near their
// zeros, the very difference these functions remove.)
TEST(PortableMath, WithinTwoUlpsOfTheCRuntimeOverWideRanges) {
  FRFCAM_SKIP_ON_WINDOWS("the C runtime's functions are not accurate to an ulp there");
  Inputs in;
  enum { kSin, kCos, kAtan2, kLog, kExp, kHypot };
  double worst[6] = {}, at[6] = {};  // ulps, and the input where they were
  const auto add = [&](int k, double got, double want, double x) {
    const double u = Ulps(got, want);
    at[k] = u > worst[k] ? x : at[k];
    worst[k] = std::max(worst[k], u);
  };
  for (int i = 0; i < 200000; ++i) {
    // Angles up to the end of the exact reduction (2^19 pi/2), small ones,
    // and ones next to multiples of pi/2 where the results nearly vanish.
    const double angles[] = {in.Between(-8.2e5, 8.2e5), in.Wide(19),
                             std::floor(in.Between(-5e5, 5e5)) * (kPi / 2)};
    for (double x : angles) {
      add(kSin, PortableSin(x), std::sin(x), x);
      add(kCos, PortableCos(x), std::cos(x), x);
    }
    const double y = in.Wide(1000), x = in.Wide(1000);
    add(kAtan2, Atan2(y, x), std::atan2(y, x), y / x);
    const double ys = in.Between(-1, 1), xs = in.Between(-1, 1);
    add(kAtan2, Atan2(ys, xs), std::atan2(ys, xs), ys / xs);
    const double positive = std::fabs(in.Wide(1022));
    add(kLog, Log(positive), std::log(positive), positive);
    const double nearOne = in.Between(0.7, 1.4);
    add(kLog, Log(nearOne), std::log(nearOne), nearOne);
    const double e = in.Between(-745.0, 709.7);
    add(kExp, Exp(e), std::exp(e), e);
    const double small = in.Wide(20);
    add(kExp, Exp(small), std::exp(small), small);
    const double a = in.Wide(1020), b = a * in.Wide(40);
    add(kHypot, Hypot(a, b), std::hypot(a, b), a);
  }
  const char* names[] = {"sin", "cos", "atan2", "log", "exp", "hypot"};
  for (int k = 0; k < 6; ++k) EXPECT_LE(worst[k], 2.0) << names[k] << " at " << at[k];
}

// Exact or correctly rounded values that hold on every platform, and C's
// rules for zeros, infinities and NaN. Zero ulps means the same bits (signed
// zeros told apart), or NaN for NaN. sin of the double nearest pi is pi - that
// double; Log(2^-1074) is -1074 ln 2; Exp(-745.1) is 2^-1074 rounded once;
// 1e-600 underflows.
TEST(PortableMath, KnownValuesAndSpecialCases) {
  constexpr double kMax = std::numeric_limits<double>::max();
  // clang-format off
  const struct { double got, want, ulps; } rows[] = {
      {PortableSin(0.0), 0.0, 0}, {PortableCos(0.0), 1.0, 0}, {PortableSin(-0.0), -0.0, 0},
      {PortableSin(kInf), kNaN, 0}, {PortableCos(kInf), kNaN, 0}, {PortableSin(-kInf), kNaN, 0},
      {PortableCos(-kInf), kNaN, 0}, {PortableSin(kNaN), kNaN, 0}, {PortableCos(kNaN), kNaN, 0},
      {PortableSin(kPi), 0x1.1a62633145c07p-53, 1}, {PortableCos(kPi), -1.0, 0},
      {Atan2(1.0, 1.0), kPi / 4, 0}, {Atan2(0.0, -1.0), kPi, 0}, {Atan2(-0.0, -1.0), -kPi, 0},
      {Atan2(-0.0, 0.0), -0.0, 0}, {Atan2(5.0, 0.0), kPi / 2, 0}, {Atan2(1.0, -kInf), kPi, 0},
      {Atan2(kInf, -kInf), 3 * kPi / 4, 0}, {Atan2(1e-300, 1e300), 0.0, 0},
      {Atan2(kMax, kMax), kPi / 4, 0}, {Atan2(0x1p-1074, 0x1p-1074), kPi / 4, 0},
      {Atan2(kNaN, 1.0), kNaN, 0}, {Atan2(1.0, kNaN), kNaN, 0},
      {Log(0.0), -kInf, 0}, {Log(kInf), kInf, 0}, {Log(-1.0), kNaN, 0}, {Log(-kInf), kNaN, 0},
      {Log(kNaN), kNaN, 0}, {Log(0x1p-1074), -0x1.74385446d71c3p+9, 1},
      {Exp(kInf), kInf, 0}, {Exp(-kInf), 0.0, 0}, {Exp(kNaN), kNaN, 0}, {Exp(709.79), kInf, 0},
      {Exp(-745.2), 0.0, 0}, {Exp(-745.1), 0x1p-1074, 0},
      {Exp(-708.5), Exp(-354.25) * Exp(-354.25), 4},
      {Hypot(3.0, 4.0), 5.0, 0}, {Hypot(-3e300, 4e300), 5e300, 0},
      {Hypot(3e-310, -4e-310), 5e-310, 0}, {Hypot(1e300, 1e-300), 1e300, 0},
      {Hypot(kInf, kNaN), kInf, 0}, {Hypot(kNaN, 1.0), kNaN, 0}, {Hypot(kMax, 0.0), kMax, 0}};
  // clang-format on
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const auto& r = rows[i];
    if (r.ulps == 0) {
      EXPECT_TRUE(std::bit_cast<std::uint64_t>(r.got) == std::bit_cast<std::uint64_t>(r.want) ||
                  (std::isnan(r.got) && std::isnan(r.want)))
          << "row " << i << ": " << r.got << ", want " << r.want;
    } else {
      EXPECT_LE(Ulps(r.got, r.want), r.ulps) << "row " << i;
    }
  }
  EXPECT_TRUE(Exp(709.78) > 1.79e308 && Exp(709.78) < kInf);
}

// What the functions are for: the same bits on every platform. A hash of
// each function's results over fixed inputs, recorded on Linux; the Windows
// build must reproduce it. A deliberate change to a function changes its
// hash here too.
TEST(PortableMath, SameBitsOnEveryPlatform) {
  const auto hashOf = [](const std::function<double(Inputs&)>& one) {
    Inputs in;
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (int i = 0; i < 20000; ++i) {
      h ^= std::bit_cast<std::uint64_t>(one(in));
      h *= 0x100000001b3ULL;
    }
    return h;
  };
  const struct {
    const char* name;
    std::uint64_t expected;
    std::function<double(Inputs&)> one;
  } rows[] = {
      {"sin", 0x658a8d82a457ae29ULL, [](Inputs& in) { return PortableSin(in.Between(-1e4, 1e4)); }},
      {"cos", 0x7b1833ee8e8e3a63ULL, [](Inputs& in) { return PortableCos(in.Between(-1e4, 1e4)); }},
      {"atan2", 0x4a9b1ece80e8f746ULL, [](Inputs& in) { return Atan2(in.Wide(60), in.Wide(60)); }},
      {"log", 0xc6790cfdff814d4eULL, [](Inputs& in) { return Log(std::fabs(in.Wide(1000))); }},
      {"exp", 0x9fca2c7d920b844cULL, [](Inputs& in) { return Exp(in.Between(-745.0, 709.0)); }},
      {"hypot", 0x2e642c8f742a4e38ULL,
       [](Inputs& in) { return Hypot(in.Wide(500), in.Wide(500)); }},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(hashOf(row.one), row.expected) << row.name << std::hex << " 0x" << hashOf(row.one);
  }
}

}  // namespace
}  // namespace frfcam::stability::portable
