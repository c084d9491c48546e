// The stability record on the wire: proto3 encoding of the talproto messages
// as other readers of the file expect it (the whole written record is read
// back by another runtime in tests/api/stability_export_test.cpp).
#include "stability/record.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "stability/driver.h"
#include "stability/synthetic.h"
#include "talproto.pb.h"

namespace frfcam::stability {
namespace {

using namespace std::string_literals;

std::string LittleEndian(double value) {
  char raw[8];
  std::memcpy(raw, &value, 8);  // the test machines are little-endian
  return std::string(raw, 8);
}

talproto::stabChartData FromText(const std::string& text) {
  talproto::stabChartData r;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &r)) << text;
  return r;
}

TEST(RecordWire, EncodingOfDefaultsResidualsAndPackedDoubles) {
  // Residual terms that the fit set are on the wire even when zero.
  talproto::stabChartData zeroFit;
  FillModalFit(SelectedPoles{}, ResidueFit{}, &zeroFit);
  const std::string inner = "\x22\x08"s + LittleEndian(4.0) + "\x28\x07"s;
  struct Case {
    const char* what;
    talproto::stabChartData record;
    std::string wire;
  };
  const Case cases[] = {
      {"numOrders 0 only", FromText("numOrders: 0"), ""},
      {"zero residuals from the fit", zeroFit, "\x4A\x00\x52\x00"s},
      {"scalars and packed doubles",
       FromText("numOrders: 300 eigenFrequency: [1, -2.5] orderInfo { o: 4 order_num: 7 }"),
       "\x08\xAC\x02\x12\x10"s + LittleEndian(1.0) + LittleEndian(-2.5) + "\x2A"s +
           static_cast<char>(inner.size()) + inner},
  };
  for (const Case& c : cases) EXPECT_EQ(c.record.SerializeAsString(), c.wire) << c.what;
}

// Orders 7..12: entry k of the chart is order 8 + k with that order's four
// class lists; the stable poles of the last order lead the record.
TEST(RecordChart, OrderNumbersOfARangeNotStartingAtTwo) {
  const SyntheticFrfs data = SynthesizeFrfs(DefaultFiveModeSystem(400, 2, 0.002));
  const std::vector<std::int32_t> orders = OrderList(7, 12);
  ASSERT_EQ(orders, (std::vector<std::int32_t>{7, 8, 9, 10, 11, 12}));
  const EstimationResult e =
      Estimate(data.omega, data.frf, data.matrix, orders, 0.01, 0.05, false, false);
  talproto::stabChartData record;
  FillChart(orders, e, &record);
  EXPECT_EQ(record.numorders(), 6u);
  ASSERT_EQ(record.orderinfo_size(), 5);
  const auto same = [](const auto& field, const RealVector& v) {
    return field.size() == v.size() && std::equal(field.begin(), field.end(), v.data());
  };
  for (int k = 0; k < 5; ++k) {
    const talproto::order_info& info = record.orderinfo(k);
    EXPECT_EQ(info.order_num(), 8u + k);
    EXPECT_TRUE(same(info.s(), e.sByOrder[k]) && same(info.f(), e.fByOrder[k]) &&
                same(info.d(), e.dByOrder[k]) && same(info.o(), e.oByOrder[k]))
        << "order " << 8 + k;
  }
  EXPECT_GT(e.eigenFrequency.size(), 0);
  EXPECT_TRUE(same(record.eigenfrequency(), e.eigenFrequency));
  EXPECT_TRUE(same(record.dampingfactor(), e.dampingFactor));
}

}  // namespace
}  // namespace frfcam::stability
