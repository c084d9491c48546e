// The command-line tool as a user runs it: synth, info, render, map, delete,
// and every misuse as one line on stderr and exit status 1, never a black
// picture.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "support/contains.h"
#include "support/test_support.h"

namespace frfcam {
namespace {

namespace fs = std::filesystem;
using test::Cli;
using test::Contains;

void ExpectOneLineError(const std::string& args, const std::string& words) {
  const test::CommandResult r = Cli(args);
  EXPECT_EQ(r.status, 1) << args;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << args << ": " << r.err;
  EXPECT_TRUE(Contains(r.err, words)) << args;
}

TEST(Commands, FromSyntheticCaptureToPngMap) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("plate.hdr");
  const test::CommandResult synth =
      Cli("synth " + hdr + " --width 40 --height 30 --frames 101 --fps 1000 --frames-per-file 50");
  ASSERT_EQ(synth.status, 0) << synth.err;
  EXPECT_TRUE(Contains(synth.out, "150 Hz"));

  const test::CommandResult info = Cli("info " + hdr);
  ASSERT_EQ(info.status, 0) << info.err;
  for (const char* expected : {"frame bytes S     1800 (1.5 bytes per pixel)",
                               "plate_0003.div  1816 bytes", "plate_0001.fft  missing"}) {
    EXPECT_TRUE(Contains(info.out, expected));
  }

  const test::CommandResult render = Cli("render " + hdr);
  ASSERT_EQ(render.status, 0) << render.err;
  EXPECT_TRUE(Contains(render.err, "100%"));

  const std::string png = dir.file("m.png");
  const test::CommandResult map = Cli("map " + hdr + " --freq 150 --reference " +
                                      dir.file("plate_reference.txt") + " -o " + png);
  ASSERT_EQ(map.status, 0) << map.err;
  EXPECT_TRUE(Contains(map.out, "bin 15 "));
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
    EXPECT_TRUE(Contains(synth.out, expected));
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
  EXPECT_TRUE(Contains(bare.err, "Usage: frfcam"));
  const test::CommandResult help = Cli("help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  EXPECT_TRUE(Contains(help.out, "Usage: frfcam"));
  const test::CommandResult version = Cli("--version");
  EXPECT_TRUE(std::regex_match(version.out, std::regex("frfcam \\d+\\.\\d+\\.\\d+\n")))
      << version.out;
  EXPECT_TRUE(Contains(Cli("help map").out, "--gain-from"));
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
  EXPECT_TRUE(Contains(cut.err, "99%"));
  EXPECT_EQ(cut.err.find("100%"), std::string::npos) << cut.err;
  const test::CommandResult whole = Cli("render " + hdr);
  EXPECT_EQ(whole.status, 0) << whole.err;
  EXPECT_TRUE(Contains(whole.err, "100%"));
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
  ExpectOneLineError("map " + hdr + " --bin 1 -o " + png, "no such file");
  ExpectOneLineError("delete " + dir.file("nowhere"), "no such folder");

  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 64 --fps 1000").status, 0);
  ExpectOneLineError("map " + hdr + " --bin 3 -o " + png, "has not been rendered");
  ExpectOneLineError("synth " + hdr, "--force");
  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 64 --fps 1000 --force").status,
            0);

  ASSERT_EQ(Cli("render " + hdr).status, 0);
  ExpectOneLineError("map " + hdr + " --freq 1e300 -o " + png, "is outside 0..500 Hz");
  ExpectOneLineError("map " + hdr + " --freq 150 --fps 1e-300 -o " + png,
                     "is outside 0..5e-301 Hz");
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

// The maps of a capture share one gain by default, so a map off resonance
// is dark; --gain auto scales each map on its own.
TEST(Commands, MapsShareTheStrongestBinsGain) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("p.hdr");
  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 100 --fps 1000").status, 0);
  ASSERT_EQ(Cli("render " + hdr).status, 0);
  const std::regex gain(
      "gain ([0-9.e+-]+) \\((shared: the automatic gain of bin (\\d+)|automatic)");
  std::string out;
  const auto run = [&](const std::string& args, std::smatch* m) {
    const test::CommandResult r = Cli("map " + hdr + " " + args);
    EXPECT_EQ(r.status, 0) << args << ": " << r.err;
    out = r.out;
    return std::regex_search(out, *m, gain);
  };
  const auto meanGrey = [](const std::string& png) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    std::vector<unsigned char> grey;
    if (png_image_begin_read_from_file(&image, png.c_str()) != 0) {
      image.format = PNG_FORMAT_GRAY;
      grey.resize(PNG_IMAGE_SIZE(image));
      png_image_finish_read(&image, nullptr, grey.data(), 0, nullptr);
    }
    double sum = 0;
    for (const unsigned char v : grey) sum += v;
    return grey.empty() ? -1.0 : sum / static_cast<double>(grey.size());
  };
  std::smatch m;
  ASSERT_TRUE(run("--freq 150 -o " + dir.file("on.png"), &m));
  const std::string shared = m[1], strongest = m[3];
  ASSERT_TRUE(run("--freq 400 -o " + dir.file("off.png"), &m));
  EXPECT_EQ(m[1], shared);
  EXPECT_LT(meanGrey(dir.file("off.png")), 0.2 * meanGrey(dir.file("on.png")));
  ASSERT_TRUE(run("--freq 400 --gain auto -o " + dir.file("own.png"), &m));
  EXPECT_NE(m[1], shared) << "an off-resonance map scaled on its own";
  for (const std::string from : {"--gain-from-freq 150", "--gain-from 150Hz", "--gain-from 15"}) {
    ASSERT_TRUE(run("--freq 400 " + from + " -o " + dir.file("c.png"), &m));
    EXPECT_EQ(m[3], "15") << from;
  }
  EXPECT_EQ(strongest, "6") << "the plate's first mode (60 Hz) is its strongest";
}

