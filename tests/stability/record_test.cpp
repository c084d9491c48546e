// The stability record on the wire: proto3 encoding of the talproto messages
// as other readers of the file expect it (the whole written record is read
// back by another runtime in tests/api/stability_export_test.cpp).
#include "stability/record.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

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

}  // namespace
}  // namespace frfcam::stability
