// The stability and synth-frf commands of the frfcam tool.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "stability/synthetic.h"
#include "support/test_support.h"

namespace {

using frfcam::test::RunCommand;
using frfcam::test::ScratchDir;

std::string Cli(const std::string& args) { return std::string(FRFCAM_CLI) + " " + args; }

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The frequencies of the mode table that `stability` prints.
std::vector<double> TableFrequencies(const std::string& out) {
  std::vector<double> hz;
  const std::regex row(R"(^\s+\d+\s+([0-9.]+)\s+([0-9.]+)\s+\S+\s*$)");
  std::istringstream lines(out);
  std::string line;
  bool inTable = false;
  while (std::getline(lines, line)) {
    if (line.find("frequency [Hz]") != std::string::npos) inTable = true;
    std::smatch m;
    if (inTable && std::regex_match(line, m, row)) hz.push_back(std::stod(m[1]));
  }
  return hz;
}

TEST(StabilityCommand, FindsTheModesOfTheSynthesisedSystem) {
  ScratchDir dir;
  const std::string csv = dir.file("frf.csv"), record = dir.file("record.pb");
  const auto synth = RunCommand(Cli("synth-frf " + csv + " --lines 800 --channels 3"));
  ASSERT_EQ(synth.status, 0) << synth.err;
  const auto run = RunCommand(Cli("stability " + csv + " -o " + record + " --orders 2:30"));
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("took "), std::string::npos);

  const std::vector<double> found = TableFrequencies(run.out);
  const auto modes = frfcam::stability::DefaultFiveModeSystem().modes;
  ASSERT_EQ(found.size(), modes.size()) << run.out;
  for (std::size_t r = 0; r < modes.size(); ++r) {
    EXPECT_NEAR(found[r], modes[r].frequencyHz, 2e-3 * modes[r].frequencyHz) << run.out;
  }
}

TEST(StabilityCommand, MalformedTablesNameTheLine) {
  ScratchDir dir;
  const std::string csv = dir.file("frf.csv");
  struct Case {
    std::string text;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"f,re,im\n1,2,3\n\n2,3\n", "frf.csv:4: expected 3 values, found 2"},
      {"f,re,im\r\n1,2,3\r\n2,x3,4\r\n", "frf.csv:3: 'x3' is not a number (column 2)"},
      {"f,re,im\n1,2,nan\n", "frf.csv:2: 'nan' is not finite (column 3)"},
      {"f,re,im\n1,,3\n", "frf.csv:2: empty value (column 2)"},
      {"f,re,im,re\n", "frf.csv:1: the header has 4 columns"},
      {"f,re,im\n", "frf.csv: no data rows"},
      {"", "frf.csv: empty file"},
  };
  for (const Case& c : cases) {
    WriteText(csv, c.text);
    const auto r = RunCommand(Cli("stability " + csv + " -o " + dir.file("r.pb")));
    EXPECT_EQ(r.status, 1) << c.text;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.text << " gave: " << r.err;
  }
}

TEST(StabilityCommand, BadOptionsAreExplained) {
  ScratchDir dir;
  const std::string csv = dir.file("frf.csv");
  ASSERT_EQ(RunCommand(Cli("synth-frf " + csv + " --lines 50 --channels 2")).status, 0);
  const std::string base = "stability " + csv + " -o " + dir.file("r.pb");
  struct Case {
    std::string args;
    std::string message;
  };
  const std::vector<Case> cases = {
      {" --orders 5", "--orders: expected LOW:HIGH"},
      {" --orders 5:5", "give at least two orders"},
      {" --orders 0:5", "lowest order must be at least 1"},
      {" --orders 2:49", "needs more lines than order + 1; the table has 50"},
      {" --reference-column 3", "the table has 2 channel(s)"},
  };
  for (const Case& c : cases) {
    const auto r = RunCommand(Cli(base + c.args));
    EXPECT_EQ(r.status, 1) << c.args;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << " gave: " << r.err;
  }
}

TEST(StabilityCommand, UnwritableRecordIsAnError) {
  ScratchDir dir;
  const std::string csv = dir.file("frf.csv");
  ASSERT_EQ(RunCommand(Cli("synth-frf " + csv + " --lines 200 --channels 2")).status, 0);
  const auto r =
      RunCommand(Cli("stability " + csv + " -o " + dir.file("missing/r.pb") + " --orders 2:10"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Failed to write address book."), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("no record could be read back"), std::string::npos) << r.err;
}

}  // namespace
