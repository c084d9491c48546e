// Elementary functions that give the same bits on every platform.
//
// The stability fit is run on Linux and on Windows, and its record must not
// depend on which C runtime did the maths: the runtimes' sin, cos, atan2,
// log, exp and hypot differ in the last bit (mingw-w64's sin and cos by
// thousands of ulps away from small arguments), and the fit carries such
// differences into the poles. These functions use only + - * / and sqrt on
// doubles, in a fixed order, so that any IEEE-754 double machine without
// contraction into fused multiply-adds (the library is built with
// -ffp-contract=off) computes the same result. They are accurate to about
// 1 ulp; none sets errno or raises on purpose.
#ifndef FRFCAM_STABILITY_PORTABLE_MATH_H
#define FRFCAM_STABILITY_PORTABLE_MATH_H

#include <complex>

namespace frfcam::stability::portable {

// sin(x) and cos(x) into *s and *c. Within 1 ulp for |x| < 2^19 pi/2
// (about 8.2e5), where the reduction by pi/2 is exact to far below an ulp;
// beyond it the results are still reproducible but lose accuracy as |x|
// grows. Infinite or NaN x gives NaN for both.
void SinCos(double x, double* s, double* c);

// r (cos t + i sin t), as std::polar but through SinCos.
std::complex<double> Polar(double r, double t);

// The angle of (x, y) in [-pi, pi], with the signed zeros, infinities and
// NaNs of C's atan2.
double Atan2(double y, double x);

// arg(z) = Atan2(imag, real).
double Arg(std::complex<double> z);

// Natural logarithm: -inf at +-0, NaN below zero or for NaN, +inf at +inf;
// subnormal arguments are exact.
double Log(double x);

// e^x: +inf above about 709.78, 0 below about -745.13, NaN for NaN;
// subnormal results are rounded once.
double Exp(double x);

// sqrt(x^2 + y^2) without overflow or underflow on the way, within 1 ulp
// (nearly always correctly rounded); +inf when either is infinite, even
// if the other is NaN.
double Hypot(double x, double y);

// |z| = Hypot(real, imag).
double Abs(std::complex<double> z);

}  // namespace frfcam::stability::portable

#endif  // FRFCAM_STABILITY_PORTABLE_MATH_H
