#include "stability/selection.h"

#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <stdexcept>
#include <vector>

namespace frfcam::stability {
namespace {

RealVector Vec(std::initializer_list<double> values) {
  RealVector v(static_cast<Eigen::Index>(values.size()));
  Eigen::Index i = 0;
  for (double x : values) v[i++] = x;
  return v;
}

std::vector<double> Std(const RealVector& v) { return {v.data(), v.data() + v.size()}; }

// Damping values that identify their pole: order k, pole i -> k + i / 100.
std::vector<RealVector> TagDamping(const std::vector<RealVector>& frequencies) {
  std::vector<RealVector> damping;
  for (std::size_t k = 0; k < frequencies.size(); ++k) {
    RealVector d(frequencies[k].size());
    for (Eigen::Index i = 0; i < d.size(); ++i) d[i] = static_cast<double>(k) + 0.01 * i;
    damping.push_back(d);
  }
  return damping;
}

SelectedPoles Select(const std::vector<RealVector>& f, double tol, int minStable) {
  return SelectStablePoles(f, TagDamping(f), tol, minStable);
}

TEST(PoleSelection, EmptyInputSelectsNothing) {
  const SelectedPoles s = SelectStablePoles({}, {}, 0.01, 1);
  EXPECT_EQ(s.frequency.size(), 0);
  EXPECT_EQ(s.damping.size(), 0);
}

TEST(PoleSelection, KeepsRecurringPoleFromHighestOrderWithItsDamping) {
  // A mode drifting slightly with the order, and a spurious pole that
  // appears in one order only.
  const std::vector<RealVector> f = {Vec({100.0}), Vec({100.2, 250.0}), Vec({100.1}),
                                     Vec({99.95, 400.0})};
  const SelectedPoles s = Select(f, 0.01, 3);
  EXPECT_EQ(Std(s.frequency), std::vector<double>({99.95}));
  EXPECT_EQ(Std(s.damping), std::vector<double>({3.0}));
}

TEST(PoleSelection, MinStableCountOneKeepsEveryNonDuplicate) {
  const std::vector<RealVector> f = {Vec({10.0, 30.0}), Vec({10.05, 20.0})};
  for (int minStable : {1, 0, -3}) {
    const SelectedPoles s = Select(f, 0.01, minStable);
    // Highest order first, then the lower order's pole that is not near a
    // kept one.
    EXPECT_EQ(Std(s.frequency), std::vector<double>({10.05, 20.0, 30.0})) << minStable;
    EXPECT_EQ(Std(s.damping), std::vector<double>({1.0, 1.01, 0.01})) << minStable;
  }
}

TEST(PoleSelection, SingleOrderKeepsPolesOnlyWhenOneOrderSuffices) {
  const std::vector<RealVector> f = {Vec({5.0, 7.0})};
  EXPECT_EQ(Std(Select(f, 0.01, 1).frequency), std::vector<double>({5.0, 7.0}));
  EXPECT_EQ(Select(f, 0.01, 2).frequency.size(), 0);
}

TEST(PoleSelection, ZeroToleranceMatchesNothing) {
  // Even identical frequencies are neither duplicates nor recurrences.
  const std::vector<RealVector> f = {Vec({50.0}), Vec({50.0, 60.0}), Vec({50.0})};
  EXPECT_EQ(Std(Select(f, 0.0, 1).frequency), std::vector<double>({50.0, 50.0, 60.0, 50.0}));
  EXPECT_EQ(Select(f, 0.0, 2).frequency.size(), 0);
}

TEST(PoleSelection, SecondPoleOfAnOrderWithinToleranceIsADuplicate) {
  const std::vector<RealVector> f = {Vec({40.0, 40.1}), Vec({40.0, 40.1})};
  const SelectedPoles s = Select(f, 0.01, 2);
  EXPECT_EQ(Std(s.frequency), std::vector<double>({40.0}));
  EXPECT_EQ(Std(s.damping), std::vector<double>({1.0}));
}

TEST(PoleSelection, EachLowerOrderCountsOnce) {
  // Three near matches in one lower order still make only two orders.
  const std::vector<RealVector> f = {Vec({99.9, 100.0, 100.1}), Vec({100.0})};
  EXPECT_EQ(Select(f, 0.01, 3).frequency.size(), 0);
  EXPECT_EQ(Std(Select(f, 0.01, 2).frequency), std::vector<double>({100.0}));
}

TEST(PoleSelection, DifferenceEqualToToleranceIsNoMatch) {
  // |1 - 2| / 2 = 0.5 exactly: not a duplicate at 0.5, a duplicate above.
  const std::vector<RealVector> f = {Vec({1.0}), Vec({2.0})};
  EXPECT_EQ(Std(Select(f, 0.5, 1).frequency), std::vector<double>({2.0, 1.0}));
  EXPECT_EQ(Std(Select(f, std::nextafter(0.5, 1.0), 1).frequency), std::vector<double>({2.0}));
  // Recurrence: |2 - 1| / 2 = 0.5 exactly.
  EXPECT_EQ(Select(f, 0.5, 2).frequency.size(), 0);
  EXPECT_EQ(Std(Select(f, std::nextafter(0.5, 1.0), 2).frequency), std::vector<double>({2.0}));
}

TEST(PoleSelection, DuplicateTestDividesByKeptAndRecurrenceByCandidate) {
  // Kept 1.0, candidate 2.0: |2 - 1| / 1 = 1 is outside 0.6 (divided by the
  // candidate it would be 0.5, inside).
  EXPECT_EQ(Std(Select({Vec({2.0}), Vec({1.0})}, 0.6, 1).frequency),
            std::vector<double>({1.0, 2.0}));
  // Kept 2.0, candidate 1.0: |1 - 2| / 2 = 0.5 is inside.
  EXPECT_EQ(Std(Select({Vec({1.0}), Vec({2.0})}, 0.6, 1).frequency), std::vector<double>({2.0}));
  // Recurrence of candidate 1.0 in a lower order holding 2.0: |1 - 2| / 1 = 1.
  EXPECT_EQ(Select({Vec({2.0}), Vec({1.0})}, 0.6, 2).frequency.size(), 0);
  // Candidate 2.0 over a lower 1.0: |2 - 1| / 2 = 0.5.
  EXPECT_EQ(Std(Select({Vec({1.0}), Vec({2.0})}, 0.6, 2).frequency), std::vector<double>({2.0}));
}

TEST(PoleSelection, ZeroFrequenciesNeverMatch) {
  const std::vector<RealVector> f = {Vec({0.0}), Vec({0.0, 0.0})};
  EXPECT_EQ(Select(f, 0.01, 1).frequency.size(), 3);
  EXPECT_EQ(Select(f, 0.01, 2).frequency.size(), 0);
}

TEST(PoleSelection, MismatchedShapesAreRejected) {
  EXPECT_THROW(SelectStablePoles({Vec({1.0})}, {}, 0.01, 1), std::invalid_argument);
  EXPECT_THROW(SelectStablePoles({Vec({1.0, 2.0})}, {Vec({0.1})}, 0.01, 1), std::invalid_argument);
}

}  // namespace
}  // namespace frfcam::stability
