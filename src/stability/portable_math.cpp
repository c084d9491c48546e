#include "stability/portable_math.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

// Reductions are exact or carried in two doubles, the kernels are Taylor
// series truncated well below an ulp, and every constant is written out in
// hexadecimal so that no compiler or runtime rounds it differently.

namespace frfcam::stability::portable {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// pi/2 in three parts: the first two have 33 significant bits, so that k
// times either is exact for |k| < 2^20.
constexpr double kPiOver2Part1 = 0x1.921fb54400000p+0;
constexpr double kPiOver2Part2 = 0x1.0b4611a600000p-34;
constexpr double kPiOver2Part3 = 0x1.3198a2e037073p-69;
constexpr double kTwoOverPi = 0x1.45f306dc9c883p-1;

// ln 2 with 40 significant bits (k ln2hi is exact for |k| < 2^13) and the rest.
constexpr double kLn2Hi = 0x1.62e42fefa2000p-1;
constexpr double kLn2Lo = 0x1.9ef35793c7673p-41;
constexpr double kInvLn2 = 0x1.71547652b82fep+0;

constexpr double kPiHi = 0x1.921fb54442d18p+1;
constexpr double kPiLo = 0x1.1a62633145c07p-53;
constexpr double kPiOver2Hi = 0x1.921fb54442d18p+0;
constexpr double kPiOver2Lo = 0x1.1a62633145c07p-54;
constexpr double kPiOver4 = 0x1.921fb54442d18p-1;
constexpr double kThreePiOver4 = 0x1.2d97c7f3321d2p+1;

// atan(j/8) for j = 0..8, leading and trailing parts.
constexpr double kAtanEighthsHi[9] = {
    0.0,
    0x1.fd5ba9aac2f6ep-4,
    0x1.f5b75f92c80ddp-3,
    0x1.6f61941e4def1p-2,
    0x1.dac670561bb4fp-2,
    0x1.1e00babdefeb4p-1,
    0x1.4978fa3269ee1p-1,
    0x1.700a7c5784634p-1,
    0x1.921fb54442d18p-1,
};
constexpr double kAtanEighthsLo[9] = {
    0.0,
    -0x1.cd37686760c17p-59,
    0x1.8ab6e3cf7afbdp-57,
    -0x1.c63aae6f6e918p-56,
    0x1.a2b7f222f65e2p-56,
    -0x1.928df287a668fp-58,
    0x1.2419a87f2a458p-56,
    -0x1.8c34d25aadef6p-56,
    0x1.1a62633145c07p-55,
};

// Adding and subtracting 1.5 * 2^52 rounds |y| < 2^51 to the nearest
// integer (ties to even) in plain arithmetic.
double RoundToInteger(double y) {
  constexpr double kShifter = 0x1.8p52;
  return (y + kShifter) - kShifter;
}

// 2^k for -1022 <= k <= 1023, from its bits.
double PowerOfTwo(int k) {
  return std::bit_cast<double>(static_cast<std::uint64_t>(k + 1023) << 52);
}

// a + b = s + e exactly.
void TwoSum(double a, double b, double* s, double* e) {
  *s = a + b;
  const double bb = *s - a;
  *e = (a - (*s - bb)) + (b - bb);
}

// a * b = p + e exactly (Dekker's product; |a|, |b| well inside the range).
void TwoProduct(double a, double b, double* p, double* e) {
  constexpr double kSplitter = 0x1.0000002p27;  // 2^27 + 1
  *p = a * b;
  const double ta = kSplitter * a, tb = kSplitter * b;
  const double ah = ta - (ta - a), al = a - ah;
  const double bh = tb - (tb - b), bl = b - bh;
  *e = ((ah * bh - *p) + ah * bl + al * bh) + al * bl;
}

// sin and cos of rh + rl, |rh| <= pi/4 and |rl| tiny: Taylor series to
// x^19 and x^20 (the next terms are below 2^-70 of the result).
void KernelSinCos(double rh, double rl, double* s, double* c) {
  const double z = rh * rh;
  const double sinTail =
      -0x1.5555555555555p-3 +
      z * (0x1.1111111111111p-7 +
           z * (-0x1.a01a01a01a01ap-13 +
                z * (0x1.71de3a556c734p-19 +
                     z * (-0x1.ae64567f544e4p-26 +
                          z * (0x1.6124613a86d09p-33 +
                               z * (-0x1.ae7f3e733b81fp-41 +
                                    z * (0x1.952c77030ad4ap-49 + z * -0x1.2f49b46814157p-57)))))));
  // sin(rh + rl) = sin rh + rl cos rh, cos rh ~ 1 - z/2 at this size.
  *s = rh + (rh * z * sinTail + rl * (1.0 - 0.5 * z));
  const double cosTail =
      z * z *
      (0x1.5555555555555p-5 +
       z * (-0x1.6c16c16c16c17p-10 +
            z * (0x1.a01a01a01a01ap-16 +
                 z * (-0x1.27e4fb7789f5cp-22 +
                      z * (0x1.1eed8eff8d898p-29 +
                           z * (-0x1.93974a8c07c9dp-37 +
                                z * (0x1.ae7f3e733b81fp-45 + z * (-0x1.6827863b97d97p-53 +
                                                                  z * 0x1.e542ba4020225p-62))))))));
  // 1 - z/2 rounded, with its rounding error put back; -rh rl is the
  // first-order term of the low part.
  const double half = 0.5 * z;
  const double w = 1.0 - half;
  *c = w + (((1.0 - w) - half) + (cosTail - rh * rl));
}

// atan(num / den) for 0 <= num <= den (finite, den > 0) as hi + lo: with
// q = num / den = j/8 + d, atan q = atan(j/8) + atan(u) where
// u = (num - den j/8) / (den + num j/8), |u| < 1/16, whose series to u^17 is
// exact to below 2^-70. u comes from num and den rather than from the rounded
// q, and its numerator is exact but for one rounding.
void AtanUnit(double num, double den, double* hi, double* lo) {
  if (den > 0x1p1000) {  // room for the products below
    num *= 0x1p-100;
    den *= 0x1p-100;
  } else if (den < 0x1p-900) {
    num *= 0x1p600;
    den *= 0x1p600;
  }
  const double q = num / den;
  const int j = static_cast<int>(RoundToInteger(8.0 * q));
  double u = q;
  if (j > 0) {
    const double c = 0.125 * j;
    double p, e;
    TwoProduct(c, den, &p, &e);
    u = ((num - p) - e) / (den + c * num);  // num - p is exact
  }
  const double w = u * u;
  const double series =
      u * w *
      (-0x1.5555555555555p-2 +
       w * (0x1.999999999999ap-3 +
            w * (-0x1.2492492492492p-3 +
                 w * (0x1.c71c71c71c71cp-4 +
                      w * (-0x1.745d1745d1746p-4 +
                           w * (0x1.3b13b13b13b14p-4 +
                                w * (-0x1.1111111111111p-4 + w * 0x1.e1e1e1e1e1e1ep-5)))))));
  *hi = kAtanEighthsHi[j];
  *lo = kAtanEighthsLo[j] + (u + series);
}

}  // namespace

