#include "frfmap/cantilever_shape.h"

#include <cmath>
#include <numbers>

namespace frfcam::frfmap {

namespace {

// Roots of cos(b) cosh(b) = -1, the clamped-free beam's eigenvalues; beyond
// these, (m - 1/2) pi agrees to better than 1e-7.
constexpr double kCantileverBeta[] = {1.8751040687, 4.6940911330, 7.8547574382, 10.9955407349,
                                      14.1371683910};

}  // namespace

double CantileverShape(int mode, double u) {
  const double b = mode <= 5 ? kCantileverBeta[mode - 1] : (mode - 0.5) * std::numbers::pi;
  const double sigma = (std::cosh(b) + std::cos(b)) / (std::sinh(b) + std::sin(b));
  // cosh - sigma sinh written as exp(-bu) + (1 - sigma) sinh: the textbook
  // form cancels two huge terms for the higher modes.
  const double one_minus_sigma =
      (std::sin(b) - std::cos(b) - std::exp(-b)) / (std::sinh(b) + std::sin(b));
  const double bu = b * u;
  return 0.5 *
         (std::exp(-bu) + one_minus_sigma * std::sinh(bu) - std::cos(bu) + sigma * std::sin(bu));
}

}  // namespace frfcam::frfmap