// What a new user trips over is named: the command, the file that is not a
// header, the frame data that is not where the header looks, the gain, the
// reference and the range, each in one short line, before anything runs.
TEST(Commands, FirstMistakesSayWhatHappened) {
  test::ScratchDir dir;
  const test::CommandResult typo = Cli("rendr x.hdr");
  EXPECT_EQ(typo.status, 2);
  EXPECT_TRUE(Contains(typo.err, "no command 'rendr'; did you mean 'render'?"));

  const std::string text = dir.file("notes.txt");
  std::ofstream(text) << std::string(4000, 'x');
  ExpectOneLineError("info " + text, "is not a capture header");

  const std::string hdr = dir.file("p.hdr");
  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 64 --fps 1000").status, 0);
  fs::create_directory(dir.path() / "elsewhere");
  const std::string moved = dir.file("elsewhere/p.hdr");
  fs::copy_file(hdr, moved);
  ExpectOneLineError("map " + moved + " --bin 3 -o x.png",
                     "the frame data of " + moved + " is missing");

  ASSERT_EQ(Cli("render " + hdr).status, 0);
  const test::CommandResult again = Cli("render " + hdr);
  EXPECT_EQ(again.status, 0);
  EXPECT_TRUE(Contains(again.out, "complete already; --force"));
  EXPECT_EQ(again.err, "");
  EXPECT_TRUE(Contains(Cli("render --force " + hdr).err, "100%"));

  const std::string png = dir.file("m.png");
  ExpectOneLineError("map " + hdr + " --bin 3 --gain 0 -o " + png,
                     "give a number above 0, or auto");
  const test::CommandResult negative = Cli("map " + hdr + " --freq -5 -o " + png);
  EXPECT_EQ(negative.status, 2);
  EXPECT_TRUE(Contains(negative.err, "-5 is negative"));
  EXPECT_LT(negative.err.size(), 80u) << negative.err;
  const std::string shortRef = dir.file("short.txt");
  std::ofstream(shortRef) << "1\n2\n3\n";
  ExpectOneLineError("map " + hdr + " --bin 3 --reference " + shortRef + " -o " + png,
                     "3 samples, but the capture has 64 frames");
  const std::string zeros = dir.file("zeros.txt");
  std::string zero;
  for (int i = 0; i < 64; ++i) zero += "0\n";
  std::ofstream(zeros) << zero;
  ExpectOneLineError("map " + hdr + " --bin 3 --reference " + zeros + " -o " + png,
                     "every sample is zero");
  EXPECT_FALSE(fs::exists(png));

  // The order range is checked before anything is printed; the fit prints
  // the tool's own lines only.
  const std::string csv = dir.file("f.csv");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 200 --channels 2").status, 0);
  const test::CommandResult orders = Cli("stability " + csv + " --orders 60:2 -o r.pb");
  EXPECT_EQ(orders.status, 1);
  EXPECT_EQ(orders.out, "");
  EXPECT_TRUE(Contains(orders.err, "--orders 60:2: give LOW:HIGH"));
  const test::CommandResult fit = Cli("stability " + csv + " --orders 2:20 -o " + dir.file("r.pb"));
  EXPECT_EQ(fit.status, 0) << fit.err;
  EXPECT_EQ(fit.out.find("took"), std::string::npos) << fit.out;
  EXPECT_TRUE(Contains(fit.out, "fitted orders 2..20 in "));
}

// Ctrl-C during a render: the line says what the cube left and how to remove
// it; with --clean-on-cancel the cube files are gone.
TEST(Commands, ACancelledRenderSaysWhatItLeft) {
  FRFCAM_SKIP_ON_WINDOWS("the interrupt is sent through a POSIX shell");
  test::ScratchDir dir;
  const std::string hdr = dir.file("big.hdr");
  ASSERT_EQ(Cli("synth " + hdr + " --width 256 --height 256 --frames 2000 --fps 2000").status, 0);
  for (const bool clean : {false, true}) {
    const std::string err = dir.file(clean ? "err2" : "err1");
    const test::CommandResult r = test::RunCommand(
        "bash -c '" FRFCAM_CLI " render " + hdr + (clean ? " --clean-on-cancel" : "") + " 2>" +
        err + " & p=$!; until grep -q % " + err +
        "; do sleep 0.02; done; kill -INT $p; wait $p; echo status $?'");
    if (r.out.find("status 0") != std::string::npos) GTEST_SKIP() << "the render ended first";
    EXPECT_TRUE(Contains(r.out, "status 130"));
    const std::string said = test::ReadFile(err);
    if (clean) {
      EXPECT_TRUE(Contains(said, "removed its"));
      EXPECT_FALSE(fs::exists(dir.path() / "big" / "big_0001.fft"));
    } else {
      EXPECT_TRUE(Contains(said, "are left in " + dir.file("big") + ": 'frfcam delete"));
      EXPECT_TRUE(fs::exists(dir.path() / "big" / "big_0001.fft"));
    }
  }
}

}  // namespace
}  // namespace frfcam
