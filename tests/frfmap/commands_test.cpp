// The command-line tool as a user runs it: synth, info, render, map, delete.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/test_support.h"

namespace frfcam {
namespace {

namespace fs = std::filesystem;

test::CommandResult Cli(const std::string& args) {
  return test::RunCommand(std::string(FRFCAM_CLI) + " " + args);
}

bool OneLine(const std::string& text) {
  return !text.empty() && std::count(text.begin(), text.end(), '\n') == 1;
}

TEST(Commands, FromSyntheticCaptureToPngMap) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("plate.hdr");
  const test::CommandResult synth =
      Cli("synth " + hdr + " --width 40 --height 30 --frames 101 --fps 1000 --frames-per-file 50");
  ASSERT_EQ(synth.status, 0) << synth.err;
  EXPECT_NE(synth.out.find("150 Hz"), std::string::npos) << synth.out;

  const test::CommandResult info = Cli("info " + hdr);
  ASSERT_EQ(info.status, 0) << info.err;
  for (const char* expected :
       {"frame bytes S     1800 (1.5 bytes per pixel)", "bins              51",
        "plate_0003.div  1816 bytes", "plate_0001.fft  missing"}) {
    EXPECT_NE(info.out.find(expected), std::string::npos) << expected << "\n" << info.out;
  }

  const test::CommandResult render = Cli("render " + hdr);
  ASSERT_EQ(render.status, 0) << render.err;
  EXPECT_NE(render.err.find("100%"), std::string::npos) << render.err;

  const std::string png = dir.file("m.png");
  const test::CommandResult map = Cli("map " + hdr + " --freq 150 --reference " +
                                      dir.file("plate_reference.txt") + " -o " + png);
  ASSERT_EQ(map.status, 0) << map.err;
  EXPECT_NE(map.out.find("bin 15 "), std::string::npos) << map.out;
  std::ifstream in(png, std::ios::binary);
  char signature[8] = {};
  in.read(signature, 8);
  EXPECT_EQ(std::string(signature + 1, 3), "PNG");

  EXPECT_EQ(Cli("delete " + dir.path().string()).status, 0);
  EXPECT_FALSE(fs::exists(dir.path() / "plate" / "plate_0001.fft"));
  EXPECT_TRUE(fs::exists(dir.path() / "plate" / "plate_0001.div"));
}

TEST(Commands, BadArgumentsFailWithOneLine) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("x.hdr");
  for (const std::string& args :
       {"synth " + hdr + " --format 10", "synth " + hdr + " --width 0",
        "synth " + hdr + " --frames 1000 --frames-per-file 1", "info " + hdr, "render " + hdr,
        "map " + hdr + " --bin 3 -o " + dir.file("m.png")}) {
    const test::CommandResult r = Cli(args);
    EXPECT_EQ(r.status, 1) << args;
    EXPECT_TRUE(OneLine(r.err)) << args << ": " << r.err;
  }
  EXPECT_FALSE(fs::exists(hdr));
}

}  // namespace
}  // namespace frfcam
