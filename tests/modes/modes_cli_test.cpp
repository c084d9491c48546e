// `frfcam modes` end to end: from a capture without a cube to every output
// file, checked by the files' own signatures (numpy reads the shapes in the
// Python package's test).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "frfmap/naming.h"
#include "support/contains.h"
#include "support/test_support.h"

namespace frfcam {
namespace {

namespace fs = std::filesystem;

using test::Cli;
using test::Contains;

class ModesCli : public ::testing::Test {
 protected:
  void SetUp() override {
    header = dir.file("plate.hdr");
    reference = dir.file("plate_reference.txt");
    const auto r = Cli("synth " + header + " --width 96 --height 72 --frames 1000");
    ASSERT_EQ(r.status, 0) << r.err;
  }
  test::ScratchDir dir;
  std::string header, reference;
};

TEST_F(ModesCli, RendersFitsAndWritesEveryOutput) {
  const std::string out = dir.file("out/nested");
  const auto r = Cli("modes " + header + " --reference " + reference + " -o " + out);
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_TRUE(Contains(r.out, "rendering it"));  // no cube before
  EXPECT_TRUE(Contains(r.out, "3 mode(s)"));

  const std::string csv = test::ReadFile(out + "/modes.csv");
  EXPECT_EQ(csv.substr(0, csv.find('\n')), "mode,frequency_hz,damping_ratio,mpc,shape");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 4);
  std::istringstream rows(csv.substr(csv.find('\n') + 1));
  const double expected[] = {120.0, 300.0, 540.0};
  for (double hz : expected) {
    int mode = 0;
    double f = 0, zeta = 0, mpc = 0;
    char comma;
    std::string kind;
    rows >> mode >> comma >> f >> comma >> zeta >> comma >> mpc >> comma >> kind;
    EXPECT_NEAR(f, hz, 0.005 * hz) << csv;
    EXPECT_GT(mpc, 0.95) << csv;
    EXPECT_EQ(kind, "brightness");  // the plate's light changes in place
  }
  EXPECT_FALSE(fs::exists(out + "/mode_1_disp.npy"));

  for (int k = 1; k <= 3; ++k) {
    const std::string base = out + "/mode_" + std::to_string(k);
    const std::string png = test::ReadFile(base + ".png");
    EXPECT_EQ(png.substr(1, 3), "PNG");
    EXPECT_TRUE(Contains(png, "tEXtScale"));
    EXPECT_EQ(test::ReadFile(base + ".gif").substr(0, 6), "GIF89a");
  }
  EXPECT_TRUE(fs::exists(out + "/mode_3.npy"));
  EXPECT_FALSE(fs::exists(out + "/mode_4.npy"));
  const std::string svg = test::ReadFile(out + "/chart.svg");
  EXPECT_EQ(svg.substr(0, 4), "<svg");
  EXPECT_TRUE(Contains(svg, "</svg>"));
}

// A cut cube is rendered again; a band without the first mode leaves it out.
// What an earlier run left in the folder goes (and only that), the fit
// reports progress, and a run that finds nothing says so and writes no mode.
TEST_F(ModesCli, RerendersAShortCubeAndHonoursTheBand) {
  ASSERT_EQ(Cli("render " + header).status, 0);
  const std::string cube = frfmap::DataFilePath(header, frfmap::DataFile::kCube, 1);
  fs::resize_file(cube, fs::file_size(cube) / 2);
  fs::create_directory(dir.file("out"));
  for (const char* stale : {"mode_3.png", "mode_3.npy", "mode_9_motion.gif", "keep.txt"}) {
    std::ofstream(dir.file(std::string("out/") + stale)) << "earlier";
  }
  const auto r = Cli("modes " + header + " --reference " + reference + " --band 200:999 -o " +
                     dir.file("out"));
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* said : {"too short", "2 mode(s)", "mode_1.{npy,png,gif} .. mode_2.{npy,png,gif}",
                           "removed 3 file(s) of the previous run"}) {
    EXPECT_TRUE(Contains(r.out, said));
  }
  EXPECT_TRUE(Contains(r.err, "fitting the modes: "));
  EXPECT_TRUE(Contains(r.err, "100%"));
  const std::string csv = test::ReadFile(dir.file("out/modes.csv"));
  EXPECT_EQ(csv.find(",120."), std::string::npos) << csv;
  EXPECT_FALSE(fs::exists(dir.file("out/mode_3.npy")));
  EXPECT_FALSE(fs::exists(dir.file("out/mode_9_motion.gif")));
  EXPECT_TRUE(fs::exists(dir.file("out/keep.txt")));