void SinCos(double x, double* s, double* c) {
  const double ax = std::fabs(x);
  if (!(ax <= std::numeric_limits<double>::max())) {
    *s = *c = kNaN;
    return;
  }
  if (ax < 0x1p-27) {  // sin x = x and cos x = 1 to the last bit
    *s = x;
    *c = 1.0;
    return;
  }
  double k = 0.0, rh = x, rl = 0.0;
  if (ax > kPiOver4) {
    // Beyond the exact range k is not a small integer any more; the same
    // steps still run, reproducibly, with a growing reduction error.
    const double y = x * kTwoOverPi;
    k = std::fabs(y) < 0x1p51 ? RoundToInteger(y) : std::trunc(y);
    const double a = x - k * kPiOver2Part1;  // exact while |k| < 2^20
    double hi, e;
    TwoSum(a, -(k * kPiOver2Part2), &hi, &e);
    const double lo = e - k * kPiOver2Part3;
    rh = hi + lo;
    rl = (hi - rh) + lo;
  }
  double sr, cr;
  KernelSinCos(rh, rl, &sr, &cr);
  // k mod 4, also for negative and very large k.
  const double quarter = k - 4.0 * std::floor(0.25 * k);
  switch (static_cast<int>(quarter)) {
    case 0:
      *s = sr;
      *c = cr;
      break;
    case 1:
      *s = cr;
      *c = -sr;
      break;
    case 2:
      *s = -sr;
      *c = -cr;
      break;
    default:
      *s = -cr;
      *c = sr;
      break;
  }
}

