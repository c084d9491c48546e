// The synth and info commands as a user runs them.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/test_support.h"

namespace frfcam {
namespace {

namespace fs = std::filesystem;

std::string Cli(const std::string& args) { return std::string(FRFCAM_CLI) + " " + args; }

bool OneLine(const std::string& text) {
  return !text.empty() && std::count(text.begin(), text.end(), '\n') == 1;
}

TEST(CaptureCommands, SynthWritesCaptureAndReferenceThatInfoDescribes) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("plate.hdr");
  const test::CommandResult synth = test::RunCommand(
      Cli("synth " + hdr + " --width 40 --height 30 --frames 101 --fps 1000 --frames-per-file 50"));
  ASSERT_EQ(synth.status, 0) << synth.err;
  EXPECT_NE(synth.out.find("60 Hz"), std::string::npos) << synth.out;
  EXPECT_NE(synth.out.find("150 Hz"), std::string::npos) << synth.out;
  EXPECT_NE(synth.out.find("270 Hz"), std::string::npos) << synth.out;

  EXPECT_EQ(fs::file_size(hdr), 2998u);
  EXPECT_EQ(fs::file_size(dir.path() / "plate" / "plate_0003.div"), 1u * (1800 + 16));
  std::ifstream reference(dir.file("plate_reference.txt"));
  int lines = 0;
  for (std::string line; std::getline(reference, line);) {
    ASSERT_NO_THROW((void)std::stof(line)) << line;
    ++lines;
  }
  EXPECT_EQ(lines, 101);

  const test::CommandResult info = test::RunCommand(Cli("info " + hdr));
  ASSERT_EQ(info.status, 0) << info.err;
  for (const char* expected :
       {"width             40", "height            30", "1 (12-bit packed)",
        "frames            101", "frames per file   50", "1000",
        "frame bytes S     1800 (1.5 bytes per pixel)", "bins              51",
        "plate_0003.div  1816 bytes", "plate_0001.fft  missing"}) {
    EXPECT_NE(info.out.find(expected), std::string::npos) << expected << "\n" << info.out;
  }

  const test::CommandResult single =
      test::RunCommand(Cli("synth " + hdr +
                           " --width 12 --height 4 --frames 6 --format 8 "
                           "--single-file --ring-slots 8 --first-slot 5"));
  ASSERT_EQ(single.status, 0) << single.err;
  const test::CommandResult info2 = test::RunCommand(Cli("info " + hdr));
  ASSERT_EQ(info2.status, 0) << info2.err;
  EXPECT_NE(info2.out.find("single file       yes"), std::string::npos) << info2.out;
  EXPECT_NE(info2.out.find("ring of 8 slots"), std::string::npos) << info2.out;
  EXPECT_NE(info2.out.find("first slot 5"), std::string::npos) << info2.out;
  EXPECT_FALSE(fs::exists(dir.path() / "plate" / "plate_0001.div"));
}

TEST(CaptureCommands, BadArgumentsAndMissingHeadersFailWithOneLine) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("x.hdr");
  for (const char* args :
       {" --format 10", " --width 0", " --height 70000", " --frames 0", " --fps 0",
        " --frames-per-file 0", " --frames 1000 --frames-per-file 1", " --ring-slots 4"}) {
    const test::CommandResult r = test::RunCommand(Cli("synth " + hdr + args));
    EXPECT_EQ(r.status, 1) << args;
    EXPECT_TRUE(OneLine(r.err)) << args << ": " << r.err;
  }
  EXPECT_FALSE(fs::exists(hdr));

  const test::CommandResult missing = test::RunCommand(Cli("info " + hdr));
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(OneLine(missing.err)) << missing.err;

  std::ofstream(hdr) << "too short";
  const test::CommandResult shorter = test::RunCommand(Cli("info " + hdr));
  EXPECT_EQ(shorter.status, 1);
  EXPECT_TRUE(OneLine(shorter.err)) << shorter.err;
}

}  // namespace
}  // namespace frfcam
