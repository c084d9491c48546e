// The stability command's inputs and outputs: CSV with or without a header,
// malformed tables and rows too long to be one, UFF 58 and .npz input, the
// fitted FRFs as UFF, and outputs that cannot be written, refused before the
// fit. (The Python package's test compares the printed modes with its own.)
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "formats/uff.h"
#include "stability/lscf.h"
#include "stability/synthetic.h"
#include "support/test_support.h"

namespace frfcam {
namespace {

using test::Cli;
using test::CommandResult;
using test::RunCommand;
using test::ScratchDir;

// The five-mode system as UFF functions: one FRF per channel, response
// nodes 101, 102, ... in +Z, and a time history that must be skipped.
std::vector<formats::Uff58> SystemAsUff(int channels) {
  stability::SyntheticFrfs s =
      stability::SynthesizeFrfs(stability::DefaultFiveModeSystem(800, channels, 0.001));
  std::vector<formats::Uff58> out;
  for (int c = 0; c < channels; ++c) {
    formats::Uff58 f;
    f.functionId = c + 1;
    f.responseNode = 101 + c;
    f.responseDirection = 3;
    f.referenceNode = 1;
    f.referenceDirection = 3;
    for (Eigen::Index i = 0; i < s.omega.size(); ++i) {
      f.x.push_back(s.omega[i] / (2 * 3.14159265358979323846));
      f.y.push_back(s.matrix(i, c));
    }
    out.push_back(f);
  }
  formats::Uff58 time = out[0];
  time.functionType = 1;
  time.responseNode = 999;
  out.insert(out.begin() + 1, time);
  return out;
}

// A shell prefix that limits the address space to 2 GiB; sanitizer builds,
// whose shadow memory needs far more address space, run without it.
std::string AddressLimit() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return "";
#else
  return "ulimit -v 2097152; ";
#endif
}

int CountModes(const std::string& out) {
  const auto at = out.find(" mode(s) selected");
  if (at == std::string::npos) return -1;
  return std::stoi(out.substr(out.rfind('\n', at) + 1));
}

TEST(StabilityInput, CsvWithAndWithoutHeaderAndMalformedRows) {
  FRFCAM_SKIP_ON_WINDOWS("the long rows are piped through a POSIX shell");
  ScratchDir dir;
  const std::string csv = dir.file("f.csv");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 400 --channels 2").status, 0);
  // The same table without its header row: every line is data.
  std::ifstream in(csv);
  std::string header, rest((std::istreambuf_iterator<char>(in.ignore(1 << 20, '\n'))), {});
  std::ofstream(dir.file("bare.csv")) << rest;
  for (const std::string& input : {csv, dir.file("bare.csv")}) {
    const CommandResult r = Cli("stability " + input + " -o " + dir.file("a.pb"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("400 line(s) of 2 channel(s)"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("no header row") != std::string::npos, input != csv) << r.out;
    EXPECT_EQ(CountModes(r.out), 5) << r.out;
  }

  std::ofstream(dir.file("bad.csv"), std::ios::binary) << "f,re,im\n1,2,3\n\n2,3\n";
  const CommandResult bad = Cli("stability " + dir.file("bad.csv") + " -o " + dir.file("c.pb"));
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("bad.csv:4: expected 3 values, found 2"), std::string::npos) << bad.err;

  // Rows of 64 MiB and 20 MiB under a 2 GiB address-space limit: refused in
  // one line, without an allocation failure.
  const std::string wide = dir.file("wide.csv");
  // The second row: 40 values, each after half a MiB of blanks.
  const std::tuple<std::string, int, std::string> rows[] = {
      {std::string(1 << 20, '1'), 64, "wide.csv:2: a value longer than 256 characters"},
      {std::string(1 << 19, ' ') + "1,", 40, "longer than 16 MiB"}};
  for (const auto& [chunk, count, words] : rows) {
    {
      std::ofstream w(wide, std::ios::binary);
      w << "f,re,im\n";
      for (int i = 0; i < count; ++i) w << chunk;
      w << "\n";
    }
    const CommandResult r = RunCommand(AddressLimit() + std::string(FRFCAM_CLI) + " stability " +
                                       wide + " -o " + dir.file("w.pb"));
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find(words), std::string::npos) << r.err;
  }
}

TEST(StabilityInput, OutputsThatCannotBeWrittenStopBeforeTheFit) {
  FRFCAM_SKIP_ON_WINDOWS("the unwritable outputs are /dev/full and POSIX folders");
  ScratchDir dir;
  const std::string csv = dir.file("f.csv");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 300 --channels 1").status, 0);
  for (const std::string& bad : std::vector<std::string>{
           "-o " + dir.path().string(), "-o /dev/full", "-o " + dir.file("no/r.pb"),
           "-o " + dir.file("r.pb") + " --write-uff " + dir.file("no/f.uff")}) {
    const CommandResult r = Cli("stability " + csv + " " + bad);
    EXPECT_EQ(r.status, 1) << bad;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << bad << ": " << r.err;
    EXPECT_EQ(r.out.find("fitted orders"), std::string::npos) << bad << ": the fit ran";
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("r.pb")));
}