  const auto none = Cli("modes " + header + " --reference " + reference +
                        " --band 200:999 --min-stable 1000 -o " + dir.file("out"));
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_TRUE(Contains(none.out, "No mode passed"));
  EXPECT_TRUE(Contains(none.out, "wrote modes.csv, chart.svg, chart.json into"));
  EXPECT_FALSE(fs::exists(dir.file("out/mode_1.npy")));
}

TEST_F(ModesCli, BadInputGivesOneLineAndExitOne) {
  const std::string out = " -o " + dir.file("out");
  struct Case {
    std::string args, message;
  } cases[] = {
      {"modes " + dir.file("none.hdr") + " --reference " + reference + out, "no such file"},
      {"modes " + header + " --reference " + dir.file("none.txt") + out, "cannot read reference"},
      {"modes " + header + " --reference " + reference + " --band 300:100" + out, "--band"},
      {"modes " + header + " --reference " + reference + " --orders 40:2" + out, "--orders"},
  };
  for (const Case& c : cases) {
    const auto r = Cli(c.args);
    EXPECT_EQ(r.status, 1) << c.args;
    EXPECT_TRUE(Contains(r.err, c.message));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
}

// A moving beam: displacement shapes in mm, their pictures, and a universal
// file whose FRFs the stability command reads back.
TEST(ModesCliBeam, DisplacementOutputsAndUniversalFile) {
  test::ScratchDir dir;
  const std::string header = dir.file("beam.hdr");
  ASSERT_EQ(Cli("synth " + header + " --scene beam --width 64 --height 160").status, 0);
  const std::string out = dir.file("out"), uff = dir.file("beam.uff");
  const auto r = Cli("modes " + header + " --reference " + dir.file("beam_reference.txt") +
                     " --scale 0.5 --write-uff " + uff + " -o " + out);
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_TRUE(Contains(r.out, "shapes: displacement"));
  EXPECT_TRUE(Contains(r.out, "3 mode(s)"));
  const std::string csv = test::ReadFile(out + "/modes.csv");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 4) << csv;
  EXPECT_TRUE(Contains(csv, ",displacement\n"));
  for (int k = 1; k <= 3; ++k) {
    const std::string base = out + "/mode_" + std::to_string(k);
    const std::string npy = test::ReadFile(base + "_disp.npy");
    EXPECT_TRUE(Contains(npy.substr(0, 128), "'descr': '<c8'"));
    EXPECT_TRUE(Contains(npy.substr(0, 128), "'shape': (2, 160, 64)"));
    const std::string png = test::ReadFile(base + "_disp.png");
    EXPECT_TRUE(Contains(png, "per reference unit"));
    EXPECT_TRUE(Contains(png, " mm "));
    EXPECT_EQ(test::ReadFile(base + "_motion.gif").substr(0, 6), "GIF89a");
  }
  const std::string text = test::ReadFile(uff);
  EXPECT_EQ(text.find("    -1\n  2411\n"), 0u);
  EXPECT_TRUE(Contains(text, "    -1\n    55\n"));
  const auto back = Cli("stability " + uff + " -o " + dir.file("beam.pb") + " --orders 2:30");
  ASSERT_EQ(back.status, 0) << back.err << back.out;
  EXPECT_TRUE(Contains(back.out, "60."));
}

}  // namespace
}  // namespace frfcam
