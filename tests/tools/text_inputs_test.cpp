// Text inputs as people have them (comments, units rows, `;` with decimal
// commas, tabs, time columns) read as the plain files do, and synth-frf's
// universal file read back by stability.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/contains.h"
#include "support/test_support.h"

namespace frfcam {
namespace {

using test::Cli;
using test::CommandResult;
using test::Contains;

// What stability printed from the table of selected modes to the record's
// name: the same text for the same data.
std::string ModesTable(const std::string& out) {
  const auto at = out.find(" mode(s) selected");
  if (at == std::string::npos) return "none in:\n" + out;
  const auto from = out.rfind('\n', at) + 1;
  return out.substr(from, out.find("record written") - from);
}

// The frequencies of that table.
std::vector<double> ModeFrequencies(const std::string& out) {
  std::istringstream table(ModesTable(out));
  std::string line;
  std::vector<double> hz;
  int mode = 0;
  double f = 0;
  while (std::getline(table, line)) {
    if (std::sscanf(line.c_str(), "%d %lf", &mode, &f) == 2) hz.push_back(f);
  }
  return hz;
}

std::string Replace(std::string s, char from, char to) {
  std::replace(s.begin(), s.end(), from, to);
  return s;
}

TEST(TextInputs, CsvWithCommentsUnitsAndOtherSeparatorsGivesTheSameModes) {
  test::ScratchDir dir;
  const std::string plain = dir.file("plain.csv");
  ASSERT_EQ(Cli("synth-frf " + plain + " --lines 300 --channels 2").status, 0);
  const CommandResult want = Cli("stability " + plain + " -o " + dir.file("a.pb"));
  ASSERT_EQ(want.status, 0) << want.err;

  std::ifstream in(plain);
  std::string header, row;
  std::getline(in, header);
  std::ostringstream european, tabs;
  european << "# exported by hand\nfrequency;h1 re;h1 im;h2 re;h2 im\nHz;;;;\n";
  tabs << Replace(header, ',', '\t') << "\n\n";
  for (int i = 0; std::getline(in, row); ++i) {
    european << Replace(Replace(row, ',', ';'), '.', ',') << (i == 7 ? "  # a note\n" : "\n");
    tabs << Replace(row, ',', '\t') << "\n";
    if (i == 100) european << "   # halfway\n";
  }
  std::ofstream(dir.file("european.csv")) << european.str();
  std::ofstream(dir.file("tabs.csv")) << tabs.str();
  for (const char* name : {"european.csv", "tabs.csv"}) {
    const CommandResult got = Cli("stability " + dir.file(name) + " -o " + dir.file("b.pb"));
    ASSERT_EQ(got.status, 0) << name << ": " << got.err;
    EXPECT_TRUE(Contains(got.out, "300 line(s) of 2 channel(s)"));
    EXPECT_EQ(ModesTable(got.out), ModesTable(want.out)) << name;
  }

  // A third row of names is a wrong file, refused at its line.
  std::ofstream(dir.file("names.csv")) << "f,re,im\nHz,,\nwhat,is,this\n1,2,3\n";
  const CommandResult names = Cli("stability " + dir.file("names.csv") + " -o " + dir.file("c.pb"));
  EXPECT_EQ(names.status, 1);
  EXPECT_TRUE(Contains(names.err, "names.csv:3: 'what' is not a number (column 1)"));
}

TEST(TextInputs, ReferenceWithTimesIsItsValuesAndItsRateIsChecked) {
  test::ScratchDir dir;
  const std::string hdr = dir.file("plate.hdr");
  ASSERT_EQ(Cli("synth " + hdr + " --width 40 --height 30 --frames 100 --fps 1000").status, 0);
  ASSERT_EQ(Cli("render " + hdr).status, 0);
  std::ifstream in(dir.file("plate_reference.txt"));
  std::ofstream same(dir.file("timed.csv")), slow(dir.file("slow.txt")),
      comma(dir.file("comma.txt"));
  same << "time;force\ns;N\n";
  std::string value;
  for (int i = 0; in >> value; ++i) {
    char t[32];
    std::snprintf(t, sizeof t, "%.4f", i / 1000.0);
    same << Replace(t, '.', ',') << ";" << Replace(value, '.', ',') << "\n";
    std::snprintf(t, sizeof t, "%.6f", i / 990.0);
    slow << t << "\t" << value << "  # N\n";
    comma << Replace(value, '.', ',') << "\n";
  }
  same.close();
  slow.close();
  comma.close();

  const auto map = [&](const std::string& reference, const std::string& png) {
    return Cli("map " + hdr + " --freq 150 --reference " + dir.file(reference) + " -o " +
               dir.file(png));
  };
  const CommandResult want = map("plate_reference.txt", "a.png");
  const CommandResult timed = map("timed.csv", "b.png");
  ASSERT_EQ(want.status, 0) << want.err;
  ASSERT_EQ(timed.status, 0) << timed.err;
  EXPECT_EQ(timed.err, "");
  EXPECT_EQ(timed.out.substr(timed.out.find(':')), want.out.substr(want.out.find(':')));
  EXPECT_EQ(test::ReadFile(dir.file("b.png")), test::ReadFile(dir.file("a.png")));

  const CommandResult off = map("slow.txt", "c.png");
  ASSERT_EQ(off.status, 0) << off.err;
  EXPECT_EQ(std::count(off.err.begin(), off.err.end(), '\n'), 1) << off.err;
  EXPECT_TRUE(Contains(off.err, "give 990 samples/s, the header gives 1000 frames/s"));
  EXPECT_EQ(test::ReadFile(dir.file("c.png")), test::ReadFile(dir.file("a.png")));

  // One column with decimal commas reads as (integer part, fraction) pairs,
  // whose "times" soon fall back: the refusal names the likely cause.
  const CommandResult commas = map("comma.txt", "d.png");
  EXPECT_EQ(commas.status, 1);
  EXPECT_TRUE(Contains(commas.err, "one value a line with decimal commas? Write points\n"));
}

TEST(TextInputs, SynthFrfWritesAUniversalFileThatStabilityReads) {
  test::ScratchDir dir;
  ASSERT_EQ(Cli("synth-frf " + dir.file("f.csv") + " --lines 300 --channels 3").status, 0);
  const CommandResult uff = Cli("synth-frf " + dir.file("f.uff") + " --lines 300 --channels 3");
  ASSERT_EQ(uff.status, 0) << uff.err;
  EXPECT_EQ(test::ReadFile(dir.file("f.uff")).substr(0, 13), "    -1\n    58");

  const CommandResult fromCsv = Cli("stability " + dir.file("f.csv") + " -o " + dir.file("a.pb"));
  const CommandResult fromUff = Cli("stability " + dir.file("f.uff") + " -o " + dir.file("b.pb"));
  ASSERT_EQ(fromUff.status, 0) << fromUff.err;
  EXPECT_TRUE(Contains(fromUff.out, "3 +Z"));
  // The file's abscissa (start and step) has six digits, so the modes move
  // by a few mHz.
  const std::vector<double> want = ModeFrequencies(fromCsv.out), got = ModeFrequencies(fromUff.out);
  ASSERT_EQ(want.size(), 5u) << fromCsv.out;
  ASSERT_EQ(got.size(), want.size()) << fromUff.out;
  for (std::size_t k = 0; k < want.size(); ++k) EXPECT_NEAR(got[k], want[k], 0.01) << k;

  const CommandResult npz = Cli("synth-frf " + dir.file("f.npz"));
  EXPECT_EQ(npz.status, 1);
  EXPECT_EQ(npz.err, "frfcam: " + dir.file("f.npz") +
                         ": synth-frf writes .csv, or .uff/.unv (UFF dataset 58)\n");
}

}  // namespace
}  // namespace frfcam