TEST(StabilityInput, UffInAndOut) {
  ScratchDir dir;
  const std::string uff = dir.file("frf.uff");
  std::string error;
  ASSERT_TRUE(formats::WriteUff58File(uff, SystemAsUff(3), false, &error)) << error;

  const std::string fit = dir.file("fit.uff");
  const CommandResult r =
      Cli("stability " + uff + " -o " + dir.file("r.pb") + " --write-uff " + fit);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("4 function(s) in the file, 3 taken"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("3  103 +Z / 1 +Z (function 3)"), std::string::npos) << r.out;
  EXPECT_EQ(CountModes(r.out), 5) << r.out;

  std::vector<formats::Uff58> back;
  ASSERT_TRUE(formats::ReadUff58File(fit, &back, &error)) << error;
  ASSERT_EQ(back.size(), 3u);
  const std::vector<formats::Uff58> truth = SystemAsUff(3);
  EXPECT_EQ(std::tie(back[2].responseNode, back[2].evenAbscissa), std::make_tuple(103L, true));
  double worst = 0, peak = 0;
  for (std::size_t i = 0; i < back[2].y.size(); ++i) {
    worst = std::max(worst, std::abs(back[2].y[i] - truth[3].y[i]));
    peak = std::max(peak, std::abs(truth[3].y[i]));
  }
  EXPECT_LT(worst, 0.02 * peak);

  // One response node, binary in and out.
  const std::string binary = dir.file("frf58b.uff");
  ASSERT_TRUE(formats::WriteUff58File(binary, SystemAsUff(3), true, &error)) << error;
  const CommandResult one = Cli("stability " + binary + " --response 102:+z -o " +
                                dir.file("r2.pb") + " --write-uff " + fit + " --binary-uff");
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_NE(one.out.find("of 1 channel(s)"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("102 +Z"), std::string::npos) << one.out;
  ASSERT_TRUE(formats::ReadUff58File(fit, &back, &error)) << error;
  EXPECT_EQ(back.size(), 1u);

  const CommandResult none = Cli("stability " + uff + " --response 555 -o " + dir.file("r3.pb"));
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("no FRF of the --response nodes"), std::string::npos) << none.err;
}

// Only FRFs are fitted unless --function-type names other types; a file
// without them is refused in one line that counts what it holds.
TEST(StabilityInput, UffFunctionTypes) {
  ScratchDir dir;
  std::vector<formats::Uff58> functions = SystemAsUff(2);
  for (formats::Uff58& f : functions) f.functionType = 5;  // transmissibilities
  functions[1].functionType = 1;
  formats::Uff58 psd = functions[0];
  psd.functionType = 9;
  functions.push_back(psd);
  functions.push_back(psd);
  const std::string uff = dir.file("t.uff");
  std::string error;
  ASSERT_TRUE(formats::WriteUff58File(uff, functions, true, &error)) << error;

  const CommandResult refused = Cli("stability " + uff + " -o " + dir.file("r.pb"));
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "frfcam: " + uff +
                             " holds 1 time history (function type 1), 2 transmissibilities "
                             "(type 5), 2 PSDs (type 9) and no FRF (type 4); --function-type N "
                             "fits functions of type N\n");
  EXPECT_EQ(refused.out.find("fitted orders"), std::string::npos);

  const std::string fit = dir.file("fit.uff");
  const CommandResult chosen =
      Cli("stability " + uff + " --function-type 5 -o " + dir.file("r.pb") + " --write-uff " + fit);
  ASSERT_EQ(chosen.status, 0) << chosen.err;
  EXPECT_NE(chosen.out.find("5 function(s) in the file, 2 taken"), std::string::npos) << chosen.out;
  EXPECT_EQ(CountModes(chosen.out), 5) << chosen.out;
  std::vector<formats::Uff58> back;
  ASSERT_TRUE(formats::ReadUff58File(fit, &back, &error)) << error;
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].functionType, 5);  // the fit is of what was fitted

  const CommandResult two =
      Cli("stability " + uff + " --function-type 5 --function-type 1 -o " + dir.file("r.pb"));
  EXPECT_NE(two.out.find("5 function(s) in the file, 3 taken"), std::string::npos) << two.out;
}

