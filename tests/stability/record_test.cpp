// The stability record on the wire: proto3 encoding of the talproto messages
// as other readers of the file expect it.
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "support/test_support.h"
#include "talproto.pb.h"

namespace frfcam::stability {
namespace {

std::string Bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s.push_back(static_cast<char>(v));
  return s;
}

std::string LittleEndian(double value) {
  unsigned char raw[8];
  std::memcpy(raw, &value, 8);  // the test machines are little-endian
  return std::string(reinterpret_cast<const char*>(raw), 8);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteFile(const std::string& path, const talproto::stabChartData& record) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  ASSERT_TRUE(record.SerializeToOstream(&out));
}

talproto::complex* Add(google::protobuf::RepeatedPtrField<talproto::complex>* list, double re,
                       double im) {
  talproto::complex* c = list->Add();
  c->set_re(re);
  c->set_im(im);
  return c;
}

// A record with every field set, values exactly representable.
talproto::stabChartData FullRecord() {
  talproto::stabChartData r;
  r.set_numorders(3);
  r.add_eigenfrequency(12.5);
  r.add_eigenfrequency(40.25);
  r.add_dampingfactor(0.015625);
  r.add_dampingfactor(0.03125);
  Add(r.mutable_frfnum(), 1.5, -2.0);
  Add(r.mutable_frfnum(), 0.0, 0.5);
  for (int k = 0; k < 2; ++k) {
    talproto::order_info* info = r.add_orderinfo();
    info->set_order_num(11 + k);
    info->add_s(12.5 + k);
    info->add_s(40.25);
    info->add_f(7.0);
    info->add_d(99.75 - k);
    if (k == 1) info->add_o(3.0);
  }
  r.add_selected_poles(40.25);
  r.add_selected_poles(12.5);
  r.add_selected_dampingfactor(0.03125);
  r.add_selected_dampingfactor(0.015625);
  Add(r.mutable_residues(), 100.0, -3.5);
  Add(r.mutable_residues(), -0.25, 8.0);
  r.mutable_lower_residual()->set_re(-1024.0);
  r.mutable_upper_residual()->set_im(0.125);
  Add(r.mutable_frfm(), 2.0, 4.0);
  return r;
}

TEST(RecordWire, EmptyRecordIsAnEmptyFile) {
  test::ScratchDir dir;
  talproto::stabChartData r;
  r.set_numorders(0);
  EXPECT_EQ(r.ByteSizeLong(), 0u);
  const std::string path = dir.file("empty.pb");
  WriteFile(path, r);
  EXPECT_EQ(ReadFile(path).size(), 0u);
  talproto::stabChartData back;
  EXPECT_TRUE(back.ParseFromString(""));
  EXPECT_EQ(back.numorders(), 0u);
}

TEST(RecordWire, ResidualSubMessagesPresentOnlyWhenSet) {
  talproto::stabChartData r;
  r.mutable_lower_residual();  // set, with zero re and im
  EXPECT_EQ(r.SerializeAsString(), Bytes({0x4A, 0x00}));
  r.mutable_upper_residual()->set_re(2.0);
  EXPECT_EQ(r.SerializeAsString(), Bytes({0x4A, 0x00, 0x52, 0x09, 0x09}) + LittleEndian(2.0));
  r.clear_lower_residual();
  r.clear_upper_residual();
  EXPECT_EQ(r.SerializeAsString(), "");
}

TEST(RecordWire, WireLayoutOfScalarsAndPackedDoubles) {
  talproto::stabChartData r;
  r.set_numorders(300);
  r.add_eigenfrequency(1.0);
  r.add_eigenfrequency(-2.5);
  talproto::order_info* info = r.add_orderinfo();
  info->add_o(4.0);
  info->set_order_num(7);
  const std::string inner = Bytes({0x22, 0x08}) + LittleEndian(4.0) + Bytes({0x28, 0x07});
  const std::string expected = Bytes({0x08, 0xAC, 0x02, 0x12, 0x10}) + LittleEndian(1.0) +
                               LittleEndian(-2.5) + Bytes({0x2A, static_cast<int>(inner.size())}) +
                               inner;
  EXPECT_EQ(r.SerializeAsString(), expected);
}

TEST(RecordWire, RoundTripThroughAFile) {
  test::ScratchDir dir;
  const talproto::stabChartData r = FullRecord();
  const std::string path = dir.file("record.pb");
  WriteFile(path, r);
  talproto::stabChartData back;
  ASSERT_TRUE(back.ParseFromString(ReadFile(path)));
  EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(r, back));
  ASSERT_EQ(back.orderinfo_size(), 2);
  EXPECT_EQ(back.orderinfo(1).order_num(), 12u);
  EXPECT_EQ(back.orderinfo(1).d(0), 98.75);
  EXPECT_EQ(back.selected_poles(0), 40.25);
  EXPECT_TRUE(back.has_lower_residual());
  EXPECT_EQ(back.upper_residual().im(), 0.125);
}

TEST(RecordWire, ReaderAcceptsUnpackedDoubles) {
  // eigenFrequency as two fixed64 fields, then an order_info whose s is unpacked.
  const std::string inner =
      Bytes({0x09}) + LittleEndian(5.5) + Bytes({0x09}) + LittleEndian(6.5) + Bytes({0x28, 0x04});
  const std::string wire = Bytes({0x11}) + LittleEndian(3.0) + Bytes({0x11}) + LittleEndian(4.0) +
                           Bytes({0x2A, static_cast<int>(inner.size())}) + inner;
  talproto::stabChartData r;
  ASSERT_TRUE(r.ParseFromString(wire));
  ASSERT_EQ(r.eigenfrequency_size(), 2);
  EXPECT_EQ(r.eigenfrequency(0), 3.0);
  EXPECT_EQ(r.eigenfrequency(1), 4.0);
  ASSERT_EQ(r.orderinfo_size(), 1);
  ASSERT_EQ(r.orderinfo(0).s_size(), 2);
  EXPECT_EQ(r.orderinfo(0).s(1), 6.5);
  EXPECT_EQ(r.orderinfo(0).order_num(), 4u);
}

TEST(RecordWire, PythonProtobufReadsTheFile) {
  if (!test::HaveSystemPython("google.protobuf")) GTEST_SKIP() << "no python3-protobuf";
  test::ScratchDir dir;
  const std::string path = dir.file("record.pb");
  WriteFile(path, FullRecord());
  const std::string schemaDir = std::string(FRFCAM_TEST_SCRIPTS) + "/../../proto";
  const test::CommandResult result =
      test::RunCommand(std::string(FRFCAM_SYSTEM_PYTHON) + " " + FRFCAM_TEST_SCRIPTS +
                       "/read_record_protobuf.py " + schemaDir + " " + path);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
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

  // An empty file is a valid, empty record for that reader too.
  std::ofstream(dir.file("empty.pb"), std::ios::binary).close();
  const test::CommandResult empty =
      test::RunCommand(std::string(FRFCAM_SYSTEM_PYTHON) + " " + FRFCAM_TEST_SCRIPTS +
                       "/read_record_protobuf.py " + schemaDir + " " + dir.file("empty.pb"));
  ASSERT_EQ(empty.status, 0) << empty.err;
  EXPECT_NE(empty.out.find("numOrders 0\n"), std::string::npos);
  EXPECT_NE(empty.out.find("lower_residual absent\nupper_residual absent\n"), std::string::npos);
}

}  // namespace
}  // namespace frfcam::stability
