// frfcam chart: the stabilisation chart of a record as SVG. (The PNG the
// command writes is checked with the picture writers in tests/tools.)
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/test_support.h"

namespace frfcam {
namespace {

using test::Cli;

TEST(ChartCommand, SvgOfARecordAndBadInputs) {
  test::ScratchDir dir;
  const std::string csv = dir.file("f.csv"), record = dir.file("r.pb");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 400 --channels 2").status, 0);
  ASSERT_EQ(Cli("stability " + csv + " -o " + record + " --orders 2:30").status, 0);
  struct Case {
    std::string args, words;
  } bad[] = {
      {dir.file("none.pb") + " -o " + dir.file("b.svg"), "no such file"},
      {csv + " -o " + dir.file("b.svg"), "not a stability record"},
      {record + " -o " + dir.file("b.jpg"), ".svg or .png"},
      {record + " -o " + dir.file("b.png") + " --size 10x10", "--size"},
      {record + " -o /dev/full", "/dev/full"},
      {record + " -o " + dir.file("b.svg") + " --frf " + dir.file("x.csv"), "x.csv"},
  };
  for (const Case& c : bad) {
    const test::CommandResult r = Cli("chart " + c.args);
    EXPECT_EQ(r.status, 1) << c.args;
    EXPECT_NE(r.err.find(c.words), std::string::npos) << c.args << ": " << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("b.svg")));

  const test::CommandResult svg =
      Cli("chart " + record + " -o " + dir.file("c.svg") + " --frf " + csv);
  ASSERT_EQ(svg.status, 0) << svg.err;
  EXPECT_NE(svg.out.find("28 order(s), 5 selected mode(s)"), std::string::npos) << svg.out;
  const std::string text = test::ReadFile(dir.file("c.svg"));
  EXPECT_NE(text.find("<svg"), std::string::npos);
  EXPECT_NE(text.find("polyline"), std::string::npos) << "the magnitude behind the chart";
  EXPECT_NE(text.find("</svg>"), std::string::npos);
}

}  // namespace
}  // namespace frfcam
