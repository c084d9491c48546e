#include "stability/driver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include "stability/record.h"
#include "stability/synthetic.h"
#include "support/test_support.h"
#include "talproto.pb.h"

namespace frfcam::stability {
namespace {

RealVector Vec(std::initializer_list<double> values) {
  RealVector v(static_cast<Eigen::Index>(values.size()));
  Eigen::Index i = 0;
  for (double x : values) v[i++] = x;
  return v;
}

std::vector<double> Std(const google::protobuf::RepeatedField<double>& f) {
  return {f.begin(), f.end()};
}

TEST(OrderList, ConsecutiveOrdersFromLowToHigh) {
  EXPECT_EQ(OrderList(10, 20),
            std::vector<std::int32_t>({10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}));
  EXPECT_EQ(OrderList(7, 7), std::vector<std::int32_t>({7}));
  EXPECT_TRUE(OrderList(7, 6).empty());
  EXPECT_EQ(OrderList(2147483646, 2147483647).size(), 2u);
}

// An estimation result as the estimator would shape it for orders 10..13:
// three classified orders, two of them with stable poles.
EstimationResult ThreeClassifiedOrders() {
  EstimationResult e;
  e.sByOrder = {Vec({}), Vec({50.0}), Vec({50.1, 80.0})};
  e.fByOrder = {Vec({49.0}), Vec({}), Vec({120.0})};
  e.dByOrder = {Vec({}), Vec({70.0, 90.0}), Vec({})};
  e.oByOrder = {Vec({11.0, 12.0}), Vec({13.0}), Vec({})};
  e.poleFrequencyByOrder = {Vec({50.0}), Vec({50.1, 80.0})};
  e.poleDampingByOrder = {Vec({0.01}), Vec({0.011, 0.02})};
  e.frfNum = ComplexVector::Constant(3, {1.0, -2.0});
  e.eigenFrequency = Vec({50.1, 80.0});
  e.dampingFactor = Vec({0.011, 0.02});
  return e;
}

TEST(StabilityRecord, ChartEntriesAreNumberedFromTheSecondOrder) {
  talproto::stabChartData record;
  FillChart(OrderList(10, 13), ThreeClassifiedOrders(), &record);
  EXPECT_EQ(record.numorders(), 4u);
  ASSERT_EQ(record.orderinfo_size(), 3);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(record.orderinfo(k).order_num(), 11u + k);
  EXPECT_EQ(Std(record.orderinfo(0).o()), std::vector<double>({11.0, 12.0}));
  EXPECT_EQ(Std(record.orderinfo(0).f()), std::vector<double>({49.0}));
  EXPECT_EQ(Std(record.orderinfo(1).d()), std::vector<double>({70.0, 90.0}));
  EXPECT_EQ(Std(record.orderinfo(2).s()), std::vector<double>({50.1, 80.0}));
  EXPECT_EQ(Std(record.eigenfrequency()), std::vector<double>({50.1, 80.0}));
  EXPECT_EQ(Std(record.dampingfactor()), std::vector<double>({0.011, 0.02}));
  ASSERT_EQ(record.frfnum_size(), 3);
  EXPECT_EQ(record.frfnum(2).im(), -2.0);
  // Without the modal fit, fields 6 to 11 are empty and the residuals unset.
  EXPECT_EQ(record.selected_poles_size(), 0);
  EXPECT_FALSE(record.has_lower_residual());
  EXPECT_FALSE(record.has_upper_residual());
  EXPECT_EQ(record.frfm_size(), 0);
}

TEST(StabilityRecord, ChartNeedsTwoOrdersAndMatchingClassLists) {
  talproto::stabChartData record;
  EXPECT_THROW(FillChart(OrderList(5, 5), EstimationResult{}, &record), std::invalid_argument);
  EstimationResult ragged = ThreeClassifiedOrders();
  ragged.oByOrder.pop_back();
  EXPECT_THROW(FillChart(OrderList(10, 13), ragged, &record), std::invalid_argument);
}

TEST(StabilityRecord, ZeroResidualsArePresentOnTheWire) {
  SelectedPoles selection{Vec({0.02}), Vec({60.0})};
  ResidueFit fit;
  fit.residues = ComplexVector::Constant(1, {3.0, 4.0});
  fit.synthesised = ComplexVector::Constant(5, {1.0, 1.0});
  talproto::stabChartData record;
  FillModalFit(selection, fit, &record);
  EXPECT_EQ(Std(record.selected_poles()), std::vector<double>({60.0}));
  EXPECT_EQ(Std(record.selected_dampingfactor()), std::vector<double>({0.02}));
  EXPECT_EQ(record.residues(0).re(), 3.0);
  EXPECT_EQ(record.frfm_size(), 5);
  const std::string wire = record.SerializeAsString();
  EXPECT_NE(wire.find(std::string("\x4A\x00\x52\x00", 4)), std::string::npos);
}

// The whole computation on FRFs of a known system.
class DriverOnKnownSystem : public ::testing::Test {
 protected:
  void SetUp() override {
    const SyntheticSystem system = DefaultFiveModeSystem(800, 4, 0.0);
    frfs_ = SynthesizeFrfs(system);
    modes_ = system.modes;
  }

