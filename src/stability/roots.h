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

// Aberth-Ehrlich iteration from `start` (one guess per root, degree n
// guesses). A root is accepted once the polynomial's value there is within
// the rounding error of its evaluation (the best any method can do); it then
// takes one more correction and is left alone. Returns false (and *roots
// unspecified) when some root is not accepted within `maxSweeps` sweeps or
// the iteration breaks down (coinciding guesses, non-finite values). The
// same preconditions on `a` as CompanionRoots.
bool AberthRoots(const Coefficients& a, const Roots& start, Roots* roots, int maxSweeps = 80);

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
// (ColdStart otherwise), the companion eigenvalues when that fails. Empty
// (method kNone) under the preconditions of CompanionRoots.
Roots PolynomialRoots(const Coefficients& a, const Roots& start, Method* method = nullptr);

}  // namespace frfcam::stability::roots