// The fewest evenly spaced lines with which the estimator determines
// `order` for `channels` channels, found by asking it.
int LinesTheEstimatorNeeds(int order, int channels) {
  for (int lines = 2;; ++lines) {
    stability::RealVector omega = stability::RealVector::LinSpaced(lines, 10.0, 500.0);
    if (stability::lscf::HighestDeterminedOrder(omega, stability::lscf::BandOf(omega), nullptr,
                                                channels) >= order) {
      return lines;
    }
  }
}

// Too few lines for the lowest order refuse the run instead of writing a
// chart without poles; one line more runs.
TEST(StabilityInput, TooFewLinesForTheOrders) {
  ScratchDir dir;
  const std::pair<int, int> cases[] = {{4, 1}, {7, 3}};  // order, channels
  for (const auto& [order, channels] : cases) {
    const int need = LinesTheEstimatorNeeds(order, channels);
    for (const int lines : {need - 1, need}) {
      const std::string csv = dir.file("f.csv");
      ASSERT_EQ(Cli("synth-frf " + csv + " --lines " + std::to_string(lines) + " --channels " +
                    std::to_string(channels))
                    .status,
                0);
      const std::string orders = std::to_string(order) + ":" + std::to_string(order + 5);
      // No colon in the name: Windows reads it as a stream of a file.
      const std::string record = dir.file(std::to_string(order) + "-" + std::to_string(channels) +
                                          "-" + std::to_string(lines) + ".pb");
      const CommandResult r = Cli("stability " + csv + " --orders " + orders + " -o " + record);
      SCOPED_TRACE(std::to_string(lines) + " lines, orders " + orders + ", " +
                   std::to_string(channels) + " channels");
      if (lines == need) {
        EXPECT_EQ(r.status, 0) << r.err;
        continue;
      }
      EXPECT_EQ(r.status, 1);
      EXPECT_EQ(r.err, "frfcam: " + csv + ": too few lines for the orders " + orders +
                           ": there are " + std::to_string(lines) +
                           " spectral line(s), and the lowest order, " + std::to_string(order) +
                           ", needs at least " + std::to_string(need) + " with " +
                           std::to_string(channels) + " channel(s)\n");
      EXPECT_EQ(r.out.find("fitted orders"), std::string::npos);
      EXPECT_FALSE(std::filesystem::exists(record));
    }
  }
}

TEST(StabilityInput, NumpyArchives) {
  if (!test::HaveSystemPython("numpy")) GTEST_SKIP() << "no numpy";
  ScratchDir dir;
  const std::string csv = dir.file("f.csv"), npz = dir.file("f.npz");
  ASSERT_EQ(Cli("synth-frf " + csv + " --lines 500 --channels 2").status, 0);
  const CommandResult make =
      RunCommand(std::string(FRFCAM_SYSTEM_PYTHON) + " -c 'import numpy as np; t=np.loadtxt(\"" +
                 csv + "\", delimiter=\",\", skiprows=1); np.savez_compressed(\"" + npz +
                 "\", frequencies_hz=t[:,0], frf_matrix=t[:,1::2]+1j*t[:,2::2]); np.save(\"" +
                 dir.file("h.npy") + "\", t[:,1::2]+1j*t[:,2::2]); np.save(\"" + dir.file("f.npy") +
                 "\", t[:,0])'");
  ASSERT_EQ(make.status, 0) << make.err;
  const CommandResult r = Cli("stability " + npz + " -o " + dir.file("r.pb"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("500 line(s) of 2 channel(s)"), std::string::npos) << r.out;
  EXPECT_EQ(CountModes(r.out), 5) << r.out;
  const CommandResult npy = Cli("stability " + dir.file("h.npy") + " --frequencies " +
                                dir.file("f.npy") + " -o " + dir.file("r2.pb"));
  ASSERT_EQ(npy.status, 0) << npy.err;
  EXPECT_EQ(CountModes(npy.out), 5) << npy.out;
  const CommandResult alone = Cli("stability " + dir.file("h.npy") + " -o " + dir.file("r3.pb"));
  EXPECT_EQ(alone.status, 1);
  EXPECT_NE(alone.err.find("--frequencies"), std::string::npos) << alone.err;
}

}  // namespace
}  // namespace frfcam
