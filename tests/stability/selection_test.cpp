#include "stability/selection.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace frfcam::stability {
namespace {

using Order = std::vector<double>;

RealVector Vec(const Order& values) {
  return Eigen::Map<const RealVector>(values.data(), static_cast<Eigen::Index>(values.size()));
}

TEST(PoleSelection, Examples) {
  const double justAbove = std::nextafter(0.5, 1.0);
  struct Case {
    const char* what;
    std::vector<Order> frequencies;  // lowest order first
    double tolerance;
    int minStableCount;
    Order selected;
    Order damping = {};  // checked when given
  };
  const std::vector<Case> cases = {
      {"nothing to select", {}, 0.01, 1, {}},
      // A mode drifting with the order is kept from the highest order, with
      // its damping; a pole of one order only is not.
      {"recurring", {{100.0}, {100.2, 250.0}, {100.1}, {99.95, 400.0}}, 0.01, 3, {99.95}, {3.0}},
      {"min count 1",
       {{10.0, 30.0}, {10.05, 20.0}},
       0.01,
       1,
       {10.05, 20.0, 30.0},
       {1.0, 1.01, 0.01}},
      {"min count -3", {{10.0, 30.0}, {10.05, 20.0}}, 0.01, -3, {10.05, 20.0, 30.0}},
      {"single order, 2", {{5.0, 7.0}}, 0.01, 2, {}},
      // Even identical frequencies are neither duplicates nor recurrences.
      {"tolerance 0, 1", {{50.0}, {50.0, 60.0}, {50.0}}, 0.0, 1, {50.0, 50.0, 60.0, 50.0}},
      {"tolerance 0, 2", {{50.0}, {50.0, 60.0}, {50.0}}, 0.0, 2, {}},
      {"duplicate in one order", {{40.0, 40.1}, {40.0, 40.1}}, 0.01, 2, {40.0}, {1.0}},
      // Three near matches in one lower order still make only two orders.
      {"lower order counts once, 3", {{99.9, 100.0, 100.1}, {100.0}}, 0.01, 3, {}},
      // |1 - 2| / 2 = 0.5 exactly: a duplicate is measured against the kept
      // pole (2), a recurrence against the candidate (2); equal is no match.
      {"duplicate at tolerance", {{1.0}, {2.0}}, 0.5, 1, {2.0, 1.0}},
      {"duplicate above tolerance", {{1.0}, {2.0}}, justAbove, 1, {2.0}},
      {"recurrence at tolerance", {{1.0}, {2.0}}, 0.5, 2, {}},
      {"recurrence above tolerance", {{1.0}, {2.0}}, justAbove, 2, {2.0}},
  };
  for (const Case& c : cases) {
    // Damping tags its pole: order k, pole i -> k + i / 100.
    std::vector<RealVector> f, d;
    for (std::size_t k = 0; k < c.frequencies.size(); ++k) {
      f.push_back(Vec(c.frequencies[k]));
      d.push_back(f.back());
      for (Eigen::Index i = 0; i < d.back().size(); ++i) d.back()[i] = k + 0.01 * i;
    }
    const SelectedPoles s = SelectStablePoles(f, d, c.tolerance, c.minStableCount);
    EXPECT_EQ(Order(s.frequency.begin(), s.frequency.end()), c.selected) << c.what;
    ASSERT_EQ(s.damping.size(), s.frequency.size()) << c.what;
    if (!c.damping.empty()) {
      EXPECT_EQ(Order(s.damping.begin(), s.damping.end()), c.damping) << c.what;
    }
  }
}

}  // namespace
}  // namespace frfcam::stability
