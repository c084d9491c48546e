// Roots of the real denominator polynomials of the order sweep.
//
// The roots of order n lie close to those of order n - 1, so they are found
// by a simultaneous (Aberth-Ehrlich) iteration started from the previous
// order's roots plus one new guess, in O(n^2) per sweep and a few sweeps per
// order. The eigenvalues of the companion matrix, O(n^3), remain the
// reference and the fallback.
#pragma once

#include <Eigen/Dense>

namespace frfcam::stability::roots {

// Coefficients a_0 .. a_n of sum a_k z^k (power z^0 first); the polynomial's
// degree is size - 1.
using Coefficients = Eigen::VectorXd;
using Roots = Eigen::VectorXcd;

// The n roots as the eigenvalues of the companion matrix, in the order of
// the eigenvalue solver. Empty when the degree is below 1, a coefficient is
// not finite, the leading one is 0, or the solver does not converge.
Roots CompanionRoots(const Coefficients& a);

// Sweeps of the iteration before it gives up; warm-started orders need a few.
constexpr int kDefaultMaxSweeps = 80;

// Aberth-Ehrlich iteration from `start` (one guess per root, degree n
// guesses). A root is accepted once the polynomial's value there is within
// the rounding error of its evaluation (the best any method can do); it then
// takes one more correction and is left alone.
//
// The roots then come out as the eigenvalue solver gives those of a real
// matrix: real ones with an imaginary part of +0, complex ones in exact
// conjugate pairs. The iteration works in complex arithmetic, so a real
// root ends with a stray imaginary part, which would make it a pole off the
// real axis. The rule, at each root z after convergence: the disc of radius
// n |p(z) / p'(z)| about z holds a root (Newton inclusion theorem); when it
// meets the real axis, |Im z| <= n |p(z) / p'(z)|, the root is real and Im z
// becomes +0. Near the axis Im p(z) = Im z p'(Re z) to first order, and it
// is computed to full relative accuracy, so |p(z) / p'(z)| >= |Im z| (up to
// rounding) at a root that is real: none is missed. A complex pair x +- iy
// is taken for real only when the computed |p| at its members is as large as
// |p'| y / n, i.e. when rounding alone could put it on the axis; lightly
// damped pairs, even within 1e-3 rad of the axis next to real roots, keep y
// many orders of magnitude above that. Each other root above the axis keeps
// its value, and the root below the axis nearest to its conjugate becomes
// that conjugate exactly.
//
// Returns false (and *roots unspecified) when some root is not accepted
// within `maxSweeps` sweeps, the iteration breaks down (coinciding guesses,
// non-finite values), or the complex roots do not pair up (different
// numbers above and below the axis, or a partner further from the
// conjugate than the two roots' error bounds n max(|p|, e) / |p'|, e the
// rounding bound of evaluating p). The same preconditions on `a` as
// CompanionRoots.
bool AberthRoots(const Coefficients& a, const Roots& start, Roots* roots,
                 int maxSweeps = kDefaultMaxSweeps);

// n guesses spread on a circle whose radius is the geometric mean of the
// roots' moduli, |a_0 / a_n|^(1/n) (1 when that is 0 or not finite).
Roots ColdStart(const Coefficients& a);

// Guesses for a polynomial of degree `degree` from the roots of a nearby
// one: the previous roots, dropped from the end or completed with guesses
// on the unit circle in the widest gaps of angle, away from the others.
Roots WarmStart(const Roots& previous, Eigen::Index degree);

// How the roots of one polynomial were found.
enum class Method { kNone, kAberth, kCompanion };

// The roots of `a`: Aberth from `start` when it has one guess per root
// (ColdStart otherwise) within `maxSweeps`, the companion eigenvalues when
// that fails. Empty (method kNone) under the preconditions of
// CompanionRoots.
Roots PolynomialRoots(const Coefficients& a, const Roots& start, Method* method = nullptr,
                      int maxSweeps = kDefaultMaxSweeps);

}  // namespace frfcam::stability::roots
