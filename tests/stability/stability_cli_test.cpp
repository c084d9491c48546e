// The stability and synth-frf commands of the frfcam tool.
#include <gtest/gtest.h>

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

TEST(StabilityCommand, FindsTheModesOfTheSynthesisedSystem) {
  ScratchDir dir;
  const std::string csv = dir.file("frf.csv"), record = dir.file("record.pb");
  const auto synth = RunCommand(Cli("synth-frf " + csv + " --lines 800 --channels 3"));
  ASSERT_EQ(synth.status, 0) << synth.err;
  const auto run = RunCommand(Cli("stability " + csv + " -o " + record + " --orders 2:30"));
  ASSERT_EQ(run.status, 0) << run.err;

  // The frequencies of the mode table below its header.
  std::vector<double> found;
  const std::regex row(R"(^\s+\d+\s+([0-9.]+)\s+([0-9.]+)\s+\S+\s*$)");
  std::istringstream lines(
      run.out.substr(std::min(run.out.find("frequency [Hz]"), run.out.size())));
  std::string line;
  for (std::smatch m; std::getline(lines, line);) {
    if (std::regex_match(line, m, row)) found.push_back(std::stod(m[1]));
  }
  const auto modes = frfcam::stability::DefaultFiveModeSystem().modes;
  ASSERT_EQ(found.size(), modes.size()) << run.out;
  for (std::size_t r = 0; r < modes.size(); ++r) {
    EXPECT_NEAR(found[r], modes[r].frequencyHz, 2e-3 * modes[r].frequencyHz) << run.out;
  }
}

TEST(StabilityCommand, MalformedTableNamesTheLine) {
  ScratchDir dir;
  const std::string csv = dir.file("frf.csv");
  std::ofstream(csv, std::ios::binary) << "f,re,im\n1,2,3\n\n2,3\n";  // blank lines count
  const auto r = RunCommand(Cli("stability " + csv + " -o " + dir.file("r.pb")));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("frf.csv:4: expected 3 values, found 2"), std::string::npos) << r.err;
}

}  // namespace
