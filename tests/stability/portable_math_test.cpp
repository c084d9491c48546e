#include "stability/portable_math.h"

#include <gtest/gtest.h>

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

struct Worst {
  double ulps = 0.0;
  double at = 0.0;
  void Add(double got, double want, double x) {
    const double u = Ulps(got, want);
    if (u > ulps) {
      ulps = u;
      at = x;
    }
  }
};

// Against glibc, whose functions are within an ulp. (mingw-w64's are no
// such reference: its sin and cos are thousands of ulps off near their
// zeros, the very difference these functions remove.)
TEST(PortableMath, WithinTwoUlpsOfTheCRuntimeOverWideRanges) {
  FRFCAM_SKIP_ON_WINDOWS("the C runtime's functions are not accurate to an ulp there");
  Inputs in;
  Worst sinW, cosW, atanW, logW, expW, hypotW;
  for (int i = 0; i < 200000; ++i) {
    // Angles up to the end of the exact reduction (2^19 pi/2), small ones,
    // and ones next to multiples of pi/2 where the results nearly vanish.
    const double angles[] = {in.Between(-8.2e5, 8.2e5), in.Wide(19),
                             std::floor(in.Between(-5e5, 5e5)) * (kPi / 2)};
    for (double x : angles) {
      sinW.Add(PortableSin(x), std::sin(x), x);
      cosW.Add(PortableCos(x), std::cos(x), x);
    }
    const double y = in.Wide(1000), x = in.Wide(1000);
    atanW.Add(Atan2(y, x), std::atan2(y, x), y / x);
    const double ys = in.Between(-1, 1), xs = in.Between(-1, 1);
    atanW.Add(Atan2(ys, xs), std::atan2(ys, xs), ys / xs);
    const double positive = std::fabs(in.Wide(1022));
    logW.Add(Log(positive), std::log(positive), positive);
    const double nearOne = in.Between(0.7, 1.4);
    logW.Add(Log(nearOne), std::log(nearOne), nearOne);
    const double e = in.Between(-745.0, 709.7);
    expW.Add(Exp(e), std::exp(e), e);
    const double small = in.Wide(20);
    expW.Add(Exp(small), std::exp(small), small);
    const double a = in.Wide(1020), b = a * in.Wide(40);
    hypotW.Add(Hypot(a, b), std::hypot(a, b), a);
  }
  const struct {
    const char* name;
    const Worst& worst;
  } rows[] = {{"sin", sinW}, {"cos", cosW}, {"atan2", atanW},
              {"log", logW}, {"exp", expW}, {"hypot", hypotW}};
  for (const auto& row : rows) {
    EXPECT_LE(row.worst.ulps, 2.0) << row.name << " at " << row.worst.at;
  }
}

// Exact or correctly rounded values that hold on every platform, and C's
// rules for zeros, infinities and NaN.
TEST(PortableMath, KnownValuesAndSpecialCases) {
  double s, c;
  SinCos(0.0, &s, &c);
  EXPECT_EQ(std::bit_cast<std::uint64_t>(s), 0u);
  EXPECT_EQ(c, 1.0);
  SinCos(-0.0, &s, &c);
  EXPECT_TRUE(s == 0.0 && std::signbit(s));
  for (double bad : {kInf, -kInf, kNaN}) {
    SinCos(bad, &s, &c);
    EXPECT_TRUE(std::isnan(s) && std::isnan(c)) << bad;
  }
  SinCos(kPi, &s, &c);  // sin of the double nearest pi is pi - that double
  EXPECT_LE(Ulps(s, 0x1.1a62633145c07p-53), 1.0);
  EXPECT_EQ(c, -1.0);

  EXPECT_EQ(Atan2(1.0, 1.0), kPi / 4);
  EXPECT_EQ(Atan2(0.0, -1.0), kPi);
  EXPECT_EQ(Atan2(-0.0, -1.0), -kPi);
  EXPECT_TRUE(Atan2(-0.0, 0.0) == 0.0 && std::signbit(Atan2(-0.0, 0.0)));
  EXPECT_EQ(Atan2(5.0, 0.0), kPi / 2);
  EXPECT_EQ(Atan2(kInf, -kInf), 3 * kPi / 4);
  EXPECT_EQ(Atan2(1.0, -kInf), kPi);
  EXPECT_EQ(Atan2(1e-300, 1e300), 0.0);  // 1e-600 underflows
  EXPECT_EQ(Atan2(std::numeric_limits<double>::max(), std::numeric_limits<double>::max()), kPi / 4);
  EXPECT_EQ(Atan2(0x1p-1074, 0x1p-1074), kPi / 4);
  EXPECT_TRUE(std::isnan(Atan2(kNaN, 1.0)) && std::isnan(Atan2(1.0, kNaN)));

  EXPECT_EQ(Log(0.0), -kInf);
  EXPECT_EQ(Log(kInf), kInf);
  EXPECT_TRUE(std::isnan(Log(-1.0)) && std::isnan(Log(-kInf)) && std::isnan(Log(kNaN)));
  // The smallest subnormal, 2^-1074: -1074 ln 2.
  EXPECT_LE(Ulps(Log(0x1p-1074), -0x1.74385446d71c3p+9), 1.0);

  EXPECT_EQ(Exp(kInf), kInf);
  EXPECT_EQ(Exp(-kInf), 0.0);
  EXPECT_TRUE(std::isnan(Exp(kNaN)));
  EXPECT_EQ(Exp(709.79), kInf);
  EXPECT_LT(Exp(709.78), kInf);
  EXPECT_GT(Exp(709.78), 1.79e308);
  EXPECT_EQ(Exp(-745.2), 0.0);
  EXPECT_EQ(Exp(-745.1), 0x1p-1074);  // the smallest subnormal, rounded once
  EXPECT_LE(Ulps(Exp(-708.5), Exp(-354.25) * Exp(-354.25)), 4.0);

  EXPECT_EQ(Hypot(3.0, 4.0), 5.0);
  EXPECT_EQ(Hypot(-3e300, 4e300), 5e300);
  EXPECT_EQ(Hypot(3e-310, -4e-310), 5e-310);
  EXPECT_EQ(Hypot(1e300, 1e-300), 1e300);
  EXPECT_EQ(Hypot(kInf, kNaN), kInf);
  EXPECT_TRUE(std::isnan(Hypot(kNaN, 1.0)));
  EXPECT_EQ(Hypot(std::numeric_limits<double>::max(), 0.0), std::numeric_limits<double>::max());
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