std::complex<double> Polar(double r, double t) {
  double s, c;
  SinCos(t, &s, &c);
  return {r * c, r * s};
}

double Atan2(double y, double x) {
  if (std::isnan(x) || std::isnan(y)) return x + y;
  const double ax = std::fabs(x), ay = std::fabs(y);
  const bool left = std::signbit(x);
  double angle;
  if (ay == 0.0) {
    angle = left ? kPiHi : 0.0;
  } else if (ax == 0.0) {
    angle = kPiOver2Hi;
  } else if (std::isinf(ax)) {
    angle = std::isinf(ay) ? (left ? kThreePiOver4 : kPiOver4) : (left ? kPiHi : 0.0);
  } else if (std::isinf(ay)) {
    angle = kPiOver2Hi;
  } else {
    double hi, lo;
    if (ay <= ax) {
      AtanUnit(ay, ax, &hi, &lo);
    } else {
      AtanUnit(ax, ay, &hi, &lo);
      // pi/2 - atan(ax/ay)
      const double h = kPiOver2Hi - hi;
      lo = ((kPiOver2Hi - h) - hi) + (kPiOver2Lo - lo);
      hi = h;
    }
    if (left) {
      const double h = kPiHi - hi;
      lo = ((kPiHi - h) - hi) + (kPiLo - lo);
      hi = h;
    }
    angle = hi + lo;
  }
  return std::copysign(angle, y);
}

double Arg(std::complex<double> z) { return Atan2(z.imag(), z.real()); }

double Log(double x) {
  if (std::isnan(x) || x < 0.0) return kNaN;
  if (x == 0.0) return -kInf;
  if (std::isinf(x)) return kInf;
  int k = 0;
  if (x < std::numeric_limits<double>::min()) {
    x *= 0x1p54;
    k = -54;
  }
  // x = 2^k m with m in [sqrt(2)/2, sqrt(2)).
  const std::uint64_t bits = std::bit_cast<std::uint64_t>(x);
  k += static_cast<int>(bits >> 52) - 1023;
  double m = std::bit_cast<double>((bits & 0x000fffffffffffffULL) | 0x3ff0000000000000ULL);
  if (m > 0x1.6a09e667f3bcdp+0) {
    m *= 0.5;
    ++k;
  }
  // log(1 + f) = 2 atanh(s) with s = f / (2 + f), |s| < 0.172; written as
  // f - f^2/2 + s (f^2/2 + R), whose leading terms are exact or nearly so.
  const double f = m - 1.0;  // exact
  const double s = f / (2.0 + f);
  const double z = s * s;
  const double r =
      z * (0x1.5555555555555p-1 +
           z * (0x1.999999999999ap-2 +
                z * (0x1.2492492492492p-2 +
                     z * (0x1.c71c71c71c71cp-3 +
                          z * (0x1.745d1745d1746p-3 +
                               z * (0x1.3b13b13b13b14p-3 +
                                    z * (0x1.1111111111111p-3 +
                                         z * (0x1.e1e1e1e1e1e1ep-4 +
                                              z * (0x1.af286bca1af28p-4 +
                                                   z * (0x1.8618618618618p-4 +
                                                        z * 0x1.642c8590b2164p-4))))))))));
  const double halfSquare = 0.5 * f * f;
  const double kd = static_cast<double>(k);
  const double t = s * (halfSquare + r) + kd * kLn2Lo;
  return kd * kLn2Hi + (f - (halfSquare - t));
}

