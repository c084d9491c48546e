// The command-line tool as a user runs it: synth, info, render, map, delete,
// and every misuse as one line on stderr and exit status 1, never a black
// picture.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>

#include "support/test_support.h"

namespace frfcam {
namespace {

namespace fs = std::filesystem;
using test::Cli;

void ExpectOneLineError(const std::string& args, const std::string& words) {
  const test::CommandResult r = Cli(args);
  EXPECT_EQ(r.status, 1) << args;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << args << ": " << r.err;
  EXPECT_NE(r.err.find(words), std::string::npos) << args << ": " << r.err;
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
  for (const char* expected : {"frame bytes S     1800 (1.5 bytes per pixel)",
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
  EXPECT_EQ(test::ReadFile(png).substr(1, 3), "PNG");

  EXPECT_EQ(Cli("delete " + dir.path().string()).status, 0);
  EXPECT_FALSE(fs::exists(dir.path() / "plate" / "plate_0001.fft"));
  EXPECT_TRUE(fs::exists(dir.path() / "plate" / "plate_0001.div"));
}

// The beam's own defaults (size and noise) and options reach the capture;
// --bits is --format by another name.
TEST(Commands, SynthesisesALyingBeam) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("beam.hdr");
  const test::CommandResult synth = Cli("synth " + hdr +
                                        " --scene beam --horizontal --plain-patch --bits 8 "
                                        "--excitation chirp --motion 0.5 --frames 64");
  ASSERT_EQ(synth.status, 0) << synth.err;
  for (const char* expected : {"320 x 128 pixels, 64 frames at 2000 fps, 8-bit", "tip RMS 0.5 px",
                               "clamped at the left", "plain patch: x "}) {
    EXPECT_NE(synth.out.find(expected), std::string::npos) << expected << "\n" << synth.out;
  }
  const std::string reference = test::ReadFile(dir.file("beam_reference.txt"));
  EXPECT_EQ(std::count(reference.begin(), reference.end(), '\n'), 64);
}

// Asked for, the usage is output (exit 0); a bare "frfcam" is a mistake that
// scripts must see (exit 2), with the usage on stderr only.
TEST(Commands, UsageWhenAskedAndWhenMissing) {
  FRFCAM_SKIP_ON_WINDOWS("the usage text is read through a POSIX shell");
  const test::CommandResult bare = Cli("");
  EXPECT_EQ(bare.status, 2);
  EXPECT_EQ(bare.out, "");
  EXPECT_NE(bare.err.find("Usage: frfcam"), std::string::npos) << bare.err;
  const test::CommandResult help = Cli("help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  EXPECT_NE(help.out.find("Usage: frfcam"), std::string::npos) << help.out;
  const test::CommandResult version = Cli("--version");
  EXPECT_TRUE(std::regex_match(version.out, std::regex("frfcam \\d+\\.\\d+\\.\\d+\n")))
      << version.out;
  EXPECT_NE(Cli("help map").out.find("--gain-from"), std::string::npos);
  EXPECT_EQ(Cli("help nothing").status, 2);
}

// The library counts a block as done once transformed; a render whose last
// writes fail must not have shown 100 % first.
TEST(Commands, RenderShowsOneHundredPercentOnlyWhenWritten) {
  FRFCAM_SKIP_ON_WINDOWS("the file size limit is set through a POSIX shell");
  test::ScratchDir dir;
  const std::string hdr = dir.file("p.hdr");
  ASSERT_EQ(Cli("synth " + hdr + " --width 64 --height 48 --frames 400 --fps 1000").status, 0);
  // 4824 KiB of cube in three blocks: a limit just under it (bash counts
  // KiB, POSIX shells 512-byte blocks) fails the last block's writes.
  const test::CommandResult cut =
      test::RunCommand("bash -c 'ulimit -f 4820; exec " FRFCAM_CLI " render " + hdr + "'");
  EXPECT_EQ(cut.status, 1) << cut.err;
  EXPECT_NE(cut.err.find("99%"), std::string::npos) << cut.err;
  EXPECT_EQ(cut.err.find("100%"), std::string::npos) << cut.err;
  const test::CommandResult whole = Cli("render " + hdr);
  EXPECT_EQ(whole.status, 0) << whole.err;
  EXPECT_NE(whole.err.find("100%"), std::string::npos) << whole.err;
}

TEST(Commands, MisuseIsOneLineAndWritesNothing) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("p.hdr");
  const std::string png = dir.file("m.png");
  ExpectOneLineError("synth " + hdr + " --format 10", "--format");
  ExpectOneLineError("synth " + hdr + " --width 0", "--width");
  ExpectOneLineError("synth " + hdr + " --frames 1000 --frames-per-file 1", "files");
  ExpectOneLineError("synth " + hdr + " --scene beam --noise 2", "--noise must lie in 0..1");
  ExpectOneLineError("synth " + hdr + " --motion 1", "--scene beam");
  ExpectOneLineError("synth " + hdr + " --scene beam --excitation sweep", "--excitation");
  EXPECT_FALSE(fs::exists(hdr));
  ExpectOneLineError("info " + hdr, "no such file");
  ExpectOneLineError("render " + hdr, "no such file");
  ExpectOneLineError("map " + hdr + " --bin 1 -o " + png, "no such file");
  ExpectOneLineError("delete " + dir.file("nowhere"), "no such folder");

  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 64 --fps 1000").status, 0);
  ExpectOneLineError("map " + hdr + " --bin 3 -o " + png, "has not been rendered");
  ExpectOneLineError("synth " + hdr, "--force");
  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 64 --fps 1000 --force").status,
            0);

  ASSERT_EQ(Cli("render " + hdr).status, 0);
  ExpectOneLineError("map " + hdr + " --freq 1e300 -o " + png, "Nyquist frequency 500 Hz");
  ExpectOneLineError("map " + hdr + " --freq 150 --fps 1e-300 -o " + png, "past the Nyquist");
  ExpectOneLineError("map " + hdr + " --bin 33 -o " + png, "0..32");
  ExpectOneLineError("map " + hdr + " --bin 3 --gain-from 40 -o " + png, "--gain-from 40");
  ExpectOneLineError("map " + hdr + " --bin 3 -o /dev/full", "/dev/full");
  ExpectOneLineError("map " + hdr + " --bin 3 -o " + dir.path().string(), "folder");
  EXPECT_FALSE(fs::exists(png));

  // A cube cut short (an interrupted render, a full disk) is no cube.
  const fs::path cube = dir.path() / "p" / "p_0001.fft";
  fs::resize_file(cube, fs::file_size(cube) - 8);
  ExpectOneLineError("map " + hdr + " --bin 3 -o " + png, "incomplete");
}

TEST(Commands, GainFromSharesOneScaleAcrossMaps) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("p.hdr");
  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 100 --fps 1000").status, 0);
  ASSERT_EQ(Cli("render " + hdr).status, 0);
  const std::regex gain("gain ([0-9.e+-]+) \\(automatic(, of bin (\\d+))?\\), 255 = \\|X\\| ");
  std::smatch m;
  const std::string own = Cli("map " + hdr + " --freq 150 -o " + dir.file("a.png")).out;
  ASSERT_TRUE(std::regex_search(own, m, gain)) << own;
  const std::string resonance = m[1];
  const std::string off = Cli("map " + hdr + " --freq 400 -o " + dir.file("b.png")).out;
  ASSERT_TRUE(std::regex_search(off, m, gain)) << off;
  EXPECT_NE(m[1], resonance) << "an off-resonance map scaled on its own";
  const std::string shared =
      Cli("map " + hdr + " --freq 400 --gain-from 15 -o " + dir.file("c.png")).out;
  ASSERT_TRUE(std::regex_search(shared, m, gain)) << shared;
  EXPECT_EQ(m[1], resonance);
  EXPECT_EQ(m[3], "15");
}

}  // namespace
}  // namespace frfcam
