// frfcam chart: the stabilisation chart of a record as SVG or PNG.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/test_support.h"

namespace frfcam {
namespace {

using test::Cli;

TEST(ChartCommand, SvgAndPngOfARecord) {
  test::ScratchDir dir;
  const std::string csv = dir.file("f.csv"), record = dir.file("r.pb");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 400 --channels 2").status, 0);
  ASSERT_EQ(Cli("stability " + csv + " -o " + record + " --orders 2:30").status, 0);

  const test::CommandResult svg =
      Cli("chart " + record + " -o " + dir.file("c.svg") + " --frf " + csv);
  ASSERT_EQ(svg.status, 0) << svg.err;
  EXPECT_NE(svg.out.find("28 order(s), 5 selected mode(s)"), std::string::npos) << svg.out;
  const std::string text = test::ReadFile(dir.file("c.svg"));
  EXPECT_NE(text.find("<svg"), std::string::npos);
  EXPECT_NE(text.find("polyline"), std::string::npos) << "the magnitude behind the chart";
  EXPECT_NE(text.find("</svg>"), std::string::npos);
}

TEST(ChartCommand, PngOfARecord) {
  FRFCAM_SKIP_ON_WINDOWS("the Windows build has no librsvg, and refuses .png in one line");
  test::ScratchDir dir;
  const std::string csv = dir.file("f.csv"), record = dir.file("r.pb");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 400 --channels 2").status, 0);
  ASSERT_EQ(Cli("stability " + csv + " -o " + record + " --orders 2:30").status, 0);
  const test::CommandResult png =
      Cli("chart " + record + " -o " + dir.file("c.png") + " --size 640x400");
  ASSERT_EQ(png.status, 0) << png.err;
  const std::string bytes = test::ReadFile(dir.file("c.png"));
  ASSERT_GT(bytes.size(), 33u);
  EXPECT_EQ(bytes.substr(1, 3), "PNG");
  // IHDR: width 640 and height 400, big-endian, at bytes 16 and 20.
  EXPECT_EQ(bytes.substr(16, 8), std::string("\0\0\x02\x80\0\0\x01\x90", 8));
  EXPECT_NE(bytes.find("model order"), std::string::npos) << "axis titles in the text chunks";
}

TEST(ChartCommand, BadInputsSayWhat) {
  test::ScratchDir dir;
  const std::string csv = dir.file("f.csv");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 300 --channels 1").status, 0);
  ASSERT_EQ(Cli("stability " + csv + " -o " + dir.file("r.pb") + " --orders 2:20").status, 0);
  struct Case {
    std::string args, words;
  } cases[] = {
      {"chart " + dir.file("none.pb") + " -o " + dir.file("c.svg"), "no such file"},
      {"chart " + csv + " -o " + dir.file("c.svg"), "not a stability record"},
      {"chart " + dir.file("r.pb") + " -o " + dir.file("c.jpg"), ".svg or .png"},
      {"chart " + dir.file("r.pb") + " -o " + dir.file("c.png") + " --size 10x10", "--size"},
      {"chart " + dir.file("r.pb") + " -o /dev/full", "/dev/full"},
      {"chart " + dir.file("r.pb") + " -o " + dir.file("c.svg") + " --frf " + dir.file("x.csv"),
       "x.csv"},
  };
  for (const Case& c : cases) {
    const test::CommandResult r = Cli(c.args);
    EXPECT_EQ(r.status, 1) << c.args;
    EXPECT_NE(r.err.find(c.words), std::string::npos) << c.args << ": " << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("c.svg")));
}

}  // namespace
}  // namespace frfcam
