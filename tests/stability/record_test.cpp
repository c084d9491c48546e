// The stability record on the wire: proto3 encoding of the talproto messages
// as other readers of the file expect it.
#include "stability/record.h"

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>

#include "support/test_support.h"
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

  // Unpacked doubles are read too: eigenFrequency as two fixed64 fields, then
  // an order_info whose s is unpacked.
  const std::string unpackedInner =
      "\x09"s + LittleEndian(5.5) + "\x09"s + LittleEndian(6.5) + "\x28\x04"s;
  talproto::stabChartData unpacked;
  ASSERT_TRUE(unpacked.ParseFromString("\x11"s + LittleEndian(3.0) + "\x11"s + LittleEndian(4.0) +
                                       "\x2A"s + static_cast<char>(unpackedInner.size()) +
                                       unpackedInner));
  EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(
      unpacked, FromText("eigenFrequency: [3, 4] orderInfo { s: [5.5, 6.5] order_num: 4 }")));
}

// A file written here reads back equal, and the Python protobuf runtime reads
// every field of it.
TEST(RecordWire, FileReadsBackHereAndInPython) {
  const talproto::stabChartData record = FromText(R"(
      numOrders: 3 eigenFrequency: [12.5, 40.25] dampingFactor: [0.015625, 0.03125]
      frfnum { re: 1.5 im: -2 } frfnum { im: 0.5 }
      orderInfo { s: [12.5, 40.25] f: 7 d: 99.75 order_num: 11 }
      orderInfo { s: [13.5, 40.25] f: 7 d: 98.75 o: 3 order_num: 12 }
      selected_poles: [40.25, 12.5] selected_dampingfactor: [0.03125, 0.015625]
      residues { re: 100 im: -3.5 } residues { re: -0.25 im: 8 }
      lower_residual { re: -1024 } upper_residual { im: 0.125 } frfm { re: 2 im: 4 })");
  test::ScratchDir dir;
  const std::string path = dir.file("record.pb");
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(record.SerializeToOstream(&out));
  }
  std::ifstream in(path, std::ios::binary);
  talproto::stabChartData back;
  ASSERT_TRUE(back.ParseFromIstream(&in));
  EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(record, back));

  FRFCAM_SKIP_ON_WINDOWS("a Python subprocess reads the record");
  if (!test::HaveSystemPython("google.protobuf")) GTEST_SKIP() << "no python3-protobuf";
  const test::CommandResult python =
      test::RunCommand(std::string(FRFCAM_SYSTEM_PYTHON) + " " + FRFCAM_TEST_SCRIPTS +
                       "/read_record_protobuf.py " + FRFCAM_TEST_SCRIPTS + "/../../proto " + path);
  ASSERT_EQ(python.status, 0) << python.err;
  EXPECT_EQ(python.out,
            "tags 1 2 3 4 5 6 7 8 9 10 11\n"
            "packed 1\n"
            "numOrders 3\n"
            "eigenFrequency 12.5 40.25\n"
            "dampingFactor 0.015625 0.03125\n"
            "selected_poles 40.25 12.5\n"
            "selected_dampingfactor 0.03125 0.015625\n"
            "frfnum 1.5 -2.0 0.0 0.5\n"
            "residues 100.0 -3.5 -0.25 8.0\n"
            "frfm 2.0 4.0\n"
            "orderInfo 11 s:12.5,40.25 f:7.0 d:99.75 o:\n"
            "orderInfo 12 s:13.5,40.25 f:7.0 d:98.75 o:3.0\n"
            "lower_residual -1024.0 0.0\n"
            "upper_residual 0.0 0.125\n");
}

}  // namespace
}  // namespace frfcam::stability