  StabilityRequest Request(const std::string& path) const {
    StabilityRequest r;
    r.outputPath = path.c_str();
    r.frf = reinterpret_cast<const double*>(frfs_.frf.data());
    r.frfMatrix = reinterpret_cast<const double*>(frfs_.matrix.data());
    r.numChannels = static_cast<int>(frfs_.matrix.cols());
    r.frequencies = frfs_.omega.data();
    r.numLines = static_cast<int>(frfs_.omega.size());
    r.minOrder = 2;
    r.maxOrder = 30;
    r.selectionTolerance = 0.01;
    r.minStableCount = 5;
    r.frequencyTolerance = 0.01;
    r.dampingTolerance = 0.05;
    return r;
  }

  SyntheticFrfs frfs_;
  std::vector<SyntheticMode> modes_;
  test::ScratchDir dir_;
};

TEST_F(DriverOnKnownSystem, FindsTheModesAndReproducesTheFrf) {
  const std::string path = dir_.file("record.pb");
  StageTimes times;
  testing::internal::CaptureStdout();
  ASSERT_EQ(ComputeStability(Request(path), &times), kStabilityOk);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("took ", 0), 0u) << out;

  std::ifstream in(path, std::ios::binary);
  talproto::stabChartData record;
  ASSERT_TRUE(record.ParseFromIstream(&in));
  EXPECT_EQ(record.numorders(), 29u);
  ASSERT_EQ(record.orderinfo_size(), 28);
  EXPECT_EQ(record.orderinfo(0).order_num(), 3u);
  EXPECT_EQ(record.orderinfo(27).order_num(), 30u);

  // Every true mode is selected once, with its damping.
  ASSERT_EQ(record.selected_poles_size(), static_cast<int>(modes_.size()));
  ASSERT_EQ(record.residues_size(), record.selected_poles_size());
  for (const SyntheticMode& mode : modes_) {
    int found = -1;
    for (int j = 0; j < record.selected_poles_size(); ++j) {
      if (std::abs(record.selected_poles(j) - mode.frequencyHz) < 1e-3 * mode.frequencyHz)
        found = j;
    }
    ASSERT_GE(found, 0) << mode.frequencyHz << " Hz not selected";
    EXPECT_NEAR(record.selected_dampingfactor(found), mode.damping, 0.02 * mode.damping);
    // Fitted to the single FRF, which is channel 0 of the system.
    const auto& fitted = record.residues(found);
    const std::complex<double> truth =
        frfs_.residues[0][static_cast<std::size_t>(&mode - &modes_[0])];
    EXPECT_LE(std::abs(std::complex<double>(fitted.re(), fitted.im()) - truth),
              1e-2 * std::abs(truth));
  }
  // The synthesised FRF matches the data it was fitted to.
  ASSERT_EQ(record.frfm_size(), frfs_.frf.size());
  double misfit = 0.0;
  for (int i = 0; i < record.frfm_size(); ++i) {
    misfit +=
        std::norm(std::complex<double>(record.frfm(i).re(), record.frfm(i).im()) - frfs_.frf[i]);
  }
  EXPECT_LT(std::sqrt(misfit), 1e-3 * frfs_.frf.norm());
  EXPECT_TRUE(record.has_lower_residual());
  EXPECT_TRUE(record.has_upper_residual());

  // The stages account for the measured span.
  const auto parts =
      times.estimation + times.selection + times.residues + times.record + times.writing;
  EXPECT_EQ(parts, times.total);
  EXPECT_GT(times.estimation.count(), 0);
}

TEST_F(DriverOnKnownSystem, CallersArraysAreOnlyRead) {
  const SyntheticFrfs before = frfs_;
  testing::internal::CaptureStdout();
  ASSERT_EQ(ComputeStability(Request(dir_.file("r.pb"))), kStabilityOk);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(frfs_.omega, before.omega);
  EXPECT_EQ(frfs_.frf, before.frf);
  EXPECT_EQ(frfs_.matrix, before.matrix);
}

}  // namespace
}  // namespace frfcam::stability