double Exp(double x) {
  if (std::isnan(x)) return x;
  if (x > 710.0) return kInf;
  if (x < -746.0) return 0.0;
  // x = k ln 2 + rh + rl with |rh| <= ln(2)/2; k ln2hi is exact and so is
  // the subtraction.
  const double kd = RoundToInteger(x * kInvLn2);
  const int k = static_cast<int>(kd);
  const double rh = x - kd * kLn2Hi;
  const double rl = -kd * kLn2Lo;
  // r + rr = rh + rl, to far below an ulp of the result.
  const double r = rh + rl;
  const double rr = (rh - r) + rl;
  // e^r = 1 + r + r^2 E(r), Taylor to r^14 (the rest is below 2^-62).
  const double e =
      0x1.0000000000000p-1 +
      r * (0x1.5555555555555p-3 +
           r * (0x1.5555555555555p-5 +
                r * (0x1.1111111111111p-7 +
                     r * (0x1.6c16c16c16c17p-10 +
                          r * (0x1.a01a01a01a01ap-13 +
                               r * (0x1.a01a01a01a01ap-16 +
                                    r * (0x1.71de3a556c734p-19 +
                                         r * (0x1.27e4fb7789f5cp-22 +
                                              r * (0x1.ae64567f544e4p-26 +
                                                   r * (0x1.1eed8eff8d898p-29 +
                                                        r * (0x1.6124613a86d09p-33 +
                                                             r * 0x1.93974a8c07c9dp-37)))))))))));
  // e^(r + rr) = e^r (1 + rr), e^r ~ 1 + r where it multiplies rr.
  const double y = 1.0 + (r + (rr + (r * r * e + rr * r)));
  // y * 2^k, in two exact steps where 2^k alone is not a normal double;
  // only a subnormal result rounds (once, in the last product).
  if (k > 1023) return (y * 2.0) * PowerOfTwo(k - 1);
  if (k < -1021) return (y * PowerOfTwo(k + 1000)) * 0x1p-1000;
  return y * PowerOfTwo(k);
}

double Hypot(double x, double y) {
  double a = std::fabs(x), b = std::fabs(y);
  if (std::isinf(a) || std::isinf(b)) return kInf;
  if (std::isnan(a) || std::isnan(b)) return kNaN;
  if (a < b) std::swap(a, b);
  if (b == 0.0) return a;
  // Scaled by a power of two so that the squares and the splitting in
  // TwoProduct neither overflow nor underflow; b too small to matter stays
  // harmless since it only adds below the last bit.
  double scale = 1.0;
  if (a > 0x1p500) {
    a *= 0x1p-600;
    b *= 0x1p-600;
    scale = 0x1p600;
  } else if (a < 0x1p-400) {
    a *= 0x1p700;
    b *= 0x1p700;
    scale = 0x1p-700;
  }
  if (b < a * 0x1p-60) return a * scale;
  // a^2 + b^2 in two doubles, its square root, and one Newton correction
  // against the exact square of that root.
  double aa, aaErr, bb, bbErr, sum, sumErr;
  TwoProduct(a, a, &aa, &aaErr);
  TwoProduct(b, b, &bb, &bbErr);
  TwoSum(aa, bb, &sum, &sumErr);
  const double lowPart = sumErr + aaErr + bbErr;
  const double high = sum + lowPart;
  const double low = lowPart - (high - sum);
  const double root = std::sqrt(high);
  double square, squareErr;
  TwoProduct(root, root, &square, &squareErr);
  const double correction = (((high - square) - squareErr) + low) / (2.0 * root);
  return (root + correction) * scale;
}

double Abs(std::complex<double> z) { return Hypot(z.real(), z.imag()); }

}  // namespace frfcam::stability::portable
